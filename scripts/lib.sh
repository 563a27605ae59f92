# Functions shared by the scripts in this folder. Sourced, not run.

# The caller's environment must not change what is built and tested.
unset DESTDIR OPENSSL_CONF "${!GTEST_@}"
[ -d "${TMPDIR:-/tmp}" ] || unset TMPDIR

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# install_packages PACKAGE...: installs those Debian packages that are missing.
install_packages() {
  local missing=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  echo "Installing: ${missing[*]}"
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 -o Acquire::Retries=3)
  "${apt[@]}" update -qq
  "${apt[@]}" install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages=(g++ cmake ninja-build zlib1g-dev)
token_packages=(softhsm2 opensc openssl)
test_packages=(libgtest-dev libgmock-dev libssl-dev python3 python3-jsonschema p11-kit-modules libp11-kit-dev valgrind ca-certificates
  python3-cryptography-vectors gnutls-bin pcscd vsmartcard-vpcd libnss3 opensc-pkcs11 pkg-config bash-completion zsh fish mandoc)

package_packages=(build-essential debhelper doxygen devscripts lintian)

# softhsm_module: prints the path of the SoftHSM 2 module, which varies between distributions.
softhsm_module() {
  local found
  for found in /usr/lib/softhsm/libsofthsm2.so /usr/lib/*/softhsm/libsofthsm2.so /usr/lib64/pkcs11/libsofthsm2.so; do
    [ -f "$found" ] && { echo "$found"; return 0; }
  done
  echo "libsofthsm2.so was not found" >&2
  return 1
}

# build_preset PRESET: configures if necessary and builds. Silent unless the build fails.
build_preset() {
  (
    cd "$root"
    [ -f "build/$1/build.ninja" ] || cmake --preset "$1" -G Ninja >/dev/null
    cmake --build --preset "$1" --parallel "$(nproc)" >"build/$1/build.log" 2>&1 || {
      cat "build/$1/build.log"
      exit 1
    }
  )
}

