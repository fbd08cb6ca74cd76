"""The frame rings: how they are prepared and how frames are taken from them."""

import os
import random
import signal
import stat
import statistics
import subprocess
import time
from pathlib import Path

import pytest

from commands import Console
from conftest import thread_of, wait_until
from test_protocol_doc import PROGRAMS

MAIN = "quillorbeacon_framebuffer"
TRANSCODING = "quillorbeacon_framebuffer_transcoding"
SIZES = {MAIN: 60003624, TRANSCODING: 13003624}
SLOT_SIZES = {MAIN: 300018, TRANSCODING: 65018}
SO_RCVBUFFORCE = 33
LARGE = 32 << 20


def slot_at(slot, name=MAIN):
    return 24 + slot * SLOT_SIZES[name]


def slot_bytes(data, identifier=1, identifier_byte=0, length=None, ready=1):
    """A slot's first bytes: its fields and its data."""
    length = len(data) if length is None else length
    return (length.to_bytes(4, "little") + identifier.to_bytes(2, "little")
            + bytes([identifier_byte]) + b"\xa5\x5a" + bytes([ready]) + b"reserved" + data)


def header_bytes(read_index):
    return b"\x77\x88abcd" + read_index.to_bytes(2, "little") + b"0123456789abcdef"


def prepare_ring(board, read_index, slots, name=MAIN, size=None):
    """Creates a ring as an earlier producer would have left it; `slots` maps number to bytes."""
    with open(board.path(f"/dev/shm/{name}"), "wb") as ring:
        ring.write(header_bytes(read_index))
        for slot, content in slots.items():
            ring.seek(slot_at(slot, name))
            ring.write(content)
        ring.truncate(SIZES[name] if size is None else size)


def ring_lines(daemon, name=MAIN):
    """The lines on standard error about damage in that ring."""
    return [line for line in daemon.errors().splitlines() if f"{name}:" in line]


def wait_reader_passes(daemon, count=5):
    """Waits until the idle frame reader has slept that many times, once per pass."""
    reader = thread_of(daemon, "frame-reader")

    def sleeps():
        status = (reader / "status").read_text()
        return int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0])

    end = sleeps() + count
    wait_until(lambda: sleeps() >= end, "passes of the frame reader")


def receive_video(client, length):
    """The next `length` bytes of video."""
    received = bytearray()
    while len(received) < length:
        received += client.receive_type(1)[2]
    return received


@pytest.fixture
def receiver(registered_client):
    def make(daemon):
        client = registered_client(daemon)
        client.socket.setsockopt(1, SO_RCVBUFFORCE, LARGE)
        return client

    return make


@pytest.mark.parametrize("name", [MAIN, TRANSCODING])
def test_a_new_ring_has_its_size_its_marks_and_is_otherwise_zero(board, daemon, name):
    ring = board.path(f"/dev/shm/{name}")
    assert ring.stat().st_size == SIZES[name]
    assert stat.S_IMODE(ring.stat().st_mode) == 0o600
    content = ring.read_bytes()
    assert content[:2] == b"\1\0"
    assert content.count(0) == SIZES[name] - 1


@pytest.mark.parametrize("name", [MAIN, TRANSCODING])
def test_an_existing_ring_only_gets_its_marks(board, start, name):
    random.seed(name)
    capacity = SLOT_SIZES[name] - 18
    slots = {slot: slot_bytes(random.randbytes(capacity), slot, ready=slot % 3)
             for slot in (0, 1, 2, 8, 9, 199)}
    slots[7] = slot_bytes(b"not ready", ready=0)
    prepare_ring(board, 7, slots, name)
    ring = board.path(f"/dev/shm/{name}")
    before = ring.read_bytes()
    daemon = start("transcoding_enabled=1\n" if name == TRANSCODING else "")
    wait_reader_passes(daemon)
    assert ring.read_bytes() == b"\1\0" + before[2:]


def test_frames_waiting_in_an_existing_ring_are_taken_from_the_read_index_on(board, start,
                                                                             make_producer):
    prepare_ring(board, 7, {6: slot_bytes(b"a", 1), 7: slot_bytes(b"b", 2),
                            8: slot_bytes(b"c", 3), 10: slot_bytes(b"d", 4)})
    start()
    producer = make_producer()
    producer.wait_taken(8)
    assert producer.read_index == 9
    assert [producer.is_ready(slot) for slot in (6, 7, 8, 10)] == [True, False, False, True]


