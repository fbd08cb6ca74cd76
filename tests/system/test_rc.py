"""Sticks and switches: the shared radio-control block with a reader of our own behind it."""

import json
import math
import mmap
import os
import re
import struct
import threading
import time

import pytest

from commands import SAVE, Console, hold, log_lines, release
from conftest import is_status, wait_until
from test_dispatcher import Source, expect_silence, reply, said
from test_startup import startup_lines

BLOCK = "/dev/shm/shared_rc_raw"
SIZE = 1504
QUIET = "recording_place=2\n"
STICK = {"min": 1000, "max": 2000, "c": 1500, "i": 0, "e": 1, "d": 0, "l": 100}
KEYS = ["ch", "min", "max", "c", "i", "e", "d", "l", "f"]
LIVE_KEYS = ["raw", "min", "max", "c", "i", "val", "d", "e", "l", "f"]
CHANNEL_FORMAT = "<HHHHB7xdBxHHBx"


class Reader:
    """The process that reads the receivers and writes what they say into the block."""

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


def channel_list(*functions, **fields):
    """A channel list in which channel n drives the n-th function."""
    return json.dumps([{"ch": n, **STICK, "f": f, **fields} for n, f in enumerate(functions, 1)])


def settings(rc1="", rc2="", more=""):
    return QUIET + f"rc1_channels={rc1}\nrc2_channels={rc2}\n" + more


@pytest.fixture
def sticks(board, start, make_reader):
    """sticks(f1, f2, ...): the daemon with channels 1, 2, ... of RC1 driving these functions."""

    def run(*functions, more="", **fields):
        daemon = start(settings(channel_list(*functions, **fields), more=more))
        reader = make_reader()
        for number in range(1, len(functions) + 1):
            reader.move(number, 0)
        reader.connect(0)
        return daemon, reader

    return run


# Start-up and the block.

@pytest.mark.parametrize("exists", [False, True])
def test_messages_and_their_place(board, start, exists):
    if exists:
        board.write(BLOCK, bytes(SIZE))
    daemon = start()
    opened = "Shared raw RC mem opened" if exists else "Creating new shared raw RC"
    lines = startup_lines(daemon)
    assert lines[2:7] == ["Board model: ", "Init RC", opened, "Init RC done", "Init UDP server"]
    assert board.path(BLOCK).stat().st_size == SIZE


