"""The gimbal's state files: the values of clients and sticks, smoothed and published."""

import struct
import time

import pytest

from conftest import wait_until
from rc_reader import make_reader, sticks  # noqa: F401

RUN = "/run/quillorbeacon"
QUIET = "recording_place=2\n"
NAMES = ["app", "rc", "total"]
ZEROS = "0.000000,0.000000,0.000000"


def state_file(board, name):
    return board.path(f"{RUN}/smooth_ptd_{name}_values")


def texts(board):
    return [state_file(board, name).read_text() if state_file(board, name).exists() else None
            for name in NAMES]


def wait_texts(board, app, rc, total):
    wait_until(lambda: texts(board) == [app, rc, total], f"{app} {rc} {total}")


def values(*numbers):
    return ",".join(f"{number:.6f}" for number in numbers)


def send_gimbal(client, pan, tilt, roll):
    client.send(struct.pack("<BBhhh", 5, 0, pan, tilt, roll))


def test_all_files_are_written_once_at_the_start(board, daemon):
    wait_texts(board, ZEROS, ZEROS, ZEROS)
    stamps = [state_file(board, name).stat().st_mtime_ns for name in NAMES]
    end = time.monotonic() + 1.0
    wait_until(lambda: time.monotonic() > end, "ten looks")
    assert [state_file(board, name).stat().st_mtime_ns for name in NAMES] == stamps


@pytest.mark.parametrize("pan, tilt, roll", [
    (32767, -32767, 0), (-32768, 1, -1), (16384, 256, 255), (0, 0, 32767)])
def test_application_values(board, daemon, make_client, pan, tilt, roll):
    send_gimbal(make_client(), pan, tilt, roll)
    # A step is at most 1.0, so -32768 takes two.
    expected = values(*(part / 32767 for part in (pan, tilt, roll)))
    wait_texts(board, expected, ZEROS, expected)


@pytest.mark.parametrize("payload, expected", [
    (b"\x05\0\xff\x7f", (1, 0, 0)), (b"\x05\0\xff\x7f\x01\x80", (1, -1, 0)),
    (b"\x05\0\xff\x7f\x01\x80\xff\x7fmore", (1, -1, 1)), (b"\x05\0\xff", (255 / 32767, 0, 0)),
])
def test_what_a_short_command_lacks_is_0(board, daemon, make_client, payload, expected):
    client = make_client()
    send_gimbal(client, 100, 200, 300)
    before = values(*(part / 32767 for part in (100, 200, 300)))
    wait_texts(board, before, ZEROS, before)
    client.send(payload)
    wait_texts(board, values(*expected), ZEROS, values(*expected))


def test_only_the_files_whose_values_change_are_written(board, sticks, make_client):  # noqa: F811
    _, reader = sticks(2, 4)
    wait_texts(board, ZEROS, ZEROS, ZEROS)
    for name in NAMES:
        state_file(board, name).unlink()
    send_gimbal(make_client(), 0, 32767, 0)
    one = values(0, 1, 0)
    wait_texts(board, one, None, one)
    state_file(board, "app").unlink()
    reader.move(1, -0.25)
    wait_texts(board, None, values(-0.25, 0, 0), values(-0.25, 1, 0))
    reader.move(2, 1)
    wait_texts(board, None, values(-0.25, 0, 1), values(-0.25, 1, 1))


def test_totals_are_the_sums(board, sticks, make_client):  # noqa: F811
    _, reader = sticks(2, 3, 4)
    send_gimbal(make_client(), 32767, -32767, 0)
    for channel, way in ((1, 0.5), (2, 0.25), (3, -1)):
        reader.move(channel, way)
    wait_texts(board, values(1, -1, 0), values(0.5, 0.25, -1), values(1.5, -0.75, -1))
    reader.wait_value(2, 1.0)
    reader.wait_value(3, -0.75)


def test_smoothing_takes_its_time(board, start, make_client):
    start(QUIET + "app_pan_smooth=1\n")
    wait_texts(board, ZEROS, ZEROS, ZEROS)
    begin = time.monotonic()
    send_gimbal(make_client(), 8192, 0, 0)
    seen = []

    def is_there():
        text = state_file(board, "app").read_text()
        if text and text not in seen:
            seen.append(text)
        return text == values(8192 / 32767, 0, 0)

    wait_until(is_there, "the value")
    assert time.monotonic() - begin > 25 * 0.03
    assert len(seen) > 3
    assert seen[:-1] == [values(round(float(t.split(",")[0]) * 100) / 100, 0, 0) for t in seen[:-1]]
    assert seen == sorted(seen)


def test_the_periods_of_loop_and_publisher(board, start, make_client, make_reader):  # noqa: F811
    """A hundred steps of 30 ms; the file is updated every 100 ms. A sleep is never too short."""
    start(QUIET + "app_pan_smooth=1\n")
    reader = make_reader()
    wait_texts(board, ZEROS, ZEROS, ZEROS)
    seen = set()

    def is_there():
        seen.add(state_file(board, "app").read_text())
        return reader.value(2) == 1.0

    begin = time.monotonic()
    send_gimbal(make_client(), 32767, 0, 0)
    wait_until(is_there, "the value", 30.0)
    passed = time.monotonic() - begin
    assert 2.9 < passed < 9.0
    # The empty text and the zeros are among them.
    assert 8 < len(seen) < passed / 0.1 + 4


def test_function_5_switches_smoothing_off(board, sticks):  # noqa: F811
    _, reader = sticks(2, 5, more="rc_pan_smooth=1000\n")
    reader.move(2, 1)
    reader.wait_value(5, 1.0)
    reader.move(1, 1)
    wait_texts(board, ZEROS, values(1, 0, 0), values(1, 0, 0))
    reader.move(2, 0)
    reader.wait_value(5, 0.0)
    reader.move(1, -1)
    wait_until(lambda: 0.999 < reader.value(2) < 1.0, "the slow way back")


def test_settings_count_at_once(board, sticks, make_client):  # noqa: F811
    daemon, reader = sticks(2, more="rc_pan_smooth=100000\n")
    reader.move(1, 1)
    wait_until(lambda: 0.0 < reader.value(2) < 0.01, "the slow way")
    make_client().send(b'{"cmd":"updateconfig","param":"gimbal","value":"0","value2":"0"}')
    wait_texts(board, ZEROS, values(1, 0, 0), values(1, 0, 0))
    assert daemon.alive()


def test_a_write_that_failed_is_not_tried_again(board, sticks, make_client):  # noqa: F811
    daemon, reader = sticks(2)
    wait_texts(board, ZEROS, ZEROS, ZEROS)
    state_file(board, "app").unlink()
    state_file(board, "app").mkdir()  # cannot be opened for writing
    client = make_client()
    errors = len(daemon.errors())
    send_gimbal(client, 0, 32767, 0)
    total = state_file(board, "total")
    wait_until(lambda: total.read_text() == values(0, 1, 0), "the total, written after the other")
    state_file(board, "app").rmdir()
    reader.move(1, 1)
    wait_texts(board, None, values(1, 0, 0), values(1, 1, 0))
    send_gimbal(client, 0, 0, 0)
    wait_texts(board, ZEROS, values(1, 0, 0), values(1, 0, 0))
    assert daemon.errors()[errors:].replace("UDP server: UDP found\n", "") == ""
