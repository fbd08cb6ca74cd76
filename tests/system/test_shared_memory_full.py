"""A full /dev/shm: it is told once, video waits until there is room, and the daemon goes on."""

import os
import signal

import pytest

from conftest import is_status, wait_until
from test_shared_memory import FARTHER, LIST, wait_nearest

QUIET = "recording_place=2\n"
RING = "quillorbeacon_framebuffer"
TRANSCODING_RING = "quillorbeacon_framebuffer_transcoding"
RC_BLOCK = "/shared_rc_raw"
CAMERA_STATE = "/shared_camstate"
FILLER = "/dev/shm/filler"
HEAD = 18
SLOT = 300000 + HEAD


def too_full(name):
    return f"Shared memory {name}: /dev/shm is too full for it, remove files there\n"


def too_full_for_a_page(name):
    return f"Shared memory {name}: /dev/shm is too full for a page of it, remove files there\n"


def mapped(name):
    return f"Shared memory {name}: mapped now\n"


def limit(board, size):
    board.run("/usr/bin/mount", "-o", f"remount,size={size}", "/dev/shm")


def fill(board):
    """Takes all the memory that /dev/shm has left."""
    limit(board, "20m")
    with open(board.path(FILLER), "wb", buffering=0) as filler, pytest.raises(OSError):
        while True:
            filler.write(bytes(4096))


def empty(board):
    board.path(FILLER).unlink()


def records(client, count):
    """Lets that many status records, ten a second, go by."""
    while count > 0:
        count -= is_status(client.receive_any())


@pytest.fixture
def viewer(make_client):
    return lambda: make_client("127.0.0.1", 5253)


def test_full_at_the_start(board, start, viewer, registered_client, make_producer):
    display = viewer()
    fill(board)
    daemon = start(QUIET)
    names = (RING, TRANSCODING_RING, RC_BLOCK, CAMERA_STATE)
    for name in names:
        daemon.wait_error(too_full(name))
    records(display, 5)
    said = daemon.errors()
    # Each is tried again once a second, without another word.
    records(display, 25)
    assert daemon.errors() == said
    assert said.count(too_full(RING)) == said.count(too_full(CAMERA_STATE)) == 1
    empty(board)
    for name in (RING, RC_BLOCK, CAMERA_STATE):
        daemon.wait_error(mapped(name))
    client = registered_client(daemon)
    producer = make_producer()
    assert producer.memory[0] == 1
    producer.publish(b"\0\0\0\1picture")
    assert client.receive_type(1)[2] == b"\0\0\0\1picture"


def test_too_little_room_for_a_ring_takes_none(board, start, viewer):
    """The smaller objects need it."""
    display = viewer()
    limit(board, "100k")
    daemon = start(QUIET)
    daemon.wait_error(too_full(RING))
    daemon.wait_error(too_full(TRANSCODING_RING))
    records(display, 15)
    assert too_full(RC_BLOCK) not in daemon.errors()
    assert too_full(CAMERA_STATE) not in daemon.errors()
    assert board.path(f"/dev/shm/{RING}").stat().st_blocks == 0
    limit(board, "1g")
    daemon.wait_error(mapped(RING))


def head(length, identifier, ready=1):
    return (length.to_bytes(4, "little") + identifier.to_bytes(2, "little") + bytes(3)
            + bytes([ready]))


class SparseProducer:
    """Fills the heads of slots only: a mapping of the test's own would end the test."""

    def __init__(self, board):
        self.file = os.open(board.path(f"/dev/shm/{RING}"), os.O_RDWR)

    def publish(self, slot, length, identifier):
        os.pwrite(self.file, head(length, identifier), 24 + slot * SLOT)

    def wait_taken(self, slot):
        wait_until(lambda: os.pread(self.file, 1, 24 + slot * SLOT + 9) == b"\0",
                   f"slot {slot} taken")


def test_full_later(board, start, registered_client):
    daemon = start(QUIET)
    client = registered_client(daemon)
    producer = SparseProducer(board)
    fill(board)
    too_full_for_it = (f"Frame ring {RING}: /dev/shm is too full "
                       "for a frame of 50000, skipped; remove files there (")
    producer.publish(0, 50000, 1)
    daemon.wait_error(too_full_for_it)
    # Each slot's head has its memory from the start.
    for number in range(1, 210):
        producer.publish(number % 200, 100000, number + 1)
        producer.wait_taken(number % 200)
    empty(board)
    producer.publish(10, 50000, 1000)
    received = b"".join(client.receive_type(1)[2] for _ in range(-(-50000 // 1300)))
    assert received == bytes(50000)
    assert daemon.alive()
    os.close(producer.file)


def truncate_while_stopped(board, daemon, names):
    """Leaves the daemon nothing to restore the objects with."""
    os.kill(daemon.pid, signal.SIGSTOP)
    for name in names:
        os.truncate(board.path(f"/dev/shm/{name}"), 0)
    fill(board)
    os.kill(daemon.pid, signal.SIGCONT)
    os.kill(daemon.process.pid, signal.SIGCONT)  # its runner stops with it


def test_full_when_a_ring_was_truncated(board, start, viewer, registered_client, make_producer):
    daemon, display = start(QUIET), viewer()
    client = registered_client(daemon)
    truncate_while_stopped(board, daemon, [RING])
    daemon.wait_error(too_full_for_a_page(RING))
    said = daemon.errors()
    # It is tried again once a second, without another word.
    records(display, 25)
    assert daemon.errors() == said
    empty(board)
    daemon.wait_error(mapped(RING))
    producer = make_producer()
    wait_until(lambda: producer.memory[:2] == b"\1\0", "its marks")
    producer.publish(b"\0\0\0\1picture")
    assert client.receive_type(1)[2] == b"\0\0\0\1picture"


def test_full_when_the_camera_state_was_truncated(board, start, viewer):
    daemon, display = start(QUIET + LIST), viewer()
    state = board.path(f"/dev/shm{CAMERA_STATE}")
    state.write_bytes(FARTHER)
    wait_nearest(display, 1)
    for count in (1, 2):
        truncate_while_stopped(board, daemon, [CAMERA_STATE])
        daemon.wait_error(too_full_for_a_page(CAMERA_STATE), count)
        wait_nearest(display, 0)
        records(display, 15)
        empty(board)
        daemon.wait_error(mapped(CAMERA_STATE), count)
        state.write_bytes(FARTHER)
        wait_nearest(display, 1)


def test_full_when_everything_was_truncated(board, start, viewer, registered_client,
                                            make_producer):
    daemon, display = start(QUIET + LIST), viewer()
    client = registered_client(daemon)
    truncate_while_stopped(board, daemon, (RING, TRANSCODING_RING, RC_BLOCK, CAMERA_STATE))
    for name in (RING, RC_BLOCK, CAMERA_STATE):
        daemon.wait_error(too_full_for_a_page(name))
    records(display, 15)
    empty(board)
    for name in (RING, RC_BLOCK, CAMERA_STATE):
        daemon.wait_error(mapped(name))
    make_producer().publish(b"\0\0\0\1picture")
    assert client.receive_type(1)[2] == b"\0\0\0\1picture"
