"""Sticks and switches: receivers that come and go, values, the menu, recording, smoothing."""

import math
import re
import struct
import time

import pytest

from conftest import is_status, wait_until
from rc_reader import (BLOCK, SIZE, channel_list, make_reader, settings,  # noqa: F401 - fixtures
                       sticks)
from test_dispatcher import Source, expect_silence, reply, said


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
    """The switch is on while the daemon starts: it is noticed, but no client is there yet."""
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


# A recorded curve.

PASS = 0.03


def model_step(value, target, step):
    return value + max(-step, min(step, target - value))


def test_the_gimbal_follows_a_recorded_curve(board, sticks):
    """Channel 1 only marks the passes: it is evaluated before the stick on channel 2."""
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
        wait_pass()  # by now the values of the first pass are published
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
        if text:  # otherwise it is being written
            assert re.fullmatch(r"-?\d\.\d{6},0\.000000,0\.000000", text)
            written.add(text.split(",")[0].replace("-0.000000", "0.000000"))
    assert len(written) > 10 and written <= visited, written - visited
