"""Receivers behind slow, dead and missing links do not delay the others."""

import re
import socket
import subprocess
import threading
import time

import pytest

from conftest import Client, is_status, thread_of, wait_until
from machine import Machine

SO_RCVBUFFORCE = 33
LARGE = 64 << 20
SLOW = "1kbit"
DROPPED = "Dropped on the way to slow receivers: "
FRAME = bytes(range(256)) * 400  # 102,400 bytes: 79 blocks
FRAMES_A_SECOND = 40


class FarClient(Client):
    """A client on another machine."""

    def __init__(self, machine):
        self.machine = machine
        self.socket = machine.socket()
        self.socket.bind((machine.address, 0))
        self.host, self.port = self.socket.getsockname()

    def send(self, payload, header=b"R" + bytes(11)):
        self.socket.sendto(header + payload, (self.machine.board_address, 5252))

    def receive_any(self, timeout=20.0):
        self.socket.settimeout(timeout)
        datagram, sender = self.socket.recvfrom(65535)
        assert sender == (self.machine.board_address, 5252)
        return datagram[1], int.from_bytes(datagram[4:8], "little"), datagram[12:]


@pytest.fixture
def make_machine(board):
    made = []

    def make():
        made.append(Machine(board, len(made) + 1))
        return made[-1]

    yield make
    for machine in made:
        machine.close()


@pytest.fixture
def far_client(make_machine):
    def make(daemon):
        client = FarClient(make_machine())
        client.register()
        daemon.wait_error(f"New client connected from {client.host}:{client.port} ")
        return client

    return make


@pytest.fixture
def near_client(registered_client):
    def make(daemon, host="127.0.0.2"):
        client = registered_client(daemon, host)
        client.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
        return client

    return make


class Video:
    """Publishes frames at a steady rate and registers all clients again, on its own thread."""

    def __init__(self, producer, *clients):
        self.published = 0
        self._clients = clients
        self._producer = producer
        self._ends = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ends.set()
        self._thread.join()

    def _run(self):
        start = time.monotonic()
        while not self._ends.wait(max(start + self.published / FRAMES_A_SECOND
                                      - time.monotonic(), 0)):
            if self.published % FRAMES_A_SECOND == 0:
                for client in self._clients:
                    client.register()
            self._producer.wait_taken(self._producer.next_slot, 60)
            self._producer.publish(FRAME)
            self.published += 1


def what_comes(client, seconds):
    """The packets received in that time: (status records, bytes of video)."""
    status, video, end = 0, 0, time.monotonic() + seconds
    while True:
        try:
            packet = client.receive_any(max(end - time.monotonic(), 0.001))
        except TimeoutError:
            return status, video
        status += is_status(packet)
        video += len(packet[2]) if packet[0] == 1 else 0


def assert_served(near, video, seconds=4):
    """The near client gets its share; that of a busy machine, whose own clock is the publisher."""
    published = video.published
    status, received = what_comes(near, seconds)
    assert status >= 5 * seconds
    assert received >= (video.published - published) * len(FRAME) / 2


def test_one_client_behind_a_slow_link_costs_the_others_nothing(daemon, far_client, near_client,
                                                                make_producer):
    far, near = far_client(daemon), near_client(daemon)
    far.machine.slow_down(SLOW)
    with Video(make_producer(), far, near) as video:
        what_comes(near, 3)  # until the queue has its full length
        assert_served(near, video)
        daemon.wait_error(DROPPED)
    line = next(line for line in daemon.errors().splitlines() if line.startswith(DROPPED))
    assert re.fullmatch(rf"{DROPPED}\d+ for {far.host}:{far.port}", line)
    assert daemon.errors().count(DROPPED) == 1, "one line a minute at most"


def test_three_clients_behind_slow_links_cost_the_others_nothing(daemon, far_client, near_client,
                                                                make_producer):
    far, near = [far_client(daemon) for _ in range(3)], near_client(daemon)
    with Video(make_producer(), near, *far) as video:
        for client in far:  # one after the other: each fills its own socket
            client.machine.slow_down(SLOW)
            what_comes(near, 1)
        what_comes(near, 2)
        assert_served(near, video)


def test_a_client_behind_a_link_that_is_too_slow_for_video_gets_some_and_costs_nothing(
        daemon, far_client, near_client, make_producer):
    far, near = far_client(daemon), near_client(daemon)
    far.machine.slow_down("5mbit")
    with Video(make_producer(), far, near) as video:
        what_comes(near, 3)
        assert_served(near, video)
    assert what_comes(far, 1)[1] > 100000


def test_a_client_whose_link_gets_well_is_served_again(daemon, far_client, near_client,
                                                       make_producer):
    far, near = far_client(daemon), near_client(daemon)
    far.machine.slow_down(SLOW)
    producer = make_producer()
    with Video(producer, far, near):
        daemon.wait_error(DROPPED)
    far.machine.speed_up()
    what_comes(far, 1)
    far.register()
    far.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    # Its packets have the daemon's port and rising numbers, whatever socket they leave through.
    last = None
    for _ in range(20):
        producer.publish(FRAME)
        received = b""
        while len(received) < len(FRAME):
            kind, sequence, payload = far.receive_any()
            assert last is None or sequence > last
            last = sequence
            received += payload if kind == 1 else b""
        assert received == FRAME


