"""A shell on the demo's board, with the daemon and a simulated camera."""

import os
import signal
import subprocess
import sys
from pathlib import Path

from board import PATH, Board, Daemon
from stage import prepare

HERE = Path(__file__).resolve().parent
RESTART_DELAY = 0.2  # seconds, as the daemon's systemd unit has it
CLIP = "/media/clip.mp4"
DAEMON_LOG = "/tmp/daemon.log"
# These belong to the board; all other files are the machine's.
WRITABLE = "/run:/boot:/tmp:/mnt:/media:/dev/shm:/sys"
GREETING = """\
This shell is on a simulated board. Your own machine's files are read-only here.
Try: beaconctl watch   (Ctrl-C ends it, exit leaves the board; docs/tour.md shows more)"""


def start_clip(board):
    """Starts to make a film with sound, for downloads."""
    return board.popen(
        "ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
        "testsrc2=size=640x360:rate=25:duration=4", "-f", "lavfi", "-i", "sine=duration=4",
        "-pix_fmt", "yuv420p", "-preset", "ultrafast", CLIP, stdin=subprocess.DEVNULL)


def start_camera(board, simulator):
    """A camera whose stick moves for the first four seconds."""
    return board.popen(simulator, "--size", "640x360", "--sticks", "circle", cwd="/tmp",
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)


class Supervisor:
    """Starts the daemon, and restarts it whenever it ends."""

    def __init__(self, board, binary):
        self._board, self._binary = board, binary
        self._start()

    def _start(self):
        self._daemon = Daemon(self._board, self._binary, self._board.path(DAEMON_LOG))

    def wait_ready(self):
        self._daemon.wait_ready()

    def wait_for_sources(self):
        for what in ("Data found", "Video found"):
            self._daemon.wait_error(what, timeout=30.0)

    def attend(self, process):
        """Restarts the daemon until the process has ended; returns the process's exit status."""
        while True:
            try:
                return process.wait(RESTART_DELAY)
            except subprocess.TimeoutExpired:
                if not self._daemon.alive():
                    self._start()


def start_shell(board, programs, interactive):
    """bash on the board; `programs` is the folder of beaconctl and beacon-sim."""
    shell = ["bash", "--rcfile", HERE / "shellrc", "-i"] if interactive else ["bash"]
    variables = {"PATH": f"{programs}:{PATH}", "TERM": os.environ.get("TERM", "dumb"),
                 "SHELL": "/bin/bash"}
    return board.popen("/usr/bin/python3", "-B", HERE / "read_only.py", WRITABLE, *shell,
                       env=variables, cwd="/tmp")


def run_shell(binary):
    """Prepares the board and runs the shell; returns its exit status.

    At a terminal the shell is interactive. Elsewhere it runs the commands on standard input, and
    nothing but their output is printed.
    """
    interactive = sys.stdin.isatty()
    # Ctrl-C is meant only for what is typed into the shell.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    with Board(binary.parent) as board:
        prepare(board)
        clip = start_clip(board)
        daemon = Supervisor(board, binary)
        daemon.wait_ready()
        start_camera(board, binary.with_name("beacon-sim"))
        daemon.wait_for_sources()
        if clip.wait() != 0:
            raise AssertionError("the clip could not be made")
        if interactive:
            print(GREETING, flush=True)
        signal.signal(signal.SIGINT, signal.default_int_handler)
        return daemon.attend(start_shell(board, binary.parent, interactive))