def test_an_existing_block_keeps_raw_values_and_gets_the_stored_calibration(board, start,
                                                                            make_reader):
    block = bytearray(SIZE)
    for index in range(32):
        struct.pack_into(CHANNEL_FORMAT, block, 16 + 32 * index,
                         1200 + index if index % 2 else 0, 1, 2, 3, 4, 0.5, 6, 7, 8, 9)
    block[1040:1408] = struct.pack("<46d", *[0.25] * 46)
    board.write(BLOCK, bytes(block))
    start(settings('[{"ch":3,"min":1100,"f":20}]', '[{"ch":16,"max":1900,"d":5,"e":1}]'))
    reader = make_reader()
    wait_until(lambda: reader.channel(16, 1)[5] != 0.0, "a pass with the stored calibration")
    assert reader.raw_value(0) == 1200 + 31
    for index in range(32):
        raw = 1200 + index if index % 2 else 0
        expected = [raw, 0, 0, 0, 0, 0.0, 0, 0, 100 if raw else 0, 0]
        if index == 2:
            expected[1], expected[6] = 1100, 20
        if index == 31:
            expected[2], expected[7], expected[9] = 1900, 5, 1
            expected[5] = 1226 / 1895
        got = reader.channel(index % 16 + 1, index // 16)
        assert got == pytest.approx(tuple(expected)), index
    assert reader.value(0) == 0.0
    assert all(reader.value(function) == 0.0 for function in range(46))


# A block that cannot be mapped.

@pytest.fixture
def unmappable(board, start):
    """unmappable(config): a daemon that finds a folder in the block's place."""

    def run(config):
        board.path(BLOCK).mkdir()
        return start(config)

    return run


FAILED_TRY = ["Creating new shared raw RC",
              "Shared memory /shared_rc_raw: shm_open failed: Invalid argument"]
TRIES = ("Creating new shared raw RC", "Shared raw RC", "Shared memory /shared_rc_raw",
         "Failed to open raw RC", "Failed to get shared RC")


def gimbal_texts(board):
    files = [board.path(f"/run/quillorbeacon/smooth_ptd_{name}_values")
             for name in ("app", "rc", "total")]
    return [file.read_text() if file.exists() else None for file in files]


def test_a_block_that_cannot_be_mapped_until_later(board, unmappable, console, make_client,
                                                   make_reader):
    daemon = unmappable(settings(channel_list(2), channel_list(3, min=1111)))
    assert said(daemon, "Init RC", *TRIES)[:7] == [
        "Init RC", *FAILED_TRY, "Failed to open raw RC shared memory", "Init RC done",
        *["Failed to get shared RC buffer"] * 2]
    # The loop and the status monitor go on trying, once a second each.
    begin, tried = time.monotonic(), daemon.errors().count(FAILED_TRY[1])
    daemon.wait_error(FAILED_TRY[1], tried + 5)
    assert time.monotonic() - begin > 1.5
    assert daemon.errors().count("Failed to open raw RC shared memory") == 1

    client = make_client()
    client.send(rc_command("get-channels"))
    assert reply(client) == b'{"cmd":"rc1","state":0,"ch":}'
    assert reply(client) == b'{"cmd":"rc2","state":0,"ch":}'
    control = console(daemon)
    for receiver in (0, 1, 2):
        for param in ("calibrate-minmax", "finish-minmax", "set-center", "set-config"):
            control.send_text(rc_command(param, receiver, '[{"ch":1,"min":5}]'))
            assert control.commands == [], "nothing to save"
    for pan, text in ((32767, "1.000000,0.000000,0.000000"), (0, "0.000000,0.000000,0.000000"),
                      (-32767, "-1.000000,0.000000,0.000000")):
        client.send(struct.pack("<BBhhh", 5, 0, pan, 0, 0))
        wait_until(lambda t=text: gimbal_texts(board) == [t, "0.000000,0.000000,0.000000", t], text)

    board.path(BLOCK).rmdir()
    reader = make_reader()
    wait_until(lambda: reader.channel(1, 1)[1] == 1111, "the stored channels of the absent RC2")
    assert reader.channel(1, 0)[1:4] == (1000, 2000, 1500) and reader.channel(1, 0)[6] == 2
    reader.wait_value(2, -1.0)
    reader.connect(0)
    daemon.wait_error("RC1 found\n")
    reader.move(1, 0.5)
    reader.wait_value(2, -0.5)
    wait_until(lambda: gimbal_texts(board)[1:] == ["0.500000,0.000000,0.000000",
                                                   "-0.500000,0.000000,0.000000"], "the sums")
    display = make_client("127.0.0.1", 5253)
    wait_until(lambda: [p[2][15:17] for p in [display.receive_any()] if is_status(p)] == [b"\1\0"],
               "the status record")
    client.send(rc_command("get-channels"))
    assert reply(client).startswith(b'{"cmd":"rc1","state":1,"ch":[{"raw":1750,"min":1000,')
    assert reply(client).startswith(b'{"cmd":"rc2","state":0,"ch":[{"raw":0,"min":1111,')
    daemon.wait_error("Shared raw RC mem opened\n", 2)  # loop, status or dispatcher; one has made it


@pytest.mark.parametrize("receiver", [0, 1])
def test_a_save_after_a_late_mapping_keeps_the_stored_channels(board, unmappable, console,
                                                               make_reader, receiver):
    lists = [channel_list(*range(10, 26)), channel_list(*range(20, 36), min=1111)]
    daemon = unmappable(settings(*lists))
    board.path(BLOCK).rmdir()
    reader = make_reader()
    wait_until(lambda: reader.channel(16, 1)[1] == 1111, "the stored channels")
    control = console(daemon)
    control.send_text(rc_command("set-config", receiver, '[{"ch":3,"min":1234}]'))
    expected = [json.loads(text) for text in lists]
    expected[receiver][2]["min"] = 1234
    assert [saved_channels(control, each) for each in (0, 1)] == expected


def test_a_late_mapping_clears_what_another_program_left_there(board, start, make_reader):
    board.path(BLOCK).symlink_to("nowhere")  # not opened either, and replaced in one go
    start(settings("", '[{"ch":16,"max":1900}]'))
    block = bytearray(SIZE)
    for index in range(32):
        struct.pack_into(CHANNEL_FORMAT, block, 16 + 32 * index, 0, 1, 2, 3, 4, 0.5, 6, 7, 8, 9)
    block[1040:1408] = struct.pack("<46d", *[0.25] * 46)
    board.write("/dev/shm/prepared", bytes(block)).rename(board.path(BLOCK))
    reader = make_reader()
    wait_until(lambda: reader.channel(16, 1)[2] == 1900, "the stored channel")
    empty = (0, 0, 0, 0, 0, 0.0, 0, 0, 0, 0)
    assert [reader.channel(n, r) for r in (0, 1) for n in range(1, 17)] == [
        *[empty] * 31, (0, 0, 1900, *empty[3:])]
    wait_until(lambda: all(reader.value(f) == 0.0 for f in range(46)), "the values of a pass")


# A block that another program cuts short.

def test_a_block_that_is_cut_short(board, start, console, make_client, make_reader):
    daemon = start(settings(channel_list(2)))
    client = make_client()
    client.send(rc_command("get-channels"))  # the dispatcher has a mapping of its own
    assert b'"min":1000,"max":2000,' in reply(client)
    reply(client)
    for count in (1, 2, 3):
        # No program of the test may look into it now: it would not survive that.
        os.truncate(board.path(BLOCK), 0)
        daemon.wait_error("Shared memory /shared_rc_raw was cut short by another program, and is "
                          "made whole with zeros\n", count)
        wait_until(lambda: board.path(BLOCK).stat().st_size == SIZE, "its size")
    client.send(rc_command("get-channels"))
    assert b'"min":0,"max":0,' in reply(client)
    reply(client)
    console(daemon).send_text(rc_command("set-config", 0, channel_list(2)))
    reader = make_reader()
    reader.connect(0)
    reader.move(1, 0.5)
    reader.wait_value(2, 0.5)


def test_receivers_are_found_and_lost(daemon, make_reader):
    reader = make_reader()
    assert "RC1" not in daemon.errors() and "RC2" not in daemon.errors()
    reader.connect(1)
    reader.connect(0)
    for channel in range(1, 17):
        reader.set_raw(channel, 1600, 0)
        reader.set_raw(channel, 1700, 1)
    reader.receivers.discard(1)
    last = time.monotonic()
    daemon.wait_error("RC2 lost\n")
    assert time.monotonic() - last > 0.2
    wait_until(lambda: reader.state(1) == 0, "the state byte")
    assert reader.memory[8:12] == bytes(4)
    wait_until(lambda: not any(reader.channel(n, 1)[0] for n in range(1, 17)), "raw values cleared")
    assert [reader.channel(n, 0)[0] for n in range(1, 17)] == [1600] * 16
    assert reader.state(0) == 1
    reader.connect(1)
    daemon.wait_error("RC2 found\n", count=2)
    assert said(daemon, "RC") == ["RC2 found", "RC1 found", "RC2 lost", "RC2 found"]


def test_a_found_receiver_gets_its_stored_channels(start, make_reader):
    start(settings('[{"ch":1,"min":11}]', '[{"ch":1,"min":22}]'))
    reader = make_reader()
    for receiver, expected in ((0, 11), (1, 22)):
        at = 16 + 32 * 16 * receiver + 2
        reader.memory[at:at + 2] = b"\1\0"
        reader.connect(receiver)
        wait_until(lambda e=expected, r=receiver: reader.channel(1, r)[1] == e, "the minimum")


def test_a_stale_block_gives_found_and_lost(board, start):
    block = bytearray(SIZE)
    block[4:12] = struct.pack("<II", 5, 6)
    board.write(BLOCK, bytes(block))
    daemon = start()
    daemon.wait_error("RC2 lost\n")
    assert said(daemon, "RC") == ["RC1 found", "RC1 lost", "RC2 found", "RC2 lost"]
    assert board.path(BLOCK).read_bytes()[:12] == bytes(12)


def test_the_status_record_tells_the_states(daemon, make_client, make_reader):
    display = make_client("127.0.0.1", 5253)
    reader = make_reader()

    def states():
        packet = display.receive_any()
        return packet[2][15:17] if is_status(packet) else None

    wait_until(lambda: states() == b"\0\0", "none")
    reader.connect(1)
    wait_until(lambda: states() == b"\0\1", "RC2")
    reader.connect(0)
    wait_until(lambda: states() == b"\1\1", "both")


def test_function_values_follow_the_sticks(sticks):
    daemon, reader = sticks(6, 7, 7, 45, d=10, l=50)
    for way in (1.0, -1.0, 0.0):
        reader.move(1, way)
        reader.wait_value(6, way / 2)
    reader.set_raw(1, 1755)
    reader.wait_value(6, 245 / 490 / 2)
    assert reader.channel(1)[5] == pytest.approx(0.25)
    reader.set_raw(2, 2000)
    reader.set_raw(3, 1755)
    reader.wait_value(7, 0.75)
    wait_until(lambda: reader.raw_value(7) == 1755, "the raw value")
    reader.set_raw(2, 0)
    reader.wait_value(7, 0.25)
    reader.set_raw(4, 1)
    reader.wait_value(45, -1.0)
    assert daemon.alive()


# The menu.

def test_menu_notices(sticks, registered_client, make_client):
    daemon, reader = sticks(1, 2, 3)
    display = make_client("127.0.0.1", 5253)
    client = registered_client(daemon)
    done = []

    def expect(message, code):
        daemon.wait_error(message, done.count(message) + 1)
        done.append(message)
        assert reply(client) == bytes([8, code])
        assert reply(display) == bytes([8, code])

    reader.move(1, 1)
    expect("RC menu enabled\n", 2)
    reader.move(2, 1)
    expect("RC menu RIGHT\n", 4)
    reader.move(2, -1)
    expect("RC menu LEFT\n", 3)
    reader.move(3, 1)
    expect("RC menu UP\n", 5)
    reader.move(3, -1)
    expect("RC menu DOWN\n", 6)
    reader.wait_value(2, 0.0)
    reader.move(1, 0)
    reader.wait_value(1, 0.0)
    reader.move(1, 1)
    expect("RC menu disabled\n", 1)
    reader.wait_value(2, -1.0)
    reader.wait_value(3, -1.0)
    expect_silence(client)
    assert "".join(f"{line}\n" for line in said(daemon, "RC menu")) == "".join(done)


def test_the_menu_before_the_servers(board, start, make_reader):
    """The switch is on while the daemon starts: it is heard, with nobody there to be told."""
    block = bytearray(SIZE)
    struct.pack_into("<H", block, 16, 2000)
    board.write(BLOCK, bytes(block))
    daemon = start(settings(channel_list(1)))
    daemon.wait_error("RC menu enabled\n")
    assert daemon.alive()


# Recording.

@pytest.fixture
def source(board):
    made = Source(board)
    yield made
    made.stopped.set()
    if made.thread.is_alive():
        made.thread.join()


def connect_source(source, daemon):
    source.thread.start()
    daemon.wait_error("Data found\n")


RECORD = [b'!{"cmd":"record","param":"stop"}', b'!{"cmd":"record","param":"start"}']


def test_the_record_switch(sticks, source):
    daemon, reader = sticks(9)
    connect_source(source, daemon)
    for way, start_or_stop in [(1, 1), (0, 0), (-1, 1), (1, 1), (0, 0)]:
        reader.move(1, way)
        assert source.receive_from(5000) == RECORD[start_or_stop]


def test_the_record_toggle(sticks, source):
    daemon, reader = sticks(45)
    connect_source(source, daemon)
    for way, start_or_stop in [(1, 1), (1, 0), (-1, 1)]:
        reader.move(1, way)
        assert source.receive_from(5000) == RECORD[start_or_stop]
        reader.move(1, 0)
        reader.wait_value(45, 0.0)


def test_a_toggle_without_a_data_source_counts(sticks, source):
    daemon, reader = sticks(45)
    reader.move(1, 1)
    reader.wait_value(45, 1.0)
    reader.move(1, 0)
    reader.wait_value(45, 0.0)
    connect_source(source, daemon)
    reader.move(1, 1)
    assert source.receive_from(5000) == RECORD[0]


# Commands.

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


def test_channels_come_in_two_whole_replies(start, make_client, make_reader):
    start(settings(channel_list(*range(6, 9), d=12), channel_list(*[20] * 16, min=10000, max=60000,
                                                                  c=30000, l=100)))
    reader = make_reader()
    reader.set_raw(1, 1756)
    for channel in range(1, 17):
        reader.set_raw(channel, 15000, 1)
    reader.connect(0)
    reader.wait_value(20, -1.0)
    client = make_client()
    client.send(rc_command("get-channels"))
    first, second = reply(client), reply(client)
    expect_silence(client)
    assert first.startswith(b'{"cmd":"rc1","state":1,"ch":[{"raw":1756,"min":1000,"max":2000,'
                            b'"c":1500,"i":0,"val":0.500,"d":12,"e":1,"l":100,"f":6},')
    channel = (b'{"raw":15000,"min":10000,"max":60000,"c":30000,"i":0,"val":-0.750,"d":0,"e":1,'
               b'"l":100,"f":20}')
    assert second == b'{"cmd":"rc2","state":0,"ch":[' + b",".join([channel] * 16) + b"]}"
    for text in (first, second):
        channels = json.loads(text)["ch"]
        assert len(channels) == 16 and all(list(c) == LIVE_KEYS for c in channels)


def test_the_longest_channels(start, make_client, make_reader):
    start()
    reader = make_reader()
    reader.memory[16:1040] = struct.pack(CHANNEL_FORMAT, 0, *[65535] * 3, 255, -1.7e308, 255,
                                         65535, 65535, 255) * 32
    client = make_client()
    client.send(rc_command("get-channels"))
    for number in (b"1", b"2"):
        text = reply(client)
        assert text.startswith(b'{"cmd":"rc' + number) and len(text) > 16 * 380
        assert len(json.loads(text)["ch"]) == 16


def saved_channels(console, receiver):
    text = console.saved()[f"rc{receiver + 1}_channels"]
    channels = json.loads(text)
    assert [list(channel) for channel in channels] == [KEYS] * 16
    assert [channel["ch"] for channel in channels] == list(range(1, 17))
    assert " " not in text
    return channels


@pytest.mark.parametrize("receiver", [0, 1])
def test_calibration(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    reader.connect(receiver)
    for channel in range(1, 17):
        reader.set_raw(channel, 1400 + channel, receiver)
        reader.set_raw(channel, 1300, 1 - receiver)
    control = console(daemon)
    name = f"RC{receiver + 1}"
    control.send_text(rc_command("calibrate-minmax", receiver))
    assert control.errors == [f"Set {name} state 2", f"{name} begin calibration min/max"]
    assert reader.state(receiver) == 2
    for channel in range(1, 17):
        assert reader.channel(channel, receiver)[1:4] == (1400 + channel,) * 3
        assert reader.channel(channel, 1 - receiver)[1:4] == (0, 0, 0)
    for raw, expected in [(2001, (1401, 2001, 1701)), (1000, (1000, 2001, 1500))]:
        reader.set_raw(1, raw, receiver)
        wait_until(lambda e=expected: reader.channel(1, receiver)[1:4] == e, f"{expected}")
    control.send_text(rc_command("finish-minmax", receiver))
    assert control.errors[:2] == [f"Set {name} state 3", f"{name} finish calibration min/max"]
    assert reader.state(receiver) == 1
    channels = saved_channels(control, receiver)
    assert channels[0] == {"ch": 1, "min": 1000, "max": 2001, "c": 1500, "i": 0, "e": 0, "d": 0,
                           "l": 100, "f": 0}
    assert [(c["min"], c["max"], c["c"]) for c in channels[1:]] == [
        (1400 + n,) * 3 for n in range(2, 17)]
    assert {(c["min"], c["max"], c["c"]) for c in saved_channels(control, 1 - receiver)} == {
        (0, 0, 0)}
    reader.set_raw(1, 2500, receiver)
    wait_until(lambda: reader.channel(1, receiver)[5] == 1.0, "a pass")
    assert reader.channel(1, receiver)[2] == 2001, "calibration is over"
    reader.set_raw(1, 1490, receiver)
    control.send_text(rc_command("set-center", receiver))
    assert control.errors[:2] == [f"Set {name} state 4", f"{name} calibration center"]
    assert reader.channel(1, receiver)[1:4] == (1000, 2001, 1490)
    assert saved_channels(control, receiver)[0]["c"] == 1490
    assert reader.channel(1, 1 - receiver)[3] == 0


@pytest.mark.parametrize("receiver", [0, 1])
def test_centring_takes_all_channels_and_ends_a_calibration(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    reader.connect(receiver)
    for channel in range(1, 17):
        reader.set_raw(channel, 1400 + channel, receiver)
    control = console(daemon)
    control.send_text(rc_command("calibrate-minmax", receiver))
    assert reader.state(receiver) == 2 and control.commands == []
    for channel in range(1, 17):
        reader.set_raw(channel, 1700 + channel, receiver)
    wait_until(lambda: reader.channel(16, receiver)[2] == 1716, "all widened")
    control.send_text(rc_command("set-center", receiver))
    assert reader.state(receiver) == 1 and control.commands == SAVE
    for channel in range(1, 17):
        reader.set_raw(channel, 1600 + channel, receiver)
    control.send_text(rc_command("set-center", receiver))
    centers = [1600 + channel for channel in range(1, 17)]
    assert [reader.channel(n, receiver)[3] for n in range(1, 17)] == centers
    assert [c["c"] for c in saved_channels(control, receiver)] == centers
    assert [c["c"] for c in saved_channels(control, 1 - receiver)] == [0] * 16


@pytest.mark.parametrize("receiver", [0, 1])
def test_centring_an_absent_receiver(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    reader.set_raw(16, 1234, receiver)
    control = console(daemon)
    assert reader.memory[:2] == b"\0\0"
    control.send_text(rc_command("set-center", receiver))
    assert (reader.state(receiver), reader.state(1 - receiver)) == (1, 0)
    assert saved_channels(control, receiver)[15]["c"] == 1234


@pytest.mark.parametrize("param", ["finish-minmax", "set-center"])
def test_channels_are_saved_before_the_state_is_set(board, start, make_reader, console, param):
    daemon = start(QUIET)
    reader = make_reader()
    reader.connect(0)
    control = console(daemon)
    control.send_text(rc_command("calibrate-minmax", 0))
    assert reader.state(0) == 2
    hold(board, "mount")
    control.client.send(rc_command(param, 0))
    wait_until(lambda: "mount -o rw,remount /boot" in log_lines(board), "the save")
    assert reader.state(0) == 2
    release(board, "mount")
    wait_until(lambda: reader.state(0) == 1, "the state")


@pytest.mark.parametrize("receiver", [0, 1])
def test_set_config(start, make_reader, console, receiver):
    daemon = start(QUIET)
    reader = make_reader()
    control = console(daemon)
    before = bytes(reader.memory[16:1040])
    control.send_text(rc_command("set-config", receiver, '[{"ch":3,"min":1000}]'))
    assert control.errors[0] == f'Set RC{receiver + 1} config: [{{"ch":3,"min":1000}}]'
    expected = bytearray(before)
    struct.pack_into("<H", expected, 32 * (2 + 16 * receiver) + 2, 1000)
    assert reader.memory[16:1040] == expected
    assert saved_channels(control, receiver)[2]["min"] == 1000
    assert saved_channels(control, 1 - receiver)[2]["min"] == 0
    whole = channel_list(*range(10, 26))
    control.send_text(rc_command("set-config", receiver, whole))
    assert saved_channels(control, receiver) == json.loads(whole)
    for text in ("", "[", "[]", '[{"min":5}]', '[{"ch":17,"min":5}]', "null"):
        control.send_text(rc_command("set-config", receiver, text))
        assert saved_channels(control, receiver) == json.loads(whole)


def test_the_saved_line(start, console):
    control = console(start(QUIET))
    control.send_text(rc_command("set-config", 1, '[{"ch":16,"f":45}]'))
    empty = '{{"ch":{},"min":0,"max":0,"c":0,"i":0,"e":0,"d":0,"l":0,"f":{}}}'
    lines = control.boot_file().decode().split("\r\n")
    for name, last in (("rc1", 0), ("rc2", 45)):
        objects = [empty.format(n, last if n == 16 else 0) for n in range(1, 17)]
        assert f"{name}_channels=[{','.join(objects)}]" in lines


def test_other_receivers(start, make_reader, console):
    daemon = start(QUIET)
    reader = make_reader()
    reader.set_raw(1, 1500)
    control = console(daemon)
    wait_until(lambda: reader.channel(1)[8] == 100, "a pass")
    before = bytes(reader.memory[:1040])
    for receiver, number in ((2, 3), (-1, 0), (2147483647, -2147483648), (1000000, 1000001)):
        for param, state, what in (("calibrate-minmax", 2, "begin calibration min/max"),
                                   ("finish-minmax", 3, "finish calibration min/max"),
                                   ("set-center", 4, "calibration center")):
            control.send_text(rc_command(param, receiver))
            saves = [] if state == 2 else ["Saving config"]
            assert control.errors == [f"Set RC{number} state {state}", f"RC{number} {what}", *saves]
            assert control.commands == (SAVE if saves else [])
        control.send_text(rc_command("set-config", receiver, '[{"ch":1,"min":9}]'))
        assert control.errors == [f'Set RC{number} config: [{{"ch":1,"min":9}}]']
        assert control.commands == []
    assert reader.memory[:1040] == before


def test_a_board_without_rc(board, start, console, make_client):
    daemon = start(QUIET + "rc1_channels=[]\n", model="Raspberry Pi Zero 2")
    client = make_client()
    client.send(rc_command("get-channels"))
    assert reply(client) == b'{"cmd":"rc1","state":0,"ch":}'
    assert reply(client) == b'{"cmd":"rc2","state":0,"ch":}'
    control = console(daemon)
    for receiver in (0, 1, 2):
        for param in ("calibrate-minmax", "finish-minmax", "set-center", "set-config", "nothing"):
            control.send_text(rc_command(param, receiver, '[{"ch":1,"min":5}]'))
    client.send(struct.pack("<BBhhh", 5, 0, 32767, -32767, 0))
    expect_silence(client)
    assert daemon.errors().count("Failed to get shared RC buffer\n") == 2
    assert "Init RC" not in daemon.errors()
    assert not board.path("/run/quillorbeacon/smooth_ptd_app_values").exists()
    assert board.path(BLOCK).read_bytes() == bytes(SIZE)


# A recorded curve.

PASS = 0.03


def model_step(value, target, step):
    return value + max(-step, min(step, target - value))


def test_the_gimbal_follows_a_recorded_curve(board, sticks):
    """Channel 1 only marks passes: it is evaluated before the stick on channel 2."""
    step = 0.01 / 2
    _, reader = sticks(20, 2, more="rc_pan_smooth=2\n", d=10)
    path = board.path("/run/quillorbeacon/smooth_ptd_total_values")
    curve = [1500 + round(400 * math.sin(n / 5) + 100 * math.sin(n)) for n in range(45)]
    visited, written = {"0.000000"}, set()
    value, mark = 0.0, 1000

    def wait_pass():
        nonlocal mark
        mark += 1
        reader.set_raw(1, mark)
        wait_until(lambda: reader.raw_value(20) == mark, "a pass", interval=0.0005)

    wait_pass()
    for raw in curve:
        begin = time.monotonic()
        reader.set_raw(2, raw)
        wait_pass()
        wait_pass()  # the values of the first are published by now
        passes = int((time.monotonic() - begin) / PASS) + 2
        delta = raw - 1500
        target = math.copysign(max(abs(delta) - 10, 0), delta) / 490
        candidates = [value]
        for _ in range(passes):
            candidates.append(model_step(candidates[-1], target, step))
        visited.update(f"{candidate + 0.0:.6f}" for candidate in candidates)
        seen = reader.value(2)
        assert any(abs(seen - candidate) < 1e-9 for candidate in candidates[1:]), (seen, candidates)
        value = seen
        text = path.read_text()
        if text:  # else it is just being written
            assert re.fullmatch(r"-?\d\.\d{6},0\.000000,0\.000000", text)
            written.add(text.split(",")[0].replace("-0.000000", "0.000000"))
    assert len(written) > 10 and written <= visited, written - visited