def test_what_clients_send_arrives_while_one_is_slow(board, daemon, far_client, near_client,
                                                     make_producer):
    far, near = far_client(daemon), near_client(daemon)
    far.machine.slow_down(SLOW)
    with Video(make_producer(), far, near):
        daemon.wait_error(DROPPED)
        for number in range(20):
            newcomer = Client(board, f"127.0.2.{number + 1}")
            newcomer.ask_info()
            assert newcomer.receive(2.0)[2][0] == 1
        far.remove()
        daemon.wait_error(f"Client {far.host}:{far.port} removed")


def test_a_receiver_without_a_route_keeps_nobody_from_getting_packets(daemon, far_client,
                                                                      near_client, make_producer):
    far, near = far_client(daemon), near_client(daemon)
    far.machine.on_board("ip", "link", "set", far.machine.device, "down")
    make_producer().publish(FRAME)
    received = b""
    while len(received) < len(FRAME):
        received += near.receive_type(1)[2]
    assert received == FRAME
    wait_until(lambda: is_status(near.receive_any()), "a status record")


def test_a_dead_restream_receiver_costs_clients_and_receivers_nothing(
        board, start, make_machine, near_client, make_producer):
    machine = make_machine()
    receiver = board.socket(bind=("127.0.0.30", 6000))
    receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    daemon = start(f"stream_udp_enabled=1\nstream_udp_blocksize=1300\nstream_udp_clients="
                   f"{machine.address}:6000,127.0.0.30:6000\n")
    near = near_client(daemon)
    machine.slow_down(SLOW)
    with Video(make_producer(), near) as video:
        what_comes(near, 3)
        assert_served(near, video)
        receiver.setblocking(False)
        while True:
            try:
                _, sender = receiver.recvfrom(65535)
            except BlockingIOError:
                break
            assert sender == ("127.0.0.1", 5001)
        receiver.settimeout(5)
        begin, published, received = time.monotonic(), video.published, 0
        while time.monotonic() < begin + 2:
            received += len(receiver.recv(65535))
        assert received >= (video.published - published) * len(FRAME) / 2
    assert f" for {machine.address}:6000" in daemon.errors()


def test_a_packet_goes_to_all_its_receivers_with_one_system_call(board, daemon, near_client,
                                                                make_producer, tmp_path):
    clients = [near_client(daemon, f"127.0.0.{n}") for n in (2, 3, 4)]
    trace = tmp_path / "trace"
    reader = thread_of(daemon, "frame-reader")
    with subprocess.Popen(["strace", "-e", "trace=sendmmsg,sendto,sendmsg", "-s", "1", "-o", trace,
                           "-p", reader.name], stderr=subprocess.PIPE) as strace:
        assert b"attached" in strace.stderr.readline()
        make_producer().publish(FRAME[:13000])
        for client in clients:
            for _ in range(10):
                client.receive_type(1)
        wait_until(lambda: trace.read_text().count(" = ") >= 10, "the calls")
        strace.terminate()
    calls = [line for line in trace.read_text().splitlines() if " = " in line]
    assert all(re.match(r'sendmmsg\(.*iov_base="R".* = 3$', line) for line in calls), calls
    assert len(calls) == 10


def arrivals(client, count):
    """When the kernel received the next `count` packets of video, in seconds."""
    moments = []
    while len(moments) < count:
        datagram, [(_, _, stamp)], _, _ = client.socket.recvmsg(65535, 100)
        if datagram[1] == 1:
            moments.append(int.from_bytes(stamp[:8], "little")
                           + int.from_bytes(stamp[8:16], "little") / 1e9)
    return moments


def span_of(moments):
    return moments[-1] - moments[0]


SO_TIMESTAMPNS = 35
LARGEST, BLOCKS = bytes(290000), 224
# 40 at once, then 8 after each pause. The first may be late and the rest then catches up, but of a
# few frames at least one is no faster than this.
LEAST_SPAN = (BLOCKS - 48) * 30e-6


def test_a_large_frame_comes_no_faster_than_a_block_in_30_us(daemon, near_client, make_producer):
    near, producer = near_client(daemon), make_producer()
    near.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    spans = []
    for _ in range(5):
        producer.publish(LARGEST)
        spans.append(span_of(arrivals(near, BLOCKS)))
    assert max(spans) >= LEAST_SPAN


def test_a_large_frame_comes_to_a_restream_receiver_at_the_same_pace(board, start, make_producer):
    receiver = board.socket(bind=("127.0.0.30", 6000))
    receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    receiver.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
    start("stream_udp_enabled=1\nstream_udp_blocksize=1300\nstream_udp_clients=127.0.0.30:6000\n")
    producer, frame = make_producer(), b"\1" * len(LARGEST)  # what `arrivals` looks at

    class Receiver:
        socket = receiver

    spans = []
    for _ in range(5):
        producer.publish(frame)
        spans.append(span_of(arrivals(Receiver, BLOCKS)))
    assert max(spans) >= LEAST_SPAN


def test_the_pace_never_makes_the_daemon_fall_behind(board, start, make_producer):
    receiver = board.socket(bind=("127.0.0.30", 6000), timeout=20)
    receiver.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    others = ",".join(f"127.0.0.3{n}:6000" for n in range(1, 10))
    start("stream_udp_enabled=1\nstream_udp_blocksize=65000\n"
          f"stream_udp_clients={others},127.0.0.30:6000\n")
    producer, frames, frame = make_producer(), 150, bytes(260000)
    for number in range(1, frames):
        producer.fill(producer.next_slot + number, frame, number + 1)
    begin = time.monotonic()
    producer.publish(frame)  # the one in front; now all of them are relayed
    for _ in range(frames * len(frame) // 65000):
        receiver.recv(65535)
    # At the pace it would take 9 seconds: 30 us for 1300 bytes to each.
    assert time.monotonic() - begin < 6
