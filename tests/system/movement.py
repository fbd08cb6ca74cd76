"""Shared by tests of automatic movement: lists, a data source that logs commands, a viewer of
the status record."""

import os
import socket
import struct
import threading

import pytest

from conftest import is_status, wait_until

# Nothing to mount, and no messages about storage.
QUIET = "recording_place=2\n"
RUN = "/run/quillorbeacon"
STATE_FILE = f"{RUN}/automovements_state"
APP_FILE = f"{RUN}/smooth_ptd_app_values"
CAMERA_STATE = "/dev/shm/shared_camstate"
SO_TIMESTAMPNS = 35  # not in the socket module
KEEP_ALIVE = b'!{"cmd":"set","name":"movement"'

EV_ONLY = ",,,,{},,,{},0,"  # exposure, delay


def settings(movements, on=0, smooth=0, speed=0):
    return QUIET + (f'automove_list="{movements}"\nautomove_enabled={on}\n'
                    f"automove_smooth={smooth}\nautomove_smooth_speed={speed}\n")


def at(pan, tilt, roll, delay=0):
    """A movement with only a position."""
    return f"{pan},{tilt},{roll},,,,,{delay},0,"


def command(cmd, param="", value="", value2="", value3=""):
    return (f'!{{"cmd":"{cmd}","name":"","param":"{param}","value":"{value}",'
            f'"value2":"{value2}","value3":"{value3}"}}').encode()


class Source:
    """A data source that sends five times a second until it is silenced."""

    def __init__(self, board):
        self.socket = board.socket(bind=("127.0.0.3", 0), timeout=20.0)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.silenced = threading.Event()
        self.thread = threading.Thread(target=self._speak)
        self.thread.start()

    def _speak(self):
        while True:
            self.socket.sendto(b".", ("127.0.0.1", 5000))
            if self.silenced.wait(0.2):
                return

    def silence(self):
        self.silenced.set()
        self.thread.join()

    def receive_timed(self):
        """The next command that is not a keep-alive, and the kernel's time of its arrival in s."""
        while True:
            datagram, [(_, _, stamp)], _, _ = self.socket.recvmsg(65535, 64)
            if not datagram.startswith(KEEP_ALIVE):
                seconds, nanoseconds = struct.unpack("qq", stamp)
                return datagram, seconds + 1e-9 * nanoseconds

    def receive(self):
        return self.receive_timed()[0]

    def received(self):
        """The commands that have arrived so far, without waiting."""
        found = []
        self.socket.setblocking(False)
        try:
            while True:
                found.append(self.socket.recv(65535))
        except BlockingIOError:
            self.socket.settimeout(20.0)
            return [datagram for datagram in found if not datagram.startswith(KEEP_ALIVE)]


@pytest.fixture
def make_source(board):
    """make_source(daemon): a data source that the daemon has found."""
    made = []

    def make(daemon):
        made.append(Source(board))
        daemon.wait_error("Data found\n", len(made))
        return made[-1]

    yield make
    for source in made:
        source.silence()


class Viewer:
    """The display process, which gets a copy of each status record."""

    def __init__(self, client):
        self.client = client

    def _read(self):
        while True:
            packet = self.client.receive_any()
            if is_status(packet):
                return tuple(packet[2][35:39])

    def watch(self, count):
        """(running, index, count, nearest) of the next `count` records made from now on."""
        self.client.socket.setblocking(False)
        try:
            while True:
                self.client.socket.recv(65535)
        except BlockingIOError:
            pass
        self._read()  # may have been sent already
        for _ in range(count):
            yield self._read()

    def status(self):
        return next(self.watch(1))

    def wait_status(self, *expected):
        """Waits for a status record with these numbers; None stands for any."""
        def is_expected():
            return all(want in (None, got) for want, got in zip(expected, self._read()))

        wait_until(is_expected, f"movement status {expected}")


@pytest.fixture
def viewer(make_client):
    return Viewer(make_client("127.0.0.1", 5253))


def wait_state_file(board, path, text):
    wait_until(lambda: board.path(path).exists() and board.path(path).read_text() == text,
               f"{text!r} in {path}")


def set_camera(board, pan, tilt, roll):
    """Sets where the camera points, in degrees, as the camera's process does."""
    with open(board.path(CAMERA_STATE), "r+b", buffering=0) as state:
        os.pwrite(state.fileno(), struct.pack("<hhh", *(round(10 * a) for a in (pan, tilt, roll))),
                  0)
