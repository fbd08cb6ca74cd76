"""A FIFO or a device where a file of the daemon belongs is neither opened nor waited for."""

import os
import select
import struct

import pytest

from commands import update_text
from conftest import CONFIG, wait_until

RUN = "/run/quillorbeacon"
# Written again and again, or when automatic movement is switched.
AGAIN = [f"{RUN}/{name}" for name in ("clients.json", "recorder_place", "automovements_state")]
# Written at the start, and when their values change.
ONCE = [f"{RUN}/smooth_ptd_{name}_values" for name in ("app", "rc", "total")]


def refused(path):
    return f"File {path} is a FIFO or a device and is not written\n"


def make_fifo(board, path):
    target = board.path(path)
    target.parent.mkdir(exist_ok=True)
    os.mkfifo(target)


def wait_again(client, condition, what):
    """Switches automatic movement until the condition holds."""
    def holds():
        client.send(update_text("automovement", "setstate", "0"))
        return condition()

    wait_until(holds, what, interval=0.05)


def is_written(board, path):
    return board.path(path).is_file() and board.path(path).stat().st_size > 0


@pytest.mark.parametrize("path", AGAIN + ONCE)
def test_a_fifo_in_place_of_a_file_that_is_written(board, start, make_client, path):
    make_fifo(board, path)
    daemon = start()
    daemon.wait_error(refused(path))
    # The threads that write the files go on.
    client = make_client()
    for other in AGAIN:
        if other != path:
            wait_again(client, lambda name=other: is_written(board, name), other)
            board.path(other).unlink()
            wait_again(client, lambda name=other: is_written(board, name), f"{other} again")
    for other in ONCE:
        if other != path:
            wait_until(lambda name=other: is_written(board, name), other)
    assert daemon.errors().count("is a FIFO or a device") == 1
    assert board.path(path).is_fifo()


@pytest.mark.parametrize("path", AGAIN)
def test_a_file_is_written_when_the_fifo_has_gone(board, start, make_client, path):
    make_fifo(board, path)
    daemon, client = start(), make_client()
    daemon.wait_error(refused(path))
    board.path(path).unlink()
    wait_again(client, lambda: is_written(board, path), path)
    # Renamed: the daemon may make the file again at any time.
    make_fifo(board, path + ".fifo")
    board.path(path + ".fifo").replace(board.path(path))
    wait_again(client, lambda: daemon.errors().count(refused(path)) == 2, "the line once more")


@pytest.mark.parametrize("path", ONCE)
def test_gimbal_values_are_written_when_the_fifo_has_gone(board, start, make_client, path):
    make_fifo(board, path)
    daemon, client = start(), make_client()
    daemon.wait_error(refused(path))
    board.path(path).unlink()
    client.send(struct.pack("<BBhhh", 5, 0, 32767, 0, 0))
    for other in (ONCE[0], ONCE[2]):
        wait_until(lambda name=other: is_written(board, name)
                   and board.path(name).read_text().startswith("1.0"), other)


def test_a_fifo_with_a_reader_is_not_opened(board, start):
    ends = []
    for path in AGAIN + ONCE:
        make_fifo(board, path)
        ends.append(os.open(board.path(path), os.O_RDONLY | os.O_NONBLOCK))
    daemon = start()
    for path in AGAIN + ONCE:
        daemon.wait_error(refused(path))
    # A writer that has come and gone would hang up, and one that is there have written.
    poll = select.poll()
    for end in ends:
        poll.register(end, select.POLLIN)
    assert poll.poll(0) == []
    for end in ends:
        os.close(end)


@pytest.mark.parametrize("path", AGAIN + ONCE)
def test_a_device_in_place_of_a_file_that_is_written(board, start, path):
    board.path(path).parent.mkdir(exist_ok=True)
    board.path(path).symlink_to("/dev/zero")
    daemon = start()
    daemon.wait_error(refused(path))
    assert board.path(path).is_symlink()


def test_a_fifo_in_place_of_the_settings(board, start, make_client):
    make_fifo(board, CONFIG)
    daemon = start(config=None)
    assert "Loading config file... failed\n" in daemon.errors()
    client = make_client()
    client.ask_info()
    assert client.receive()[2][0] == 1


@pytest.mark.parametrize("name", ["screenshot.png", "wifi0.ip", "recorder.info",
                                  "rtmp-streamer.info", "rtsp-server.info"])
def test_a_fifo_in_place_of_a_file_that_is_read(board, start, make_client, name):
    make_fifo(board, f"{RUN}/{name}")
    daemon = start("wifi_iface=int\n")
    client = make_client()
    client.send(b"\x09")
    client.send(b'{"cmd":"config_request","param":"wifi"}')
    assert b"config_answer" in client.receive()[2]
    client.send(update_text("rec", "1"))
    daemon.wait_error("config_update: ")
    client.send(b'{"cmd":"config_request","param":"gimbal"}')
    assert b"config_answer" in client.receive()[2]


@pytest.mark.parametrize("name", ["quillorbeacon_framebuffer", "shared_rc_raw", "shared_camstate"])
def test_a_fifo_in_place_of_shared_memory(board, start, make_client, name):
    os.mkfifo(board.path(f"/dev/shm/{name}"))
    daemon = start()
    daemon.wait_error(f"{name}: ftruncate failed: Invalid argument\n")
    client = make_client()
    client.ask_info()
    assert client.receive()[2][0] == 1
    # It is tried again once a second.
    board.path(f"/dev/shm/{name}").unlink()
    daemon.wait_error(f"{name}: mapped now\n")
