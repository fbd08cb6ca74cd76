"""Shared by tests of sticks and switches: the shared radio-control block and our own reader
process."""

import json
import mmap
import struct
import threading
import time

import pytest

from commands import Console
from conftest import wait_until

BLOCK = "/dev/shm/shared_rc_raw"
SIZE = 1504
QUIET = "recording_place=2\n"
STICK = {"min": 1000, "max": 2000, "c": 1500, "i": 0, "e": 1, "d": 0, "l": 100}
KEYS = ["ch", "min", "max", "c", "i", "e", "d", "l", "f"]
CHANNEL_FORMAT = "<HHHHB7xdBxHHBx"


class Reader:
    """The process that reads the receivers and writes their values to the block."""

    def __init__(self, board):
        path = board.path(BLOCK)
        wait_until(lambda: path.exists() and path.stat().st_size == SIZE, "the block")
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), SIZE)
        self.receivers = set()
        self.stopped = threading.Event()
        self.thread = threading.Thread(target=self.keep_updating)
        self.thread.start()

    def keep_updating(self):
        while not self.stopped.wait(0.03):
            for receiver in tuple(self.receivers):
                self.update(receiver)

    def update(self, receiver):
        now = time.clock_gettime_ns(time.CLOCK_REALTIME) // 1000000
        self.memory[4 + 4 * receiver:8 + 4 * receiver] = struct.pack("<I", now % 2**32)

    def connect(self, *receivers):
        self.receivers.update(receivers)
        for receiver in receivers:
            wait_until(lambda r=receiver: self.state(r) == 1, f"receiver {receiver} found")

    def disconnect(self, receiver):
        self.receivers.discard(receiver)
        wait_until(lambda: self.state(receiver) == 0, f"receiver {receiver} lost")

    def state(self, receiver):
        return self.memory[receiver]

    def set_raw(self, channel, value, receiver=0):
        at = 16 + 32 * (channel - 1 + 16 * receiver)
        self.memory[at:at + 2] = struct.pack("<H", value)

    def move(self, channel, way, receiver=0):
        self.set_raw(channel, 1500 + round(500 * way), receiver)

    def channel(self, channel, receiver=0):
        """A record as raw, minimum, maximum, centre, invert, value, function, band, limit, flag."""
        at = 16 + 32 * (channel - 1 + 16 * receiver)
        return struct.unpack_from(CHANNEL_FORMAT, self.memory, at)

    def value(self, function):
        return struct.unpack_from("<d", self.memory, 1040 + 8 * function)[0]

    def raw_value(self, function):
        return struct.unpack_from("<H", self.memory, 1408 + 2 * function)[0]

    def wait_value(self, function, expected):
        wait_until(lambda: abs(self.value(function) - expected) < 1e-9,
                   f"function {function} at {expected}")

    def close(self):
        self.stopped.set()
        self.thread.join()
        self.memory.close()


@pytest.fixture
def make_reader(board):
    made = []

    def make():
        made.append(Reader(board))
        return made[-1]

    yield make
    for reader in made:
        reader.close()


@pytest.fixture
def centred_sticks(daemon, make_reader):
    """A receiver whose 16 channels are centred."""
    assert daemon
    reader = make_reader()
    for channel in range(1, 17):
        reader.set_raw(channel, 1500)
    reader.connect(0)
    return reader


def channel_list(*functions, **fields):
    """A channel list in which channel n drives the n-th of the functions."""
    return json.dumps([{"ch": n, **STICK, "f": f, **fields} for n, f in enumerate(functions, 1)])


def settings(rc1="", rc2="", more=""):
    return QUIET + f"rc1_channels={rc1}\nrc2_channels={rc2}\n" + more


@pytest.fixture
def sticks(board, start, make_reader):
    """sticks(f1, f2, ...): the daemon, with channels 1, 2, ... of RC1 driving these functions."""

    def run(*functions, more="", **fields):
        daemon = start(settings(channel_list(*functions, **fields), more=more))
        reader = make_reader()
        for number in range(1, len(functions) + 1):
            reader.move(number, 0)
        reader.connect(0)
        return daemon, reader

    return run


def rc_command(param, receiver=None, value2=None):
    command = {"cmd": "rc", "param": param}
    if receiver is not None:
        command["value"] = str(receiver)
    if value2 is not None:
        command["value2"] = value2
    return json.dumps(command).encode()


@pytest.fixture
def console(board, make_client):
    return lambda daemon: Console(board, daemon, make_client())


def saved_channels(console, receiver):
    text = console.saved()[f"rc{receiver + 1}_channels"]
    channels = json.loads(text)
    assert [list(channel) for channel in channels] == [KEYS] * 16
    assert [channel["ch"] for channel in channels] == list(range(1, 17))
    assert " " not in text
    return channels
