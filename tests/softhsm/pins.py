#!/usr/bin/python3
"""PINs at a terminal, from files and from the environment: what is asked, when the echo is back, and
that neither a core dump, nor a debugger, nor the memory of the dying program shows one.

usage: pins.py MERVANE_P11 SOFTHSM_MODULE"""

import ctypes
import fcntl
import os
import pathlib
import pty
import re
import resource
import select
import shlex
import signal
import struct
import subprocess
import sys
import termios

from softhsm import SO_PIN, USER_PIN, Token, equal, expect, failures

MAY_TRACE = int(re.search(r"CapEff:\s*(\w+)", pathlib.Path("/proc/self/status").read_text())[1], 16) >> 19 & 1  # CAP_SYS_PTRACE
# Root that may no more than another user.
WEAK = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []
PTRACE_CONT, PTRACE_SEIZE = 7, 0x4206
TOKEN_FLAGS = struct.pack(">QQ", 0x8000534B, 2)  # SoftHSM's attribute of them, a number

OLD, NEW, AGAIN = 'User PIN of "test": ', 'New user PIN of "test": ', 'New user PIN of "test", again: '
OFFICER = 'Security officer PIN of "test": '
OFFICER_TRIED = OFFICER[:-2] + " (a wrong PIN has been entered since the last right one): "
TRIED = 'User PIN of "test" (a wrong PIN has been entered since the last right one): '

DIALOGUES = [  # command, prompts and what is typed, status, what is printed
    ("set-pin --new-pin env:OTHER", [(OLD, "no such pin")], 4, "CKR_PIN_INCORRECT"),
    ("set-pin", [(TRIED, USER_PIN), (NEW, "new-pin-1"), (AGAIN, "new-pin-2")], 4, "not typed the same twice"),
    ("set-pin --pin -", [(TRIED, USER_PIN), (NEW, "new-pin-1"), (AGAIN, "new-pin-1")], 0, "was changed"),
    ("init-pin --new-pin -", [(OFFICER, SO_PIN), (NEW, USER_PIN), (AGAIN, USER_PIN)], 0, "was set"),
    ("certs --slot {slot} --pin -", [(OLD, USER_PIN)], 0, "SUBJECT"),
    ("tty match", [(OLD, USER_PIN)], 0, "WHO"),
    ("tty match --no-login", [], 0, "WHO"),
    ("certs --login --user so", [(OFFICER, "x" * 300)], 4, "too long"),
    ("init-token x --yes --token-label test", [(OFFICER, "no such pin")], 4, "CKR_PIN_INCORRECT"),
    ("init-token x --token-label test", [("Type its label to go on: ", "tset")], 2, "not its label"),
    ("init-token x --token-label test", [("Type its label to go on: ", "test"), (OFFICER_TRIED, "no such pin")], 4, "CKR_PIN_INCORRECT"),
    ("init-token x", [("New security officer PIN of the token in slot ", "new-pin-1"), (", again: ", "new-pin-2")], 4, "not typed the same"),
]
FLAGS = {0x10000: TRIED, 0x20000: OLD[:-2] + " (one more wrong PIN locks it): ", 0x60000: OLD[:-2] + " (it is locked): ", 0x400000: OLD}


class Terminal:
    """The controlling terminal, of a session that outlives the tool: its settings are what was left."""

    def __init__(self):
        self.master, self.slave = pty.openpty()
        child = os.fork()
        if child != 0:
            sys.exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
        signal.alarm(240)  # ends this session, and what hangs in it
        os.setsid()
        fcntl.ioctl(self.slave, termios.TIOCSCTTY, 0)
        self.shown = ""

    def await_(self, text):
        while text not in self.shown:
            if not select.select([self.master], [], [], 30)[0]:
                raise RuntimeError(f"{text!r} is not shown: {self.shown!r}")
            self.shown += os.read(self.master, 4096).decode()
        self.shown = self.shown.split(text, 1)[1]

    def type(self, text):
        os.write(self.master, text.encode() + b"\n")

    def echoes(self):
        return bool(termios.tcgetattr(self.slave)[3] & termios.ECHO)


