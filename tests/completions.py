#!/usr/bin/python3
"""The completions in the shells that they are for, and the manual page.

usage: completions.py MERVANE_P11

Shells that are not installed are passed over."""

import os
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
failures = []

# What is typed, what is offered, and what is not.
ROWS = [
    ("mervane-p11 ", {"certs", "doctor", "init-token"}, {"ask-module", "command-table"}),
    ("mervane-p11 find-", {"find-cert", "find-object"}, {"certs"}),
    ("mervane-p11 certs --", {"--token-label", "--json", "--pem"}, {"--out", "--new-pin"}),
    ("mervane-p11 sign --format ", {"raw", "der", "cms"}, {"--json"}),
    ("mervane-p11 sign --hash sha5", {"sha512"}, {"sha256"}),
    ("mervane-p11 certs --user ", {"user", "so"}, set()),
    ("mervane-p11 find-cert pri", {"privateKey"}, {"policyOid"}),
    ("mervane-p11 keys ", {"private", "rsa"}, set()),
    ("mervane-p11 certs --module ", {"p11-kit-trust"}, set()),
    ("mervane-p11 certs --token-label Sys", {"System Trust"}, set()),
    ("mervane-p11 sign doc", {"document.txt"}, set()),
    ("mervane-p11 certs --pin ", {"file:"}, set()),
    ("mervane-p11 certs --pin file:doc", {"document.txt"}, {"file:"}),
    ("mervane-p11 certs --token-label=Sys", {"System Trust"}, set()),
    ("mervane-p11 find-cert keyUsage ", {"digitalSignature"}, {"privateKey"}),
    ("mervane-p11 find-cert label ", set(), {"privateKey"}),
]

BASH = r"""
. /usr/share/bash-completion/bash_completion
. {root}/completions/mervane-p11.bash
COMP_LINE=$1; COMP_POINT=${{#COMP_LINE}}
read -ra COMP_WORDS <<<"$COMP_LINE"; [[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')
COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
compopt() {{ :; }}
_mervane_p11
printf '%s\n' "${{COMPREPLY[@]//\\ / }}"
"""

# An interactive shell in a terminal of its own; the words offered are what compadd is given.
ZSH = r"""
zmodload zsh/zpty
zpty z zsh -f -i
zpty -w z "PS1=; fpath=({root}/completions \$fpath); autoload -U compinit; compinit -u -D
zstyle ':completion:*' list-grouped false; zstyle ':completion:*' insert-tab false; zstyle ':completion:*' force-list always
zstyle ':completion:*:default' list-prompt ''; LISTMAX=0; LINES=200; COLUMNS=200; bindkey '^I' list-choices; print READY"
zpty -r z out '*READY*READY*'
zpty -w -n z "$1"$'\t'
sleep 1
out=; while zpty -rt z more; do out+=$more; done
print -r -- $out
zpty -d z
"""


def offered(shell, line):
    if shell == "fish":
        command = ["fish", "--no-config", "-c", f"source {ROOT}/completions/mervane-p11.fish; complete -C '{line}'"]
    else:
        command = [shell, *(["--norc"] if shell == "bash" else ["-f"]), "-c", (BASH if shell == "bash" else ZSH.replace("{{", "{").replace("}}", "}")).replace("{root}", str(ROOT)).replace("{{", "{").replace("}}", "}"), shell, line]
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=60)
    if shell == "zsh":
        words = re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]", " ", done.stdout).replace("\\ ", " ").split()
        return set(words) | set(map(" ".join, zip(words, words[1:]))), done
    # fish shows the whole word, the others what is behind its last separator.
    return {re.sub(r"^(file:(?=.)|--[a-z-]+=)", "", word.split("\t")[0].strip()) for word in done.stdout.splitlines()}, done


def main(tool):
    folder = pathlib.Path(os.environ.get("TMPDIR", "/tmp")) / f"completions-{os.getpid()}"
    folder.mkdir()
    try:
        (folder / "mervane-p11").symlink_to(pathlib.Path(tool).resolve())
        (folder / "document.txt").touch()
        os.environ |= {"PATH": f"{folder}:{os.environ['PATH']}", "TERM": "xterm"}
        os.chdir(folder)
        for shell in ("bash", "zsh", "fish"):
            if not shutil.which(shell):
                print("not installed:", shell)
                continue
            for line, wanted, unwanted in ROWS:
                words, done = offered(shell, line)
                if not wanted <= words or words & unwanted:
                    failures.append(line)
                    print(f"FAILED: {shell}: {line!r} offers {sorted(words)}, expected {wanted} and not {unwanted}: {done.stderr}")
        # A token's label is text, whatever it looks like.
        (folder / "mervane-p11").unlink()
        (folder / "mervane-p11").write_text("#!/bin/sh\nprintf '%s\\n' 'label $(touch harmed) `touch harmed`' \"label's\"\n")
        (folder / "mervane-p11").chmod(0o755)
        for shell in filter(shutil.which, ("bash", "zsh", "fish")):
            words, done = offered(shell, "mervane-p11 certs --token-label lab")
            if (folder / "harmed").exists() or not any("touch" in word for word in words):
                failures.append(shell)
                print(f"FAILED: {shell} offers {words}, {list(folder.iterdir())}: {done.stderr}")
        if shutil.which("mandoc"):
            done = subprocess.run(["mandoc", "-T", "lint", ROOT / "docs/mervane-p11.1"], capture_output=True, text=True, check=False)
            if done.stdout or done.returncode:
                failures.append("manual")
                print("FAILED:", done.stdout)
    finally:
        shutil.rmtree(folder)


if __name__ == "__main__":
    main(sys.argv[1])
    sys.exit(1 if failures else 0)
