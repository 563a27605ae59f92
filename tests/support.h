#ifndef MERVANE_TESTS_SUPPORT_H
#define MERVANE_TESTS_SUPPORT_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "pkcs11/clspkcs11.h"
#include "tests/fake/world.h"

namespace mervane::test {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// The class under test, with internal methods and members accessible.
class Pkcs11 final : public ClsPkcs11 {
  public:
    using ClsPkcs11::alreadyLoggedIn, ClsPkcs11::cacheEcdsaPrivateKeys, ClsPkcs11::cacheRsaPrivateKeys, ClsPkcs11::findPkcs11Cert, ClsPkcs11::hasOpenSession,
        ClsPkcs11::login, ClsPkcs11::noFunc, ClsPkcs11::noFuncs, ClsPkcs11::noSession, ClsPkcs11::openSession, ClsPkcs11::m_certs, ClsPkcs11::m_certsLoaded,
        ClsPkcs11::m_ecdsaKeysLoaded, ClsPkcs11::m_hSession, ClsPkcs11::m_rsaKeysHaveModulus, ClsPkcs11::m_rsaKeysHaveSubject, ClsPkcs11::m_rsaKeysLoaded,
        ClsPkcs11::m_rsaPrivKeys, ClsPkcs11::m_soLoggedIn, ClsPkcs11::m_userLoggedIn;

    // The lines of one channel in the log of all calls kept; values as "name=value".
    [[nodiscard]] std::vector<std::string> lines(_mvLogger::Entry::What what) const;
    [[nodiscard]] std::vector<std::string> errors() const { return lines(_mvLogger::Entry::What::Error); }
    [[nodiscard]] std::vector<std::string> infos() const { return lines(_mvLogger::Entry::What::Info); }
    [[nodiscard]] std::vector<std::string> values() const { return lines(_mvLogger::Entry::What::Data); }
};

/// A copy of the scriptable module under its own file name, with a fresh world.
class FakeModule {
  public:
    explicit FakeModule(const std::string& fileName);

    [[nodiscard]] const std::string& path() const noexcept { return m_path; }
    [[nodiscard]] fake::World& world() const noexcept { return *m_world; }

  private:
    std::string m_path;
    fake::World* m_world;
};

/// Whether MERVANE_UNDER_VALGRIND is set; slow tests skip themselves then.
inline bool isUnderValgrind() { return std::getenv("MERVANE_UNDER_VALGRIND") != nullptr; }
/// A folder for this process, removed at exit.
const std::string& scratchFolder();
std::string readFile(const std::string& path);
/// The expected text of a log or report: the file tests/data/NAME.txt.
std::string wanted(const std::string& name);
/// Splits a line at `|` and trims the columns; %NN is a byte.
std::vector<std::string> columnsOf(const std::string& line);
/// The rows of a file in tests/data, except lines that begin with "# ".
std::vector<std::vector<std::string>> dataRows(const std::string& file);

/// One of the certificates made by tests/data/make-certs.
fake::Bytes certDer(const std::string& name);
std::shared_ptr<Certificate> loadCert(const std::string& name);

// What a token holds, made from those certificates.
struct KeyTraits {
    std::string id;
    bool maySign = true;
    bool withSubject = false;
    bool withModulus = false;
    bool modulusWithZero = false;
};
fake::Object certObject(CK_OBJECT_HANDLE handle, const std::string& cert, const std::string& id);
/// The private key of a certificate's key pair.
fake::Object keyObject(CK_OBJECT_HANDLE handle, const std::string& cert, const KeyTraits& traits);
/// The public key of a certificate's EC key pair; its point is raw or in a DER OCTET STRING.
fake::Object ecPublicObject(CK_OBJECT_HANDLE handle, const std::string& cert, const std::string& id, bool wrapped);

/// Objects in the notation of data/find-key.txt, with handles from 1.
std::vector<fake::Object> objectsOf(const std::string& text);

/// What a real token makes of a signature that was begun: by OpenSSL, with the key pair of the certificate that is the
/// key's label.
fake::Bytes signedByOpenSsl(const fake::Object& key, const fake::Signing& signing);

/// The subject CN of a certificate; empty if there is none.
std::string cn(ClsCert& cert);

using Words = std::vector<std::string>;  ///< a name and its arguments; missing ones are empty
/// Methods by name; each returns its result as data/transcripts shows it.
const std::map<std::string, std::string (*)(Pkcs11&, const Words&)>& publicCalls();

/// A test on the scriptable module. Whatever the test does, at its end no log line may hold a PIN, no
/// log context or search may be open, the module must have seen no violation of the standard, and once
/// the object is gone no session may be open.
class FakeTest : public testing::Test {
  protected:
    FakeTest();
    void TearDown() override;

    /// Opens a session and logs in.
    bool quick() { return p11->QuickSession(1, XString(world.slots[0].userPin)); }
    /// Clears the log and the journal.
    void forget();
    std::vector<fake::Object>& objects() { return world.slots[0].objects; }

    FakeModule module{"libfake.so"};
    fake::World& world = module.world();
    std::unique_ptr<Pkcs11> p11 = std::make_unique<Pkcs11>();
};

}  // namespace mervane::test

#endif