class Tool:
    def __init__(self, token, terminal, command, stderr=subprocess.PIPE, weak=()):
        self.terminal, self.command = terminal, command
        words = shlex.split(command)
        at_terminal = words[0] == "tty" and bool(words.pop(0))
        self.process = subprocess.Popen([*weak, token.tool, *words], stdin=terminal.slave if at_terminal else subprocess.DEVNULL,
                                        stdout=terminal.slave if at_terminal else subprocess.PIPE,
                                        stderr=stderr, env=token.env, cwd=token.folder, text=True)

    def asks(self, prompt, answer=None):
        self.terminal.await_(prompt)
        expect(not self.terminal.echoes(), f"no echo at {prompt}")
        if answer is not None:
            self.terminal.type(answer)

    def ends(self, status):
        """Gives what was printed."""
        wait = os.waitpid(self.process.pid, 0)[1]
        equal(os.waitstatus_to_exitcode(wait), status, f"status of {self.command}")
        expect(not os.WCOREDUMP(wait), f"{self.command} dumps no core")
        expect(self.terminal.echoes(), f"echo after {self.command}")
        return "".join(part or "" for part in self.process.communicate())


def converse(token, terminal):
    slot = next(s["slotId"] for s in token.p11_json("discover")["slots"] if s["token"]["label"] == "test")
    for command, prompts, status, text in DIALOGUES:
        tool = Tool(token, terminal, command.format(slot=slot))
        for prompt, answer in prompts:
            tool.asks(prompt, answer)
        printed = tool.ends(status)
        if command.startswith("tty"):
            terminal.await_(text)
        else:
            expect(text in printed, f"{command} prints {text}: {printed}")
        expect(not any(answer in terminal.shown + printed for prompt, answer in prompts if "PIN" in prompt), f"{command} shows no PIN")
    for file in token.folder.glob("tokens/*/token.object"):
        stored = file.read_bytes()
        at = stored.find(TOKEN_FLAGS) + len(TOKEN_FLAGS)
        for flags, prompt in FLAGS.items() if b"test " in stored else ():
            file.write_bytes(stored[:at] + struct.pack(">Q", struct.unpack_from(">Q", stored, at)[0] | flags) + stored[at + 8:])
            tool = Tool(token, terminal, "certs --login")
            tool.asks(prompt, "")
            expect("is empty" in tool.ends(4), "an empty PIN is refused")
        file.write_bytes(stored)


def interrupt(token, terminal):
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGALRM, signal.SIGPIPE, signal.SIGTERM, signal.SIGHUP, signal.SIGUSR1):
        tool = Tool(token, terminal, "set-pin")
        tool.asks(OLD, USER_PIN)
        tool.asks(NEW)
        tool.process.send_signal(signal.SIGTSTP)
        tool.process.send_signal(number)
        tool.ends(-number)
    reading, broken = os.pipe()
    os.close(reading)
    tool = Tool(token, terminal, "certs --token-label test --login", stderr=broken)
    tool.asks(OLD, "")
    tool.ends(-signal.SIGPIPE)


def spy(token, terminal):
    """Another process of the same user, and what root sees of the memory and the environment."""
    tool = Tool(token, terminal, "set-pin --pin env:USER_PIN", weak=WEAK)
    tool.asks(NEW)
    for pid, status in ((tool.process.pid, 1), ("self", 0)):
        for file in ("environ", "maps"):
            equal(subprocess.run([*WEAK, "head", "-c1", f"/proc/{pid}/{file}"], capture_output=True).returncode, status, f"{file} of {pid}")
    if MAY_TRACE:
        environment = pathlib.Path(f"/proc/{tool.process.pid}/environ").read_bytes()
        expect(USER_PIN.encode() not in environment and SO_PIN.encode() in environment, "the variable is wiped")
    tool.process.send_signal(signal.SIGINT)
    tool.ends(-signal.SIGINT)
    keeps_more = re.search(rb"__[at]san_init", pathlib.Path(token.tool).read_bytes())  # a sanitizer
    for source in ("-", "env:PIN", "file:pin") if MAY_TRACE and not keeps_more else ():
        for size in (8, 15, 16, 32, 70):
            remember(token, terminal, source, os.urandom(size).hex()[:size])


