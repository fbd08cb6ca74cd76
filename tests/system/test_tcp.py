"""The TCP data server: raw video to one client at a time."""

import os
import random
import re
import select
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest

from board import promised
from conftest import wait_until
from machine import Machine
from test_endpoint import borrow_socket

SO_RCVBUFFORCE = 33
LARGE = 32 << 20
CONNECTED = "TCP server: Client connected with ip address: "
WAITING = "TCP server: Waiting TCP client connection...\n"


def tcp_lines(daemon):
    return [line for line in daemon.errors().splitlines() if line.startswith("TCP server: ")]


def receive_exactly(connection, length):
    received = b""
    while len(received) < length:
        part = connection.recv(length - len(received))
        assert part, "the daemon closed the connection"
        received += part
    return received


def receive_video(client, length):
    received = b""
    while len(received) < length:
        received += client.receive_type(1)[2]
    return received


def reset(connection):
    """Closes at once, with a reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def wait_served(daemon, connection):
    """Waits until the daemon reads what the client sends: from then on it gets all video."""
    served = daemon.errors().count("TCP server: Received 1 bytes ")
    connection.send(b"?")
    daemon.wait_error("TCP server: Received 1 bytes ", served + 1)


def random_frame(length):
    random.seed(length)
    return random.randbytes(length)


@pytest.fixture
def connect(board):
    def make(host="127.0.0.9", receive_buffer=None):
        connection = board.socket(socket.SOCK_STREAM, bind=(host, 0))
        if receive_buffer is not None:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.connect(("127.0.0.1", 5252))
        return connection

    return make


@pytest.fixture
def udp_client(daemon, registered_client):
    client = registered_client(daemon)
    client.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    return client


def test_the_life_of_a_connection_is_told(daemon, connect):
    connection = connect("127.0.0.12")
    daemon.wait_error(CONNECTED)
    connection.sendall(b"0123456789")
    daemon.wait_error("TCP server: Received ")
    connection.sendall(b"abc")
    daemon.wait_error("TCP server: Received ", 2)
    connection.close()
    daemon.wait_error(WAITING, 2)
    connect("127.0.0.13").close()
    daemon.wait_error(WAITING, 3)
    assert tcp_lines(daemon) == [
        WAITING[:-1], CONNECTED + "127.0.0.12", "TCP server: Received 10 bytes from TCP client",
        "TCP server: Received 3 bytes from TCP client",
        WAITING[:-1], CONNECTED + "127.0.0.13", WAITING[:-1]]


def test_what_a_client_sends_is_read_in_pieces_of_60000_bytes_at_most(daemon, connect):
    connection = connect()
    connection.sendall(bytes(400000))

    def sizes():
        return [int(n) for n in re.findall("Received ([0-9]+) bytes from TCP", daemon.errors())]

    wait_until(lambda: sum(sizes()) == 400000, "all bytes read")
    assert max(sizes()) <= 60000
    connection.setblocking(False)
    with pytest.raises(BlockingIOError):
        connection.recv(1)


def test_a_client_that_only_stops_sending_is_let_go(daemon, connect):
    connection = connect()
    daemon.wait_error(CONNECTED)
    connection.shutdown(socket.SHUT_WR)
    daemon.wait_error(WAITING, 2)
    assert connection.recv(100) == b""


def test_a_connection_that_ended_leaves_no_descriptor_behind(daemon, connect):
    def sockets():
        descriptors = [f"/proc/{daemon.pid}/fd/{fd}" for fd in os.listdir(f"/proc/{daemon.pid}/fd")]
        return sum(os.path.islink(fd) and os.readlink(fd)[:7] == "socket:" for fd in descriptors)

    wait_until(lambda: WAITING in daemon.errors(), "the server waiting")
    before = sockets()
    for _ in range(5):
        connection = connect()
        wait_served(daemon, connection)
        assert sockets() == before + 1
        connection.close()
    daemon.wait_error(WAITING, 6)
    assert sockets() == before


def test_a_client_gets_the_bare_frames_and_udp_clients_theirs(daemon, connect, make_producer,
                                                              udp_client):
    connection, producer = connect(), make_producer()
    wait_served(daemon, connection)
    frames = [random_frame(length) for length in (1, 1299, 1300, 1301, 2600, 50000, 300000, 7)]
    for frame in frames:
        producer.publish(frame)
        assert receive_video(udp_client, len(frame)) == frame
    stream = b"".join(frames)
    assert receive_exactly(connection, len(stream)) == stream


def test_a_client_gets_video_without_any_udp_client(daemon, connect, make_producer):
    connection = connect()
    wait_served(daemon, connection)
    make_producer().publish(b"frame")
    assert connection.recv(100) == b"frame"


def test_a_client_gets_nothing_but_video(board, daemon, connect, make_producer):
    connection = connect()
    wait_served(daemon, connection)
    sender = board.socket(bind=("127.0.0.1", 0))
    for port in (5000, 5001, 5003):
        sender.sendto(b"no frame", ("127.0.0.1", port))
    for stream in ("Data", "Video", "Audio"):
        daemon.wait_error(f"{stream} found\n")
    make_producer().publish(b"frame")
    assert connection.recv(100) == b"frame"


def test_frames_from_before_the_connection_are_not_kept(daemon, connect, make_producer,
                                                        udp_client):
    producer = make_producer()
    producer.publish(b"before")
    assert receive_video(udp_client, 6) == b"before"
    connection = connect()
    wait_served(daemon, connection)
    producer.publish(b"after")
    assert connection.recv(100) == b"after"


def test_a_second_client_waits_until_the_first_leaves(daemon, connect, make_producer, udp_client):
    first, producer = connect("127.0.0.11"), make_producer()
    wait_served(daemon, first)
    second = connect("127.0.0.12")
    producer.publish(b"for the first")
    assert first.recv(100) == b"for the first"
    assert receive_video(udp_client, 13) == b"for the first"
    assert daemon.errors().count(CONNECTED) == 1
    first.close()
    wait_served(daemon, second)
    producer.publish(b"for the second")
    assert second.recv(100) == b"for the second"
    assert [line for line in tcp_lines(daemon) if CONNECTED in line] == [
        CONNECTED + "127.0.0.11", CONNECTED + "127.0.0.12"]


def test_sixteen_clients_may_wait_and_are_served_in_turn(daemon, connect, make_producer):
    clients, producer = [connect(f"127.0.0.{n}") for n in range(10, 27)], make_producer()
    for number, client in enumerate(clients, 1):
        wait_served(daemon, client)
        producer.publish(b"for client %d" % number)
        assert client.recv(100) == b"for client %d" % number
        client.close()


def test_clients_that_leave_in_mid_frame_do_no_harm(daemon, connect, make_producer, udp_client):
    producer, frame = make_producer(), random_frame(300000)
    for number in range(1, 51):
        connection = connect(receive_buffer=5000 * (number % 3))
        wait_served(daemon, connection)
        producer.publish(frame)
        connection.recv(1 + 1000 * (number % 7))
        if number % 2:
            reset(connection)
        else:
            connection.close()
        assert receive_video(udp_client, len(frame)) == frame
        daemon.wait_error(WAITING, number + 1)
    assert daemon.alive()


def whole_frame(number, length=60000):
    """A frame that begins with its number and its length."""
    return struct.pack("<II", number, length) + bytes(length - 8)


class Stalled:
    """A client that does not read, and frames until the daemon has to drop some."""

    def __init__(self, connection, producer, udp_client, daemon):
        self.connection, self.producer, self.udp_client = connection, producer, udp_client
        self.published = 0
        self.slowest = 0.0
        wait_until(lambda: self._publish() and "Dropped " in daemon.errors(), "a frame dropped", 30)

    def _publish(self, count=20):
        for _ in range(count):
            self.published += 1
            frame = whole_frame(self.published)
            begin = time.monotonic()
            self.producer.publish(frame)
            self.udp_client.register()
            assert receive_video(self.udp_client, len(frame)) == frame
            self.slowest = max(self.slowest, time.monotonic() - begin)
        return True

    def go_on(self):
        """Reads what was kept, then one more frame; returns the numbers of all."""
        numbers = []
        while True:
            if not numbers or not select.select([self.connection], [], [], 1)[0]:
                self._publish(1)
            number, length = struct.unpack("<II", receive_exactly(self.connection, 8))
            assert receive_exactly(self.connection, length - 8) == bytes(length - 8)
            numbers.append(number)
            if number == self.published:
                return numbers


@pytest.fixture
def stalled(daemon, connect, make_producer, udp_client):
    connection = connect(receive_buffer=2000)
    wait_served(daemon, connection)
    return Stalled(connection, make_producer(), udp_client, daemon)


def test_a_client_that_does_not_read_costs_udp_clients_nothing(stalled):
    assert stalled.slowest < promised(1.0)


def test_a_client_that_does_not_read_for_a_while_goes_on_with_whole_frames(daemon, stalled):
    # Longer than a send may take.
    wait_until(lambda end=time.monotonic() + 3: time.monotonic() > end, "three seconds", 5, 0.1)
    stalled.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, LARGE)
    numbers = stalled.go_on()
    assert numbers == sorted(set(numbers))
    assert numbers[:30] == list(range(1, 31))
    assert len(numbers) < stalled.published, "none was dropped"
    assert daemon.errors().count("TCP server: Dropped ") == 1, "one line a minute at most"


@pytest.mark.parametrize("repetition", range(3))
def test_a_client_that_leaves_while_the_daemon_waits_for_it_does_no_harm(daemon, connect, stalled,
                                                                         repetition):
    reset(stalled.connection)
    daemon.wait_error(WAITING, 2)
    connection = connect()
    wait_served(daemon, connection)
    stalled.producer.publish(b"next")
    assert connection.recv(100) == b"next", "and nothing of before"


def test_a_client_that_stops_sending_while_the_daemon_waits_for_it_is_let_go(daemon, stalled):
    stalled.connection.shutdown(socket.SHUT_WR)
    daemon.wait_error(WAITING, 2, timeout=1.9)


@pytest.mark.parametrize("has_video", [False, True])
def test_a_client_that_vanishes_is_noticed(board, daemon, make_producer, has_video):
    with Machine(board) as machine:
        connection = machine.socket(socket.SOCK_STREAM)
        connection.connect((machine.board_address, 5252))
        wait_served(daemon, connection)
        producer, began = make_producer(), time.monotonic()
        machine.cut()

        def noticed():
            if has_video:
                producer.publish(whole_frame(1, 5000))
            return daemon.errors().count(WAITING) == 2

        wait_until(noticed, "the client's end", 30, interval=0.1)
        assert time.monotonic() - began > 10


def test_a_client_that_only_does_not_read_is_kept(daemon, stalled):
    # Longer than it takes to detect a lost client.
    end = time.monotonic() + 31
    while time.monotonic() < end:
        stalled.udp_client.register()
        stalled.udp_client.receive_any()  # ten status records a second
    assert stalled.go_on()[:30] == list(range(1, 31))
    assert daemon.errors().count(WAITING) == 1


def tcp_inodes(daemon):
    """The inodes of the daemon's listener and of its connection, if any."""
    rows = [line.split() for line in
            Path(f"/proc/{daemon.pid}/net/tcp").read_text().splitlines()[1:]]
    ours = {row[3]: row[9] for row in rows if row[1].endswith(":1484")}
    return [ours[state] for state in ("0A", "01") if state in ours]


