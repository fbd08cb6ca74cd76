"""Video: its blocks to the clients, and how its presence is detected."""

import random
import socket
import time
from pathlib import Path

import pytest

from conftest import wait_until

SO_RCVBUFFORCE = 33
LARGE = 32 << 20
END = b"end of test"


def receive_blocks(client, length):
    """The payloads of the next video packets that add up to `length` bytes."""
    blocks = []
    while sum(map(len, blocks)) < length:
        blocks.append(client.receive_type(1)[2])
    return blocks


def next_or_none(receiver):
    try:
        return receiver.recv(100)
    except BlockingIOError:
        return None


def count(daemon, event):
    return daemon.errors().count(f"Video {event}\n")


def send_telemetry(board, payload):
    board.socket(bind=("127.0.0.7", 0)).sendto(payload, ("127.0.0.1", 5000))


def wait_received(daemon, port):
    """Waits until the daemon has read all datagrams sent to `port`."""
    def pending():
        table = Path(f"/proc/{daemon.pid}/net/udp").read_text().splitlines()[1:]
        line = next(line.split() for line in table if line.split()[1].endswith(f":{port:04X}"))
        return int(line[4].split(":")[1], 16)

    wait_until(lambda: pending() == 0, f"datagrams on {port} read")


def wait_longer_than_a_loss_takes(board, daemon):
    """Telemetry that stops now is lost after 2 to 3 seconds, video after 1 to 2."""
    lost = daemon.errors().count("Data lost\n")
    send_telemetry(board, b"stops now")
    daemon.wait_error("Data lost\n", lost + 1)


@pytest.fixture
def presence(board):
    """A socket of the video source process, to show the daemon that it is alive."""
    opened = board.socket(bind=("127.0.0.1", 0))
    opened.connect(("127.0.0.1", 5001))
    return opened


@pytest.mark.parametrize("length, blocks", [
    (1, [1]), (1299, [1299]), (1300, [1300]), (1301, [1300, 1]), (2599, [1300, 1299]),
    (2600, [1300, 1300]), (2601, [1300, 1300, 1]), (3900, [1300] * 3),
    (300000, [1300] * 230 + [1000]),
])
def test_a_frame_is_relayed_in_blocks_of_1300_bytes(daemon, registered_client, make_producer,
                                                    length, blocks):
    client, producer = registered_client(daemon), make_producer()
    client.socket.setsockopt(1, SO_RCVBUFFORCE, LARGE)
    random.seed(length)
    frame = random.randbytes(length)
    producer.publish(frame)
    producer.publish(END)
    received = receive_blocks(client, length + len(END))
    assert list(map(len, received)) == blocks + [len(END)]
    assert b"".join(received) == frame + END


def test_frames_of_all_lengths_arrive_whole_and_in_order(daemon, registered_client, make_producer):
    clients = [registered_client(daemon, host=f"127.0.0.{n}") for n in (2, 3)]
    producer = make_producer()
    random.seed(2)
    frames = [random.randbytes(length) for length in range(1, 8000, 41)]
    for frame in frames:
        producer.publish(frame)
        for client in clients:
            assert b"".join(receive_blocks(client, len(frame))) == frame


def test_clients_without_media_get_no_video(board, daemon, registered_client, make_producer):
    data_only = registered_client(daemon, host="127.0.0.3", mode=b"\1")
    client, producer = registered_client(daemon), make_producer()
    producer.publish(b"video")
    assert client.receive_type(1)[2] == b"video"
    send_telemetry(board, END)
    packets = [data_only.receive()]
    while packets[-1][2] != END:
        packets.append(data_only.receive())
    assert [packet for packet in packets if packet[0] != 0] == []


def test_the_display_process_gets_no_video(board, daemon, registered_client, make_producer):
    display = board.socket(bind=("127.0.0.1", 5253))
    client, producer = registered_client(daemon), make_producer()
    producer.publish(b"video")
    assert client.receive_type(1)[2] == b"video"
    send_telemetry(board, END)
    packets = [display.recv(65535)]
    while packets[-1][12:] != END:
        packets.append(display.recv(65535))
    assert {packet[1] for packet in packets} == {0}


def test_nothing_is_said_of_video_before_there_is_any(board, daemon):
    wait_longer_than_a_loss_takes(board, daemon)
    assert "Video found" not in daemon.errors() and "Video lost" not in daemon.errors()


def test_video_is_found_with_the_first_frame_and_lost_after_the_last(daemon, make_producer):
    producer = make_producer()

    def publish():
        now, slot = time.monotonic(), producer.next_slot
        producer.publish(b"x")
        producer.wait_taken(slot)
        return now

    publish()
    daemon.wait_error("Video found\n")
    daemon.wait_error("Video lost\n")
    # The next check is a second away. Frames for 0.6 seconds make the last of them 0.4 seconds
    # old at that check and 1.4 at the one after it.
    first_loss = last_frame = time.monotonic()
    while last_frame < first_loss + 0.6:
        last_frame = publish()
        time.sleep(0.01)
        assert count(daemon, "lost") == 1
    assert count(daemon, "found") == 2
    daemon.wait_error("Video lost\n", 2)
    assert 1.0 <= time.monotonic() - last_frame < 2.4
    publish()
    daemon.wait_error("Video found\n", 3)
    assert count(daemon, "lost") == 2


