"""A simulated board: namespaces in which the daemon runs without touching the host.

A board has its own mounts, network, processes and shared memory; every address in 127.0.0.0/8 is
one of its hosts. Board.socket() makes sockets on its network, Board.path() gives access to its
files, Board.popen() runs programs on it. Needs root.
"""

import ctypes
import json
import os
import re
import select
import shlex
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
REPOSITORY = HERE.parent
CLONE_NEWNET = 0x40000000
STORAGE_MOUNT = re.compile("mount /dev/(mmcblk0p3 /mnt|sda[0-3] /media) -o noatime")
PATH = "/sys/board/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
# Runs a daemon that was built for another processor, such as "qemu-arm -L FOLDER".
EMULATOR = shlex.split(os.environ.get("QUILLORBEACON_EMULATOR", ""))

_libc = ctypes.CDLL(None, use_errno=True)

LEAST_PATIENCE = 60.0  # seconds


def wait_until(condition, what, timeout=10.0, interval=0.005):
    """Polls until condition() is true and returns its value; fails after `timeout` seconds.

    On a machine with other work it may take longer: it never fails before LEAST_PATIENCE is over.
    """
    end = time.monotonic() + max(timeout, LEAST_PATIENCE)
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"not within {max(timeout, LEAST_PATIENCE)} s: {what}")
        time.sleep(interval)


def promised(seconds):
    """The limit for what takes at most that long on a board: many tests share a machine, with builds."""
    return 4 * seconds


def enter_network(fd):
    """Moves this thread to the network namespace of a descriptor."""
    if _libc.setns(fd, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


class _Maker:
    """The server that makes this process's boards (maker.py); started with the first one."""

    def __init__(self):
        self._socket, other = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        # -I -S: ignore the user's environment, and keep the process small so that it forks fast.
        self._process = subprocess.Popen([sys.executable, "-I", "-S", str(HERE / "maker.py")],
                                         stdin=other)
        other.close()

    def make(self, folders):
        """The process id of a new board's first process, and what keeps it alive."""
        read, lifeline = os.pipe()
        socket.send_fds(self._socket, [json.dumps(folders).encode()], [read])
        os.close(read)
        answer = self._socket.recv(100)
        pid = int.from_bytes(answer, sys.byteorder) if answer else 0
        if pid == 0:
            raise RuntimeError("the board could not be set up (root is needed)")
        return pid, lifeline


_maker = None


def _make_board(folders):
    global _maker
    if _maker is None:
        _maker = _Maker()
    return _maker.make(folders)


class Board:
    """Use as a context manager, or call close()."""

    def __init__(self, *visible):
        folders = [str(REPOSITORY), *(str(Path(v).resolve()) for v in visible)]
        self.pid, self._lifeline = _make_board(folders)
        self._first_process = os.pidfd_open(self.pid)
        self._home = os.open("/proc/self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        self._network = os.open(f"/proc/{self.pid}/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        self._root = Path(f"/proc/{self.pid}/root")
        self._started = []
        self._sockets = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        for opened in self._sockets:
            opened.close()
        # When its first process ends, so does everything else on the board.
        signal.pidfd_send_signal(self._first_process, signal.SIGKILL)
        select.select([self._first_process], [], [], 10)
        os.close(self._first_process)
        os.close(self._lifeline)
        for process in self._started:
            process.kill()  # a stopped program's runner stops with it
            process.wait()
        os.close(self._home)
        os.close(self._network)

    def path(self, inside):
        """The path of a board's file as seen from outside."""
        return self._root / str(inside).lstrip("/")

    def write(self, inside, content):
        target = self.path(inside)
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content if isinstance(content, bytes) else content.encode())
        return target

    def socket(self, kind=socket.SOCK_DGRAM, bind=None, timeout=20.0, family=socket.AF_INET,
               protocol=0):
        """A socket on the board's network; closed with the board."""
        enter_network(self._network)
        try:
            made = socket.socket(family, kind, protocol)
        finally:
            enter_network(self._home)
        self._sockets.append(made)
        made.settimeout(timeout)
        if bind is not None:
            made.bind(bind)
        return made

    def command(self, *arguments, env=None, cwd="/sys/board/app/daemon"):
        """The command line for running a program on the board with a clean environment."""
        variables = {"PATH": PATH, "HOME": "/tmp", "LANG": "C.UTF-8", **(env or {})}
        return ["nsenter", f"--target={self.pid}", "--mount", "--net", "--pid", "--ipc", "--uts",
                f"--wd={self.path(cwd)}", "--", "/usr/bin/env", "-i",
                *(f"{name}={value}" for name, value in variables.items()),
                *(str(a) for a in arguments)]

    def popen(self, *arguments, env=None, cwd="/sys/board/app/daemon", **options):
        process = subprocess.Popen(self.command(*arguments, env=env, cwd=cwd), **options)
        self._started.append(process)
        return process

    def run(self, *arguments, **options):
        """Runs a program on the board, waits for it and returns its standard output."""
        return subprocess.run(self.command(*arguments), check=True, stdout=subprocess.PIPE,
                              **options).stdout

    def log(self, storage=False):
        """What has been run on the board so far: "sh -c TEXT" and "TOOL ARGUMENTS" lines.

        The attempts to mount the recorder's storage, ten times a second, are left out unless
        `storage` is set.
        """
        lines = self.path("/sys/board/log").read_text(errors="surrogateescape").splitlines()
        return [line for line in lines if storage or not STORAGE_MOUNT.search(line)]

    def prepare_output(self, tool, text):
        """Sets what a stand-in prints from now on."""
        self.write(f"/sys/board/{tool}.out", text)


class Daemon:
    """The daemon, running on a board, with its standard error in a file."""

    def __init__(self, board, binary, error_file, env=None, runner=()):
        self.board = board
        self.error_file = Path(error_file)
        with open(self.error_file, "wb") as stream:
            self.process = board.popen(*runner, *EMULATOR, binary, env=env,
                                       stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=stream)

    def errors(self):
        return self.error_file.read_bytes().decode(errors="surrogateescape")

    def wait_error(self, text, count=1, timeout=10.0):
        """Waits until `text` has been written to standard error `count` times."""
        wait_until(lambda: self.errors().count(text) >= count,
                   f"{text!r} x {count} on standard error", timeout)

    def wait_ready(self):
        """Waits until start-up is complete and the poller runs."""
        # The status monitor's first pass prints the last line.
        wait_until(lambda: "hared raw RC" in self.errors().partition("GPIO subsystem")[2],
                   "start-up done", 20.0)
        self.wait_error("Waiting TCP client connection")  # printed by a thread, at any time

    @property
    def pid(self):
        """The process id as the host sees it."""
        runner = self.process.pid
        children = Path(f"/proc/{runner}/task/{runner}/children")
        return int(wait_until(lambda: children.read_text().split(), "the daemon's process")[0])

    def alive(self):
        return self.process.poll() is None

    def wait_exit(self, timeout=60.0):
        """Waits for it to end and returns the exit status, negative for a signal."""
        return self.process.wait(timeout)

    def kill(self):
        os.kill(self.pid, signal.SIGKILL)
        self.process.wait()


def require_root():
    if os.geteuid() != 0:
        sys.exit("root is needed: the sandbox uses namespaces and mounts")
