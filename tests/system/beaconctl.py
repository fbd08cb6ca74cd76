"""Runs beaconctl on a board, also at a terminal, and over a bad link to the daemon."""

import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import threading
import time
from pathlib import Path

import pytest

from conftest import BUILD, SANITIZERS, wait_until

PROGRAM = BUILD / "beaconctl"
COMMANDS = ["discover", "watch", "view", "get", "set", "check", "record", "download", "scan", "rc",
            "gimbal", "shot", "restart", "reboot", "raw"]
LIMIT = 60.0  # for a command to end, even on a busy machine
# Before a key picture: as much of its parameter sets as beaconctl looks at.
PARAMETER_SET = b"\0\0\0\1\x67\x42\xc0\x1f\0\0\0\1\x68\xce\0\0\0\1\x65"


class Ctl:
    """ctl("get", "wifi") runs a command and waits for it; start() and at_terminal() do not wait."""

    runner = ()

    def __init__(self, board):
        self.board = board

    def __call__(self, *words, stdin=subprocess.DEVNULL, **options):
        command = self.board.command(PROGRAM, *words, env=SANITIZERS, cwd="/tmp")
        if "input" not in options:
            options["stdin"] = stdin
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=LIMIT, check=False, **options)
        assert "Sanitizer" not in done.stderr and "runtime error" not in done.stderr, done.stderr
        return done

    def start(self, *words, **options):
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE,
                   "stderr": subprocess.PIPE, **options}
        return self.board.popen(*self.runner, PROGRAM, *words, env=SANITIZERS, cwd="/tmp",
                                **options)

    def at_terminal(self, *words, columns=80, rows=24, **options):
        return Terminal(self, words, columns, rows, options)


class StandInCtl(Ctl):
    """With programs of the test's own, in the board's /tmp/bin, in front of those of the machine."""

    runner = ("/usr/bin/env", "PATH=/tmp/bin:/usr/bin:/bin")

    def add(self, name, text):
        self.board.write(f"/tmp/bin/{name}", "#!/bin/sh\n" + text).chmod(0o755)


def program_of(process):
    """The process id of the program itself, a child of the one that started it on the board."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children")
    child = wait_until(lambda: children.read_text().split(), "the program's process")[0]
    wait_until(lambda: Path(f"/proc/{child}/comm").read_text() == "beaconctl\n", "the program")
    return int(child)


def start_recording(ctl, daemon, *words, options=()):
    """A recording that has registered."""
    before = daemon.errors().count("New client connected")
    process = ctl.start(*options, "record", *words, text=False)
    daemon.wait_error("New client connected", before + 1)
    return process


def send_signal(process, number=signal.SIGINT):
    os.kill(program_of(process), number)


def read_line(stream, timeout=60.0):
    """The next line of a program's output; fails when none arrives in time."""
    line = b""
    end = time.monotonic() + timeout
    while not line.endswith(b"\n"):
        left = end - time.monotonic()
        assert left > 0 and select.select([stream], [], [], left)[0], line
        byte = os.read(stream.fileno(), 1)
        assert byte, f"ended with {line!r}"
        line += byte
    return line.decode(errors="replace")


class Terminal:
    """A beaconctl whose input, output and errors are its own terminal."""

    def __init__(self, ctl, words, columns, rows, options):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        streams = {"stdin": slave, "stdout": slave, "stderr": slave, **options}
        self.process = ctl.start(*words, **streams)
        os.close(slave)
        self.text = ""

    def expect(self, text, timeout=60.0):
        """Waits until the terminal has shown `text`; discards everything up to it."""
        end = time.monotonic() + timeout
        while text not in self.text:
            left = end - time.monotonic()
            assert left > 0 and select.select([self.master], [], [], left)[0], (text, self.text)
            self.text += self.read()
        before, _, self.text = self.text.partition(text)
        return before

    def read(self):
        try:
            return os.read(self.master, 65536).decode(errors="replace")
        except OSError:  # the program has ended
            raise AssertionError(f"ended, having shown {self.text!r}") from None

    def type(self, text):
        os.write(self.master, text.encode())

    def interrupt(self):
        send_signal(self.process)

    def close(self):
        """Closes the terminal, and waits for the program to end."""
        ended = os.pidfd_open(program_of(self.process))
        os.close(self.master)
        assert select.select([ended], [], [], LIMIT)[0], "it goes on without its terminal"
        os.close(ended)

    def end(self):
        """Waits for the program to end; returns the exit status and what was shown last."""
        end = time.monotonic() + 20.0
        while True:
            left = end - time.monotonic()
            assert left > 0 and select.select([self.master], [], [], left)[0], self.text
            try:
                self.text += os.read(self.master, 65536).decode(errors="replace")
            except OSError:
                break
        status = self.process.wait(LIMIT)
        os.close(self.master)
        return status, self.text


# For at_terminal(): it is the controlling terminal, as a login's is, so that closing it sends SIGHUP.
AS_LOGIN = {"start_new_session": True,
            "preexec_fn": lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0)}


class BadLink:
    """Passes datagrams between one client and the daemon, except those that it should lose.

    passes(to_client, number, datagram) says whether a datagram, the number-th in its direction,
    arrives.
    """

    def __init__(self, board, passes=lambda to_client, number, datagram: True):
        self.passes = passes
        self.front = board.socket(bind=("127.0.0.3", 0))
        self.back = board.socket(bind=("127.0.0.4", 0))
        self.back.connect(("127.0.0.1", 5252))
        self.client = None
        self.counts = [0, 0]
        self.lost = 0
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    @property
    def options(self):
        host, port = self.front.getsockname()
        return "--host", host, "--port", str(port)

    def run(self):
        while not self.stopped.is_set():
            for ready in select.select([self.front, self.back], [], [], 0.05)[0]:
                self.pass_on(ready)

    def pass_on(self, ready):
        to_client = ready is self.back
        try:
            datagram, sender = ready.recvfrom(65536)
        except OSError:  # no daemon
            return
        if not to_client:
            self.client = sender
        self.counts[to_client] += 1
        if not self.passes(to_client, self.counts[to_client], datagram):
            self.lost += 1
        elif to_client:
            self.front.sendto(datagram, self.client)
        else:
            self.send_to_daemon(datagram)

    def send_to_daemon(self, datagram):
        try:
            self.back.send(datagram)
        except ConnectionRefusedError:  # from the previous datagram; the daemon may be back
            self.back.send(datagram)

    def close(self):
        self.stopped.set()
        self.thread.join()


def pieces_before(end):
    """For a bad link that loses the pieces of a file from an offset on; its size is told before them."""
    def passes(to_client, _number, datagram):
        offset = int.from_bytes(datagram[14:18], "little")
        return not to_client or datagram[1] != 4 or offset < end or offset >= 0x7FFFFFFE

    return passes


@pytest.fixture
def bad_link(board):
    made = []

    def make(*arguments):
        made.append(BadLink(board, *arguments))
        return made[-1]

    yield make
    for link in made:
        link.close()