@pytest.mark.parametrize("name", [MAIN, TRANSCODING])
@pytest.mark.parametrize("size", [24, slot_at(3) + 100, max(SIZES.values()) + 5000])
def test_an_existing_ring_of_another_size_gets_the_right_one(board, start, name, size):
    prepare_ring(board, 0, {0: slot_bytes(b"kept", ready=0)}, name, size)
    kept = board.path(f"/dev/shm/{name}").read_bytes()[2:60]
    start()
    content = board.path(f"/dev/shm/{name}").read_bytes()
    assert len(content) == SIZES[name]
    assert content[:60] == (b"\1\0" + kept).ljust(60, b"\0")


def test_a_restart_finds_the_same_rings_and_goes_on_at_the_read_index(board, start, make_producer,
                                                                      receiver):
    first = start()
    rings = [board.path(f"/dev/shm/{name}") for name in SIZES]
    inodes = [ring.stat().st_ino for ring in rings]
    producer = make_producer()
    for number in range(5):
        producer.publish(b"%d" % number)
    producer.wait_taken(4)
    first.kill()
    assert [ring.stat().st_ino for ring in rings] == inodes
    client = receiver(start())
    assert [ring.stat().st_ino for ring in rings] == inodes
    assert producer.read_index == 5
    # The last frame before the restart is not remembered.
    producer.fill(5, b"same identifier", producer.identifier)
    assert client.receive_type(1)[2] == b"same identifier"


def test_the_read_index_follows_the_frames_and_wraps_after_slot_199(daemon, make_producer):
    producer = make_producer()
    for number in range(205):
        producer.publish(b"x")
        producer.wait_taken(number % 200)
        assert producer.memory[6:8] == bytes([(number + 1) % 200, 0])


def test_the_bytes_around_the_read_index_stay_as_they_are(board, start, make_producer):
    prepare_ring(board, 199, {})
    start()
    producer = make_producer()
    producer.publish(b"x")
    producer.wait_taken(199)
    assert producer.memory[0:24] == b"\1\0" + header_bytes(0)[2:]


def test_a_taken_slot_keeps_all_but_its_ready_flag(board, daemon, make_producer):
    producer = make_producer()
    content = slot_bytes(b"some data", 513, 7, ready=0)
    at = producer.slot_at(0)
    producer.memory[at:at + len(content)] = content
    producer.memory[at + 9] = 255
    producer.wait_taken(0)
    assert producer.memory[at:at + len(content)] == content


def test_a_duplicate_is_consumed_but_not_relayed(daemon, make_producer, receiver):
    client, producer = receiver(daemon), make_producer()
    producer.fill(0, b"first", 5, 9)
    producer.fill(1, b"again", 5, 9)
    producer.fill(2, b"once more", 5, 9)
    producer.fill(3, b"next", 6, 9)
    assert [client.receive_type(1)[2] for _ in range(2)] == [b"first", b"next"]
    assert producer.read_index == 4
    assert not any(producer.is_ready(slot) for slot in range(4))


def test_duplicates_do_not_keep_video_present(daemon, make_producer):
    producer = make_producer()
    producer.fill(0, b"x", 5)
    producer.wait_taken(0)
    producer.next_slot = 1

    def repeat():
        slot, producer.next_slot = producer.next_slot, (producer.next_slot + 1) % 200
        producer.fill(slot, b"x", 5)
        producer.wait_taken(slot)

    wait_until(lambda: repeat() or "Video lost\n" in daemon.errors(), "video lost", interval=0.02)
    repeat()
    repeat()
    assert daemon.errors().count("Video found\n") == 1


@pytest.mark.parametrize("other", [(5, 10), (6, 9), (5 + 256, 9), (9, 5)])
def test_either_part_of_the_identifier_makes_a_new_frame(daemon, make_producer, receiver, other):
    client, producer = receiver(daemon), make_producer()
    producer.fill(0, b"first", 5, 9)
    producer.fill(1, b"second", *other)
    assert receive_video(client, 11) == b"firstsecond"


@pytest.mark.parametrize("identifier", [(0, 0), (65535, 255), (65535, 0), (0, 255)])
def test_no_identifier_of_the_first_frame_counts_as_seen(daemon, make_producer, receiver,
                                                         identifier):
    client, producer = receiver(daemon), make_producer()
    producer.fill(0, b"first", *identifier)
    assert client.receive_type(1)[2] == b"first"


def test_only_the_last_identifier_is_remembered(daemon, make_producer, receiver):
    client, producer = receiver(daemon), make_producer()
    for slot, identifier in enumerate([5, 6, 5]):
        producer.fill(slot, b"%d" % slot, identifier)
    assert receive_video(client, 3) == b"012"