def remember(token, terminal, source, pin):
    token.env["PIN"] = pin if source == "env:PIN" else ""
    (token.folder / "pin").write_text(pin)
    (token.folder / "pin").chmod(0o600)
    ptrace = ctypes.CDLL(None).ptrace
    ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    tool = Tool(token, terminal, "set-pin --pin " + source)
    pid = tool.process.pid
    if source == "-":
        tool.asks(OLD, pin)
    tool.asks(NEW)
    equal(ptrace(PTRACE_SEIZE, pid, None, None), 0, "ptrace")
    tool.process.send_signal(signal.SIGQUIT)
    for moment, is_held in (("at the prompt", True), ("at its end", False)):
        equal(os.WSTOPSIG(os.waitpid(pid, 0)[1]), signal.SIGQUIT, f"stopped {moment}")
        places = where(pid, pin[-8:].encode())
        equal(bool(places), is_held, f"a PIN of {len(pin)} bytes from {source} in memory {moment}, in {places}")
        ptrace(PTRACE_CONT, pid, None, signal.SIGQUIT)
    tool.ends(-signal.SIGQUIT)


def where(pid, secret):
    """The mappings of the process that hold it."""
    found = []
    with open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for start, end, name in re.findall(r"^(\w+)-(\w+) rw\S+ \S+ \S+ \S+ *(.*)$", pathlib.Path(f"/proc/{pid}/maps").read_text(), re.M):
            memory.seek(int(start, 16))
            if int(end, 16) - int(start, 16) < 1 << 28 and secret in memory.read(int(end, 16) - int(start, 16)):  # a sanitizer's are larger
                found.append(name)
    return found


def read_files(token):
    folder = token.folder
    os.mkfifo(folder / "fifo")
    for name, content, mode in (("plain", "{}\nmore", 0o600), ("marked", "\ufeff{}\r\n", 0o400), ("open", "{}", 0o640), ("closed", "{}", 0), ("wide", "\ufeff{}", 0o600)):
        (folder / name).write_bytes(content.format(USER_PIN).encode("utf-16" if name == "wide" else "utf-8"))
        (folder / name).chmod(mode)
    for source, status, text in [
            ("file:plain", 0, ""), ("file:marked", 0, ""), ("file:open", 0, "mervane-p11: Other users may read the PIN in open.\n"),
            ("file:closed", 4, "closed may not be read"), ("file:plain/x", 4, "no file"), ("file:.", 4, "is a directory"),
            ("file:wide", 4, "is no text"), ("file:fifo", 4, "nobody writes to the FIFO"), ("file:/dev/stdin", 0, ""), ("env:USER_PIN", 0, "")]:
        done = subprocess.run([*WEAK, token.tool, "certs", "--token-label", "test", "--pin", source], input=USER_PIN, capture_output=True,
                              text=True, env=token.env, cwd=folder, timeout=20)
        equal(done.returncode, status, f"{source}: {done.stderr}")
        expect(text in done.stderr and (text or not done.stderr), f"{source} says {text!r}: {done.stderr}")
    # A writer that comes, and thinks for longer than one that does not is waited for; one PIN for two.
    slow = f"(exec >fifo; sleep 4; echo {USER_PIN}) & $0 set-pin --pin file:fifo --new-pin env:USER_PIN && $0 init-pin --so-pin env:SO_PIN --new-pin env:USER_PIN"
    equal(subprocess.run(["sh", "-c", slow, token.tool], env=token.env, cwd=folder, stdout=subprocess.DEVNULL).returncode, 0, "a slow writer")


def main(tool, module):
    terminal = Terminal()
    token = Token(os.path.abspath(tool), module)
    token.env["OTHER"] = "another-pin"
    token.init()
    hard = resource.getrlimit(resource.RLIMIT_CORE)[1]
    resource.setrlimit(resource.RLIMIT_CORE, (hard, hard))
    converse(token, terminal)
    interrupt(token, terminal)
    spy(token, terminal)
    read_files(token)


if __name__ == "__main__":
    main(*sys.argv[1:3])
    sys.exit(1 if failures else 0)