def test_the_sockets_options(board, daemon, connect):
    connection = connect()
    wait_served(daemon, connection)
    asked = board.socket(socket.SOCK_STREAM)
    asked.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 3000000)
    inodes = tcp_inodes(daemon)
    assert len(inodes) == 2
    for inode in inodes:
        with borrow_socket(daemon, inode) as its:
            assert its.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY) == 1
            assert its.getsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE) == 1
            # What the kernel gives when asked for 3000000 bytes.
            assert (its.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF)
                    == asked.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF))
            timeout = its.getsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, 16)
            assert struct.unpack("ll", timeout) == (2, 0)
            assert os.get_blocking(its.fileno())


def test_the_backlog(daemon):
    with borrow_socket(daemon, tcp_inodes(daemon)[0]) as listener:
        info = listener.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 104)
    # A listener's "unacked" and "sacked": how many are waiting, and the maximum.
    assert struct.unpack_from("II", info, 24) == (0, 16)


def test_a_failing_accept_ends_the_process_with_status_1(daemon, connect):
    connection = connect()
    wait_served(daemon, connection)
    subprocess.run(["prlimit", f"--pid={daemon.pid}", "--nofile=3:3"], check=True)
    connection.close()
    assert daemon.wait_exit() == 1
    assert daemon.errors().count("TCP server: Could not open a socket to accept data\n") == 1


def test_sockets_and_rings_are_closed_in_helper_programs(board, start, connect,
                                                         registered_client):
    helper = board.write("/sys/board/app/cams/kill-cams.sh",
                         "#!/sys/board/sh\nls -l /proc/$$/fd > /run/fds\necho > /run/done\n")
    helper.chmod(0o755)
    board.write("/run/gpio/4", "1")
    daemon = start("recording_gpio=4\n", gpio=True)
    registered_client(daemon)
    connect()
    daemon.wait_error(CONNECTED)
    board.write("/run/gpio/4", "0")
    wait_until(board.path("/run/done").exists, "the helper program's run")
    listing = board.path("/run/fds").read_text()
    assert "kill-cams.sh" in listing
    assert "socket:" not in listing and "framebuffer" not in listing, listing


def test_a_restart_takes_the_port_again_in_spite_of_connections_left(start, connect):
    first = start()
    left = connect()
    first.wait_error(CONNECTED)
    first.kill()
    assert left.recv(100) == b""
    second = start()
    connect()
    second.wait_error(CONNECTED)