def test_a_ready_slot_of_length_0_waits_for_its_length(daemon, make_producer, receiver):
    client, producer = receiver(daemon), make_producer()
    producer.fill(0, b"late", 1, length=0)
    producer.fill(1, b"next", 2)
    wait_reader_passes(daemon)
    assert producer.is_ready(0) and producer.read_index == 0
    producer.fill(0, b"late", 1)
    assert receive_video(client, 8) == b"latenext"


@pytest.mark.parametrize("ready", [1, 2, 255])
def test_a_slot_is_taken_once_its_ready_flag_is_not_0(daemon, make_producer, receiver, ready):
    client, producer = receiver(daemon), make_producer()
    producer.fill(0, b"frame", 1, ready=0)
    producer.fill(1, b"next", 2)
    wait_reader_passes(daemon)
    assert producer.read_index == 0
    producer.fill(0, b"frame", 1, ready=ready)
    assert receive_video(client, 9) == b"framenext"


@pytest.mark.parametrize("index", [200, 256, 65535])
def test_a_read_index_out_of_range_becomes_slot_0(board, start, make_producer, receiver, index):
    prepare_ring(board, index, {})
    daemon = start()
    client, producer = receiver(daemon), make_producer()
    wait_until(lambda: producer.read_index == 0, "the index set right")
    producer.next_slot = 0
    producer.publish(b"goes on")
    assert client.receive_type(1)[2] == b"goes on"
    assert producer.read_index == 1
    assert len(ring_lines(daemon)) == 1 and str(index) in ring_lines(daemon)[0]


@pytest.mark.parametrize("name, length", [
    (MAIN, 300001), (MAIN, 0x80000000), (MAIN, 0xFFFFFFFF), (TRANSCODING, 65001)])
def test_a_frame_longer_than_its_slot_is_given_up(start, make_producer, receiver, name, length):
    daemon = start("transcoding_enabled=1\n" if name == TRANSCODING else "")
    client, producer = receiver(daemon), make_producer(name)
    producer.fill(0, b"too long", 1, length=length)
    producer.wait_taken(0)
    producer.fill(1, b"good", 2)
    assert client.receive_type(1)[2] == b"good"
    assert producer.read_index == 2
    assert len(ring_lines(daemon, name)) == 1 and str(length) in ring_lines(daemon, name)[0]


def test_a_ring_full_of_frames_too_long_is_passed_over_with_one_line(board, start, make_producer,
                                                                     receiver):
    prepare_ring(board, 0, {slot: slot_bytes(b"", length=300001 + slot) for slot in range(200)})
    daemon = start()
    client, producer = receiver(daemon), make_producer()
    wait_until(lambda: not any(map(producer.is_ready, range(200))), "all slots given up")
    producer.publish(b"good")
    assert client.receive_type(1)[2] == b"good"
    assert len(ring_lines(daemon)) == 1


@pytest.mark.parametrize("seed", range(3))
def test_a_ring_of_garbage_is_survived(board, start, make_producer, receiver, seed):
    random.seed(seed)

    def garbage():
        length = random.choice([0, random.randrange(1, 3000), random.randrange(300001, 1 << 32)])
        return slot_bytes(random.randbytes(100), random.randrange(65536), random.randrange(256),
                          length, random.choice([0, 1, random.randrange(256)]))

    prepare_ring(board, random.randrange(200), {slot: garbage() for slot in range(200)})
    daemon = start()
    client, producer = receiver(daemon), make_producer()

    def is_stuck():
        index = producer.read_index
        at = producer.slot_at(index)
        waits = not producer.memory[at + 9] or not any(producer.memory[at:at + 4])
        return waits and producer.read_index == index  # not a slot that was just taken

    for number in range(40):
        wait_until(is_stuck, "a slot that waits for the producer")
        good = b"good frame %d" % number
        producer.memory[producer.slot_at(producer.read_index) + 9] = 0
        producer.fill(producer.read_index, good, 1000 + number)
        while client.receive_type(1)[2] != good:
            pass
    assert daemon.alive()
    assert len(ring_lines(daemon)) <= 4


@pytest.mark.parametrize("config, used, unused, length", [
    ("", MAIN, TRANSCODING, 300000),
    ("transcoding_enabled=0\n", MAIN, TRANSCODING, 1),
    ("transcoding_enabled=1\n", TRANSCODING, MAIN, 65000),
    ("transcoding_enabled=-2\n", TRANSCODING, MAIN, 1),
])
def test_the_transcoding_setting_chooses_the_ring(start, make_producer, receiver, config, used,
                                                  unused, length):
    daemon = start(config)
    client = receiver(daemon)
    other, producer = make_producer(unused), make_producer(used)
    other.publish(b"other ring")
    random.seed(length)
    frame = random.randbytes(length)
    for _ in range(3):  # a full slot must not overlap the next
        producer.publish(frame)
    assert receive_video(client, 3 * length) == 3 * frame
    assert other.is_ready(0) and other.read_index == 0