def test_frames_that_keep_coming_keep_video_present(daemon, make_producer):
    producer = make_producer()
    end = time.monotonic() + 2.5
    while time.monotonic() < end:
        slot = producer.next_slot
        producer.publish(b"x")
        producer.wait_taken(slot)
        time.sleep(0.02)
    assert count(daemon, "found") == 1 and count(daemon, "lost") == 0


def test_a_frame_counts_from_when_it_was_taken(board, start, make_producer):
    """However long its relay takes: here three seconds, because its blocks have three bytes."""
    receiver = board.socket(bind=("127.0.0.30", 6000))
    receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 2 * LARGE)
    daemon = start("stream_udp_enabled=1\nstream_udp_blocksize=3\n"
                   "stream_udp_clients=127.0.0.30:6000\n")
    make_producer().publish(bytes(300000))
    daemon.wait_error("Video lost\n")
    receiver.setblocking(False)
    received = sum(1 for _ in iter(lambda: next_or_none(receiver), None))
    assert received < 100000, "its relay is under way"
    receiver.settimeout(5)
    for _ in range(100000 - received):
        receiver.recv(100)
    wait_longer_than_a_loss_takes(board, daemon)
    assert count(daemon, "lost") == count(daemon, "found") == 1


def test_video_is_lost_once(board, daemon, make_producer):
    make_producer().publish(b"x")
    daemon.wait_error("Video lost\n")
    wait_longer_than_a_loss_takes(board, daemon)
    assert count(daemon, "lost") == 1


def test_the_first_datagram_alone_finds_video(daemon, presence):
    presence.send(b"x")
    daemon.wait_error("Video found\n")
    for number in range(50):
        presence.send(b"%d" % number)
    wait_received(daemon, 5001)
    assert count(daemon, "found") == 1


def test_a_datagram_alone_is_never_followed_by_a_loss(board, daemon, presence):
    presence.send(b"x")
    daemon.wait_error("Video found\n")
    wait_longer_than_a_loss_takes(board, daemon)
    presence.send(b"after more than the silence the endpoint allows")
    wait_received(daemon, 5001)
    assert count(daemon, "lost") == 0 and count(daemon, "found") == 1


def test_after_a_loss_only_frames_find_video(daemon, presence, make_producer):
    producer = make_producer()
    presence.send(b"x")
    daemon.wait_error("Video found\n")
    producer.publish(b"a frame while video is present")
    daemon.wait_error("Video lost\n")
    assert count(daemon, "found") == 1
    for _ in range(5):
        presence.send(b"x")
    wait_received(daemon, 5001)
    assert count(daemon, "found") == 1
    producer.publish(b"another frame")
    daemon.wait_error("Video found\n", 2)


def test_the_first_datagram_makes_the_daemon_forget_the_last_frame(board, daemon, presence,
                                                                   make_producer):
    producer = make_producer()
    producer.publish(b"x")
    daemon.wait_error("Video found\n")
    presence.send(b"x")
    daemon.wait_error("Video found\n", 2)
    wait_longer_than_a_loss_takes(board, daemon)
    assert count(daemon, "lost") == 0
    producer.publish(b"y")
    daemon.wait_error("Video lost\n")
    assert count(daemon, "found") == 2


def test_later_datagrams_do_not_delay_a_loss(daemon, presence, make_producer):
    presence.send(b"x")
    daemon.wait_error("Video found\n")
    make_producer().publish(b"x")

    def tell():
        presence.send(b"still there")
        return count(daemon, "lost")

    wait_until(tell, "video lost", timeout=4, interval=0.05)


@pytest.mark.parametrize("content", [
    b"\0", b"R" + bytes(11), b"R\1\4\0" + bytes(8) + b"\2\0xx", b'{"cmd":"restart"}', b"!{}",
    b"\xff" * 60000, b"\xff" * 60001, b"\xff" * 65507], ids=lambda content: repr(content)[:20])
def test_no_datagram_to_the_video_port_is_relayed(board, daemon, presence, registered_client,
                                                  make_producer, content):
    display = board.socket(bind=("127.0.0.1", 5253))
    client, producer = registered_client(daemon), make_producer()
    presence.send(content)
    presence.send(b"second")
    wait_received(daemon, 5001)
    daemon.wait_error("Video found\n")
    producer.publish(b"frame")
    packets = [client.receive()]
    while packets[-1][2] != b"frame":
        packets.append(client.receive())
    assert len([packet for packet in packets if packet[0] == 1]) == 1
    send_telemetry(board, END)
    seen = [display.recv(65535)]
    while seen[-1][12:] != END:
        seen.append(display.recv(65535))
    assert content not in [packet[12:] for packet in seen]
    assert daemon.alive()


def test_an_empty_datagram_to_the_video_port_ends_the_process_with_status_3(daemon, presence):
    presence.send(b"")
    assert daemon.wait_exit() == 3
    assert daemon.errors().endswith("UDP read failed\n")
