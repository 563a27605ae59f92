#!/usr/bin/python3
"""A PC/SC daemon of the test's own with a virtual reader (vsmartcard-vpcd), in namespaces: the
machine's daemon, readers and network stay out of it.

    pcsc.isolate()                      # first of all: the program runs again, in namespaces
    with pcsc.Daemon() as daemon:
        daemon.start(reader=False)
        daemon.start(reader=True)       # plugged in: the daemon looks for such readers as it starts
        daemon.plug(pcsc.Card(atr))
        daemon.unplug()"""

import contextlib
import fcntl
import glob
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time

MARK = "MERVANE_TEST_ISOLATED"
DAEMON = "/usr/sbin/pcscd"
DRIVERS = pathlib.Path("/usr/lib/pcsc/drivers")
DRIVER = DRIVERS / "serial" / "libifdvpcd.so"
PRIVATE = pathlib.Path("/run")  # a file system of its own, gone with the last process
PORT = 25963  # below those that a connection is given: it could be given that of the reader, and meet itself


def skip(why):
    print("skipped:", why)
    sys.exit(77)


def opensc():
    """The path of OpenSC's module."""
    modules = glob.glob("/usr/lib/*/opensc-pkcs11.so")
    return modules[0] if modules else skip("opensc-pkcs11.so is missing (package opensc-pkcs11)")


def isolate():
    """Runs the program again, where /run, the readers and the network are its own."""
    if os.environ.pop(MARK, None):
        return enter()
    for file in (DAEMON, DRIVER):
        if not os.path.exists(file):
            skip(f"{file} is missing (packages pcscd and vsmartcard-vpcd)")
    unshare = ["unshare", "--user", "--map-root-user", "--mount", "--net"]
    if not shutil.which(unshare[0]) or subprocess.run([*unshare, "mount", "-t", "tmpfs", "none", PRIVATE], capture_output=True).returncode:
        skip("this machine does not let its users have namespaces")
    env = {name: value for name, value in os.environ.items() if not name.startswith(("OPENSC", "PCSC"))}
    os.execvpe(unshare[0], [*unshare, sys.executable, *sys.orig_argv[1:]], {**env, MARK: "1"})


def enter():
    def mount(where):
        subprocess.run(["mount", "-t", "tmpfs", "none", where], check=True)
    mount(PRIVATE)
    driver = PRIVATE / DRIVER.name
    shutil.copy(DRIVER, driver)
    mount(DRIVERS)  # no driver for what is plugged into this machine
    with socket.socket() as any_socket:  # the loopback interface is down in a new namespace
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sH14x", b"lo", 0x41))  # SIOCSIFFLAGS, IFF_UP | IFF_RUNNING


class Card:
    """One that answers nothing but its ATR."""

    def __init__(self, atr):
        self.atr = atr

    def reset(self):
        pass

    def answer(self, _apdu):
        return b"\x6d\x00"  # instruction not supported


class Daemon:
    def __init__(self):
        self.process = self.socket = self.thread = None
        self.config = PRIVATE / "reader.conf.d"
        self.config.mkdir(exist_ok=True)
        self.log = PRIVATE / "pcscd.log"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def start(self, reader):
        """Starts it, or starts it anew: with the reader's two slots, or without a reader."""
        self.stop()
        (self.config / "vpcd").write_text(f"""FRIENDLYNAME "Virtual PCD"
DEVICENAME /dev/null:{PORT:#x}
LIBPATH {PRIVATE / DRIVER.name}
CHANNELID {PORT:#x}
""" if reader else "")
        with open(self.log, "a") as log:
            # It goes when this program does.
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", DAEMON, "--foreground", "--info", "--config", self.config],
                                            stdout=log, stderr=log)
        self.wait(lambda: (PRIVATE / "pcscd" / "pcscd.comm").exists(), "start")

    def stop(self):
        self.unplug()
        if self.process:
            self.process.terminate()
            self.process.wait(10)
            self.process = None

    def plug(self, card, slot=0):
        """Puts the card into a slot; returns when the daemon has seen it."""
        # A card that is there before the daemon looks for the first time is read, and not called inserted.
        seen = self.count("Card ATR")
        self.wait(lambda: self.connect(PORT + slot), "listen")
        self.thread = threading.Thread(target=self.serve, args=(self.socket, card), daemon=True)
        self.thread.start()
        self.wait(lambda: self.count("Card ATR") > seen, "see the card")

    def connect(self, port):
        try:
            self.socket = socket.create_connection(("127.0.0.1", port))
        except ConnectionRefusedError:
            return False
        return True

    def unplug(self):
        """Takes the card out; returns when the daemon has seen that."""
        if self.socket:
            seen = self.count("Card Removed")
            with contextlib.suppress(OSError):  # the daemon was faster
                self.socket.shutdown(socket.SHUT_RDWR)
            self.thread.join()
            self.socket.close()
            self.socket = None
            self.wait(lambda: self.count("Card Removed") > seen, "see the removal")

    def count(self, event):
        return self.log.read_text().count(event)

    @staticmethod
    def serve(connection, card):
        """vpcd's protocol: a length of two bytes, then one byte of control, or an APDU."""
        def read(size):
            # vpcd sends the length on its own, and the rest once that is acknowledged.
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
            return connection.recv(size, socket.MSG_WAITALL)
        try:
            while head := read(2):
                message = read(int.from_bytes(head, "big"))
                if len(message) == 1 and message != b"\x04":  # power off, power on, reset
                    card.reset()
                    continue
                answer = card.answer(message) if len(message) > 1 else card.atr
                connection.sendall(len(answer).to_bytes(2, "big") + answer)
        except ConnectionError:
            pass  # taken out, or the daemon went, in the middle of it

    def wait(self, condition, what):
        end = time.monotonic() + 20
        while not condition():
            if self.process.poll() is not None or time.monotonic() > end:
                raise RuntimeError(f"pcscd did not {what}:\n{self.log.read_text()}")
            time.sleep(0.02)
