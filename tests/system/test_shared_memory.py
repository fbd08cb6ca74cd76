"""Shared memory that another program truncates while the daemon uses it."""

import os
import struct

from conftest import is_status, wait_until

QUIET = "recording_place=2\n"
RING = "/dev/shm/quillorbeacon_framebuffer"
RING_SIZE = 24 + 200 * 300018
CAMERA_STATE = "/dev/shm/shared_camstate"
# Two movements: the camera is nearer to the second when it points to the right.
LIST = 'automove_list="0,0,0,,,,,0,0,;50,0,0,,,,,0,0,"\n'
FARTHER = struct.pack("<hhh", 500, 0, 0)


def whole(name):
    return (f"Shared memory {name} was truncated by another program; restored, filled with "
            "zeros\n")


def wait_nearest(display, number):
    wait_until(lambda: [p[2][38] for p in [display.receive_any()] if is_status(p)] == [number],
               f"movement {number} nearest")


def test_the_camera_state(board, start, make_client):
    daemon = start(QUIET + LIST)
    display = make_client("127.0.0.1", 5253)
    state = board.path(CAMERA_STATE)
    for count in (1, 2):
        state.write_bytes(FARTHER)
        wait_nearest(display, 1)
        os.truncate(state, 0)
        daemon.wait_error(whole("/shared_camstate"), count)
        wait_nearest(display, 0)
        assert state.read_bytes() == bytes(6)


def test_a_program_that_empties_the_camera_state_whenever_it_writes(board, start, make_client):
    daemon = start(QUIET + LIST)
    display = make_client("127.0.0.1", 5253)
    for number in (1, 0, 1):
        for _ in range(500):
            board.path(CAMERA_STATE).write_bytes(struct.pack("<hhh", 500 * number, 0, 0))
        wait_nearest(display, number)
    assert daemon.alive()


def test_a_frame_ring(board, start, registered_client, make_producer):
    daemon = start(QUIET)
    client = registered_client(daemon)
    producer = make_producer()
    for count, frame in enumerate((b"\0\0\0\1first", b"\0\0\0\1second", b"\0\0\0\1third"), 1):
        producer.publish(frame)
        assert client.receive_type(1)[2] == frame
        # Nobody else may access it now: the reader thread restores it within 2 ms.
        os.truncate(board.path(RING), 0)
        daemon.wait_error(whole("quillorbeacon_framebuffer"), count)
        wait_until(lambda: board.path(RING).stat().st_size == RING_SIZE, "its size")
        wait_until(lambda: producer.memory[:2] == b"\1\0", "its marks")
        producer.next_slot = producer.read_index
        assert producer.next_slot == 0


def test_the_marks_of_a_ring_that_is_whole_are_left_to_its_producer(board, start, make_producer):
    daemon = start(QUIET)
    producer = make_producer()
    assert producer.memory[:2] == b"\1\0"
    producer.memory[:2] = b"\7\7"
    for _ in range(3):
        slot = producer.next_slot
        producer.publish(b"\0\0\0\1frame")
        producer.wait_taken(slot)
    assert producer.memory[:2] == b"\7\7"
    os.truncate(board.path(RING), 0)
    daemon.wait_error(whole("quillorbeacon_framebuffer"))
    wait_until(lambda: producer.memory[:2] == b"\1\0", "its marks")


def test_a_ring_that_was_opened_anew(board, start, registered_client, make_client, make_producer):
    """Setting transcoding prepares its ring again: at the same address, possibly another object."""
    daemon = start(QUIET)
    client = registered_client(daemon)
    name = "quillorbeacon_framebuffer_transcoding"
    board.path(f"/dev/shm/{name}").unlink()
    make_client().send(b'{"cmd":"updateconfig","param":"transcoding","value":"1"}')
    producer = make_producer(name)
    wait_until(lambda: producer.memory[0] == 1, "the mark")
    producer.publish(b"\0\0\0\1first")
    assert client.receive_type(1)[2] == b"\0\0\0\1first"
    os.truncate(board.path(f"/dev/shm/{name}"), 0)
    daemon.wait_error(whole(name))
    wait_until(lambda: board.path(f"/dev/shm/{name}").stat().st_size == 24 + 200 * 65018, "size")
    wait_until(lambda: producer.memory[:2] == b"\1\0", "its marks")
    producer.next_slot = 0
    producer.publish(b"\0\0\0\1second")
    assert client.receive_type(1)[2] == b"\0\0\0\1second"
