"""Running beaconctl on a board, also at a terminal, and a bad link between it and the daemon."""

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
LIMIT = 60.0  # for a command to end, on a machine with a lot to do


class Ctl:
    """ctl("get", "wifi") runs a command to its end; start() and at_terminal() let it run."""

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
        return self.board.popen(PROGRAM, *words, env=SANITIZERS, cwd="/tmp", **options)

    def at_terminal(self, *words, columns=80, rows=24, **options):
        return Terminal(self, words, columns, rows, options)


def send_signal(process, number=signal.SIGINT):
    """To the program itself, which runs below the one that brought it onto the board."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children")
    child = wait_until(lambda: children.read_text().split(), "the program's process")[0]
    wait_until(lambda: Path(f"/proc/{child}/comm").read_text() == "beaconctl\n", "the program")
    os.kill(int(child), number)


def read_line(stream, timeout=20.0):
    """The next line of a program's output; fails when there is none in time."""
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
    """A beaconctl whose input, output and errors are a terminal of its own."""

    def __init__(self, ctl, words, columns, rows, options):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        streams = {"stdin": slave, "stdout": slave, "stderr": slave, **options}
        self.process = ctl.start(*words, **streams)
        os.close(slave)
        self.text = ""

    def expect(self, text, timeout=20.0):
        """Waits until the terminal has shown `text`; forgets all up to there."""
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

    def end(self):
        """Waits for the program's end; returns the exit status and what was shown last."""
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


class BadLink:
    """Passes datagrams between one client and the daemon, but for those that it is told to lose.

    passes(to_client, number, datagram) tells whether the datagram, the number-th in its direction,
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
        except OSError:  # the daemon is not there
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
        except ConnectionRefusedError:  # of the datagram before; the daemon may be there again
            self.back.send(datagram)

    def close(self):
        self.stopped.set()
        self.thread.join()


@pytest.fixture
def bad_link(board):
    made = []

    def make(*arguments):
        made.append(BadLink(board, *arguments))
        return made[-1]

    yield make
    for link in made:
        link.close()