def test_an_idle_reader_finds_a_frame_soon(daemon, make_producer, receiver):
    client, producer = receiver(daemon), make_producer()
    delays = []
    for _ in range(21):
        wait_reader_passes(daemon, 2)
        published = time.monotonic()
        producer.publish(b"x")
        client.receive_type(1)
        delays.append(time.monotonic() - published)
    assert statistics.median(delays) < 0.05


def test_waiting_frames_are_taken_without_a_pause_between_them(daemon, make_producer):
    producer = make_producer()

    def seconds_to_take_all(first):
        for slot in range(1, 200):
            producer.fill(slot, b"x", first + slot)
        began = time.monotonic()
        producer.fill(0, b"x", first)
        wait_until(lambda: not producer.is_ready(199), "all frames taken", interval=0)
        return time.monotonic() - began

    # With a pause of 2 ms after each it takes 0.4 s, however quick the machine.
    assert any(seconds_to_take_all(first) < 0.3 for first in range(0, 4000, 200))


def test_each_duplicate_costs_a_pause(daemon, make_producer):
    producer = make_producer()
    for slot in range(1, 200):
        producer.fill(slot, b"x", 5)
    began = time.monotonic()
    producer.fill(0, b"x", 5)
    wait_until(lambda: not producer.is_ready(199), "all slots taken", interval=0)
    assert time.monotonic() - began >= 0.39  # 2 ms after each of 198


def test_switching_the_rings_leaves_each_its_place(board, daemon, make_client, make_producer,
                                                   receiver):
    console, client = Console(board, daemon, make_client("127.0.0.3")), receiver(daemon)
    main, second = make_producer(MAIN), make_producer(TRANSCODING)
    second.identifier = 1000  # both rings share the last identifier

    def indexes():
        return main.read_index, second.read_index

    main.publish(b"main 0")
    second.publish(b"second 0")
    assert client.receive_type(1)[2] == b"main 0"
    assert indexes() == (1, 0)
    console.update("transcoding", "1")
    assert client.receive_type(1)[2] == b"second 0"
    main.publish(b"main 1")
    second.publish(b"second 1")
    assert client.receive_type(1)[2] == b"second 1"
    assert indexes() == (1, 2)
    console.update("transcoding", "0")
    assert client.receive_type(1)[2] == b"main 1"
    second.publish(b"second 2")
    main.publish(b"main 2")
    assert client.receive_type(1)[2] == b"main 2"
    assert indexes() == (3, 2)
    console.update("transcoding", "1")
    assert client.receive_type(1)[2] == b"second 2"
    assert indexes() == (3, 3)


def process_on(board, name):
    """The /proc folder of the board's program of that name; None: there is none."""
    home = os.readlink(f"/proc/{board.pid}/ns/pid")
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if ((process / "comm").read_text() == name + "\n"
                    and os.readlink(process / "ns/pid") == home):
                return process
        except OSError:
            pass  # it has ended
    return None


def sleeps_of(process):
    status = (process / "status").read_text()
    return int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0])


def test_frames_stay_whole_in_a_full_ring(board, daemon, make_producer, receiver, tmp_path):
    """The document's example source writes while the daemon is blocked."""
    frames = [b"\0\0\0\1\x09" + bytes([number % 250 + 2]) * 39995 for number in range(400)]
    stream = b"".join(frames)
    board.write("/tmp/stream", stream)
    (tmp_path / "source.c").write_text(PROGRAMS["ring_source.c"])
    subprocess.run(["gcc", "-O2", "-o", tmp_path / "ring_source", tmp_path / "source.c"],
                   check=True)
    board.write("/tmp/ring_source", (tmp_path / "ring_source").read_bytes()).chmod(0o755)
    client, ring = receiver(daemon), make_producer()
    os.kill(daemon.pid, signal.SIGSTOP)
    source = board.popen("/bin/sh", "-c", "exec /tmp/ring_source < /tmp/stream")

    wait_until(lambda: sum(map(ring.is_ready, range(200))) >= 199, "a full ring", 30)
    process = process_on(board, "ring_source")
    end = sleeps_of(process) + 100
    wait_until(lambda: sleeps_of(process) > end, "a source that waits", 30)
    os.kill(daemon.pid, signal.SIGCONT)
    assert receive_video(client, len(stream)) == stream
    assert source.wait(30) == 0
