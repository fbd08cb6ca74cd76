"""The TCP data server: raw video to one client at a time."""

import os
import random
import re
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest

from conftest import wait_until
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
    """Closes at once, without a farewell."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def wait_served(daemon, connection):
    """Waits until the daemon reads what the client sends: then the client gets all video."""
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


def stall(connection, producer, udp_client):
    """Publishes until the client that does not read makes the daemon wait for the first time."""
    expected = 0
    while True:
        producer.publish(bytes(100000))
        expected += 100000
        while expected > 0:
            try:
                expected -= len(udp_client.receive_type(1, timeout=1.4)[2])
            except TimeoutError:
                return expected


@pytest.mark.parametrize("repetition", range(3))
def test_a_client_that_leaves_while_the_daemon_waits_for_it_does_no_harm(
        daemon, connect, make_producer, udp_client, repetition):
    connection, producer = connect(receive_buffer=2000), make_producer()
    wait_served(daemon, connection)
    expected = stall(connection, producer, udp_client)
    reset(connection)
    began = time.monotonic()
    assert receive_video(udp_client, expected) == bytes(expected)
    assert time.monotonic() - began < 1.9
    daemon.wait_error(WAITING, 2)
    connection = connect()
    wait_served(daemon, connection)
    producer.publish(b"next")
    assert connection.recv(100) == b"next"


def test_a_client_that_never_reads_costs_two_seconds_per_block(daemon, connect, make_producer,
                                                               udp_client):
    connection, producer = connect(receive_buffer=2000), make_producer()
    wait_served(daemon, connection)
    expected = stall(connection, producer, udp_client)
    waits = []
    last, end = None, time.monotonic() + 40
    # The kernels may still find room for some blocks; then each has to wait.
    while not (len(waits) > 1 and all(1.5 < wait < 2.8 for wait in waits[-2:])):
        assert time.monotonic() < end, waits
        if expected < 10000:
            producer.publish(bytes(100000))
            expected += 100000
        udp_client.register()  # or it would be dropped after ten seconds of this
        expected -= len(udp_client.receive_type(1)[2])
        now = time.monotonic()
        if last is not None:
            waits.append(now - last)
        last = now
    connection.close()
    began = time.monotonic()
    assert receive_video(udp_client, expected) == bytes(expected)
    producer.publish(b"all is well")
    assert receive_video(udp_client, 11) == b"all is well"
    assert time.monotonic() - began < 1.9


def tcp_inodes(daemon):
    """The inodes of the daemon's listener and of its connection, if there is one."""
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
            # As much as the kernel gives to one who asks for 3000000 bytes.
            assert (its.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF)
                    == asked.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF))
            timeout = its.getsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, 16)
            assert struct.unpack("ll", timeout) == (2, 0)
            assert os.get_blocking(its.fileno())


def test_the_backlog(daemon):
    with borrow_socket(daemon, tcp_inodes(daemon)[0]) as listener:
        info = listener.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 104)
    # A listener's "unacked" and "sacked": how many wait, how many may.
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
