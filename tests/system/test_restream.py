"""Restreaming: raw frames to the receivers in the configured list."""

import random
import socket
import subprocess

import pytest

from commands import Console
from test_dispatcher import said

IP_PKTINFO = 8
SO_RCVBUFFORCE = 33
LARGE = 32 << 20
RECEIVER = ("127.0.0.30", 6000)
END = b"end of test"


def configuration(clients=f"{RECEIVER[0]}:{RECEIVER[1]}", blocksize=1000, enabled=1):
    lines = [f"stream_udp_enabled={enabled}", f"stream_udp_clients={clients}",
             f"stream_udp_blocksize={blocksize}"]
    return "\n".join(line for line in lines if "=None" not in line) + "\n"


def cut(frame, size):
    return [frame[at:at + size] for at in range(0, len(frame), size)]


def random_frame(length):
    random.seed(length)
    return random.randbytes(length)


@pytest.fixture
def receiver(board):
    opened = board.socket(bind=RECEIVER)
    opened.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    return opened


@pytest.fixture
def receive_all(board):
    """Receives on port 6000 of every host, as (host, datagram)."""
    opened = board.socket(bind=("0.0.0.0", 6000))
    opened.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    opened.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)

    def receive(count):
        received = []
        for _ in range(count):
            data, [(_, _, info)], _, sender = opened.recvmsg(65535, 100)
            assert sender == ("127.0.0.1", 5001)
            received.append((socket.inet_ntoa(info[8:12]), data))
        return received

    return receive


def receive_until(opened, last):
    received = []
    while True:
        datagram, sender = opened.recvfrom(65535)
        assert sender == ("127.0.0.1", 5001)
        if datagram == last:
            return received
        received.append(datagram)


def assert_silent(producer, *sockets):
    """Checks that nothing was sent to the sockets for the frames published so far."""
    # When the daemon takes the next frame, it is done with those before.
    slot = producer.next_slot
    producer.publish(b"the next frame")
    producer.wait_taken(slot)
    for opened in sockets:
        opened.setblocking(False)
        with pytest.raises(BlockingIOError):
            opened.recv(65535)


@pytest.mark.parametrize("blocksize, length", [
    (1000, 1), (1000, 999), (1000, 1000), (1000, 1001), (1000, 3000), (1000, 3001),
    (1, 1), (1, 5), (1300, 20000), (7, 1000), (65507, 300000), (65507, 65507),
    (2147483647, 65507),
])
def test_a_frame_is_sent_raw_in_blocks_of_the_size_set(start, make_producer, receiver, blocksize,
                                                       length):
    start(configuration(blocksize=blocksize))
    producer, frame = make_producer(), random_frame(length)
    producer.publish(frame)
    producer.publish(b"!")
    expected = cut(frame, blocksize)
    assert [receiver.recv(65535) for _ in expected] == expected
    assert receiver.recvfrom(65535) == (b"!", ("127.0.0.1", 5001))


def test_the_lengths_of_blocks_are_16_bits_wide(start, make_producer, receiver):
    start(configuration(blocksize=65536 + 1400))
    producer, frame = make_producer(), random_frame(300000)
    producer.publish(frame)
    producer.publish(frame[:66936])
    producer.publish(frame[:66000])
    producer.publish(END)
    step = 65536 + 1400
    assert receive_until(receiver, END) == [
        *(frame[at:at + 1400] for at in range(0, 4 * step, step)), frame[4 * step:],
        frame[:1400], frame[:66000 - 65536]]


def test_no_datagram_is_empty(start, make_producer, receiver):
    """Of a length of 65536 sixteen bits are left: 0."""
    start(configuration(blocksize=65536))
    producer, frame = make_producer(), random_frame(200000)
    producer.publish(frame)
    producer.publish(frame[:65536])
    producer.publish(frame[:131072])
    producer.publish(END)
    assert receive_until(receiver, END) == [frame[3 * 65536:]]


def test_a_block_too_long_for_a_datagram_is_skipped(start, make_producer, receiver,
                                                    registered_client):
    daemon = start(configuration(blocksize=65520))
    client, producer, frame = registered_client(daemon), make_producer(), random_frame(70000)
    producer.publish(frame)
    producer.publish(END)
    assert receive_until(receiver, END) == [frame[65520:]]
    video = b""
    while len(video) < len(frame):
        video += client.receive_type(1)[2]
    assert video == frame


def test_receivers_are_served_in_the_order_of_the_list(start, make_producer, receive_all):
    hosts = ["127.0.0.33", "127.0.0.31", "127.0.0.34", "127.0.0.31"]
    start(configuration(",".join(f"{host}:6000" for host in hosts), 400))
    producer, frame = make_producer(), random_frame(1000)
    producer.publish(frame)
    producer.publish(END)
    assert receive_all(16) == [
        *((host, block) for host in hosts for block in cut(frame, 400)),
        *((host, END) for host in hosts)]


def test_receivers_have_ports_of_their_own(board, start, make_producer, receiver):
    other = board.socket(bind=(RECEIVER[0], 7000))
    start(configuration(f"{RECEIVER[0]}:6000,{RECEIVER[0]}:7000"))
    make_producer().publish(b"frame")
    assert receiver.recv(65535) == other.recv(65535) == b"frame"


def test_ten_receivers_are_served_and_no_more(start, make_producer, receive_all):
    hosts = [f"127.0.1.{n}" for n in range(1, 12)]
    start(configuration(",".join(f"{host}:6000" for host in hosts)))
    producer = make_producer()
    producer.publish(b"one")
    producer.publish(b"two")
    assert receive_all(20) == [(host, frame) for frame in (b"one", b"two") for host in hosts[:10]]


@pytest.mark.parametrize("bad", ["localhost", "camera.local", "300.1.1.1", "", "%s%n"])
def test_a_host_that_is_no_address_is_skipped(start, make_producer, receive_all, bad):
    start(configuration(f"127.0.0.31:6000,{bad}:6000,127.0.0.32:6000"))
    producer = make_producer()
    producer.publish(b"one")
    producer.publish(b"two")
    assert receive_all(4) == [(f"127.0.0.{host}", frame) for frame in (b"one", b"two")
                              for host in (31, 32)]


# What is not sent, and what is said about it.

def complaints(daemon):
    return said(daemon, "Restreaming sends", "Restreaming to")


BAD_SIZE = "Restreaming sends nothing: the block size is {}"
BAD_HOST = "Restreaming sends nothing to receiver {}: the host is not an address"
REFUSED = "Restreaming to {} is refused: it is the daemon's own port"

WRONG = [
    ({"blocksize": 0}, [BAD_SIZE.format(0)]),
    ({"blocksize": None}, [BAD_SIZE.format(0)]),
    ({"blocksize": -5, "clients": "localhost:1"}, [BAD_SIZE.format(-5), BAD_HOST.format(0)]),
    ({"clients": "10.0.0.1:7,camera:8,300.1.1.1:9"}, [BAD_HOST.format("1, 2")]),
    ({"clients": "10.0.0.1:5000,127.0.0.77:5252"}, [REFUSED.format("127.0.0.77:5252")]),
    ({"clients": "0.0.0.0:5003,127.255.255.255:5001"},
     [REFUSED.format("0.0.0.0:5003"), REFUSED.format("127.255.255.255:5001")]),
    ({"clients": ":5000,127.1:70536"}, [BAD_HOST.format(0), REFUSED.format("127.0.0.1:5000")]),
    ({}, []),
    ({"clients": ""}, []),
    ({"clients": "127.0.0.1:5002,127.0.0.1:5253,239.1.1.1:5000"}, []),
    ({"blocksize": 0, "clients": "localhost:1,127.0.0.1:5000", "enabled": 0}, []),
]


@pytest.mark.parametrize("settings, lines", WRONG, ids=str)
def test_what_keeps_restreaming_from_sending_is_said_when_it_is_loaded(start, settings, lines):
    daemon = start(configuration(**settings))
    assert complaints(daemon) == lines


@pytest.mark.parametrize("settings, lines", WRONG, ids=str)
def test_what_keeps_restreaming_from_sending_is_said_when_it_is_changed(
        board, start, make_client, settings, lines):
    console = Console(board, start(configuration()), make_client())
    values = {"enabled": 1, "clients": f"{RECEIVER[0]}:{RECEIVER[1]}", "blocksize": 1000, **settings}
    values = {key: None if value is None else str(value) for key, value in values.items()}
    console.update("streaming", "udp", values["enabled"], values["clients"], values["blocksize"])
    assert complaints(console.daemon) == lines
    assert console.errors[-1] == "Saving config", "it is stored all the same"


def test_the_daemon_is_no_receiver(board, start, make_producer, make_client, receiver):
    own = ",".join(f"{host}:{port}" for host in ("127.0.0.1", "0.0.0.0") for port in
                   (5000, 5001, 5003, 5252))
    daemon = start(configuration(f"{own},{RECEIVER[0]}:{RECEIVER[1]}") + "audio_enabled=1\n")
    producer = make_producer()
    for frame in (b'{"cmd":"restart"}', b"R" + bytes(11) + b'{"cmd":"restart"}'):
        producer.publish(frame)
        assert receiver.recv(65535) == frame
    client = make_client()
    client.ask_info()
    assert client.receive()[2][0] == 1
    assert daemon.alive() and said(daemon, "Data found", "Audio found", "parse_packet") == []
    assert said(daemon, "Video found") == ["Video found"]


def test_an_address_that_the_board_gets_later_is_its_own(board, start, make_producer, receiver):
    daemon = start(configuration(f"10.77.0.1:5000,{RECEIVER[0]}:{RECEIVER[1]}"))
    assert complaints(daemon) == []
    subprocess.run(["nsenter", f"--net=/proc/{board.pid}/ns/net", "ip", "address", "add",
                    "10.77.0.1/32", "dev", "lo"], check=True)
    daemon.wait_error(REFUSED.format("10.77.0.1:5000") + "\n")
    make_producer().publish(b'{"cmd":"restart"}')
    assert receiver.recv(65535) == b'{"cmd":"restart"}'
    assert daemon.alive() and said(daemon, "Data found") == []
    assert complaints(daemon) == [REFUSED.format("10.77.0.1:5000")]


def test_clients_get_their_video_as_well(start, make_producer, receiver, registered_client):
    daemon = start(configuration())
    client, producer = registered_client(daemon), make_producer()
    frame = random_frame(1500)
    producer.publish(frame)
    assert [client.receive_type(1)[2] for _ in range(2)] == cut(frame, 1300)
    assert [receiver.recv(65535) for _ in range(2)] == cut(frame, 1000)


def test_clients_get_a_frame_before_it_is_restreamed(start, make_producer, make_client):
    client = make_client("127.0.0.2")
    client.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE)
    daemon = start(configuration(f"{client.host}:{client.port}"))
    client.register()
    daemon.wait_error(f"New client connected from {client.host}:{client.port} ")
    frame = random_frame(10000)
    make_producer().publish(frame)
    relayed, raw = [], []
    client.socket.settimeout(10)
    while len(raw) < 10:
        datagram, sender = client.socket.recvfrom(65535)
        if sender == ("127.0.0.1", 5001):
            raw.append(datagram)
        elif datagram[1] == 1:
            assert not raw, "video behind what is restreamed"
            relayed.append(datagram[12:])
    assert relayed == cut(frame, 1300) and raw == cut(frame, 1000)


@pytest.mark.parametrize("enabled", [2, -1])
def test_any_number_but_0_enables_it(start, make_producer, receiver, enabled):
    start(configuration(enabled=enabled))
    make_producer().publish(b"frame")
    assert receiver.recv(65535) == b"frame"


@pytest.mark.parametrize("settings", [
    {"enabled": 0}, {"enabled": None}, {"clients": ""}, {"clients": None},
    {"clients": "127.0.0.30"}, {"blocksize": 0}, {"blocksize": -5}, {"blocksize": None},
    {"blocksize": -2147483648}], ids=str)
def test_nothing_is_sent_without_a_switch_a_list_and_a_block_size(
        start, make_producer, receiver, registered_client, settings):
    daemon = start(configuration(**settings))
    client, producer = registered_client(daemon), make_producer()
    for frame in (b"one", random_frame(5000)):
        producer.publish(frame)
        video = b""
        while len(video) < len(frame):
            video += client.receive_type(1)[2]
        assert video == frame
    assert_silent(producer, receiver)


def test_only_frames_are_restreamed(board, start, make_producer, receiver):
    daemon = start(configuration())
    producer = make_producer()
    sender = board.socket(bind=("127.0.0.1", 0))
    for port in (5000, 5001, 5003):
        sender.sendto(b"no frame", ("127.0.0.1", port))
    for stream in ("Data", "Video", "Audio"):
        daemon.wait_error(f"{stream} found\n")
    producer.fill(0, b"first", 1)
    producer.fill(1, b"first", 1)
    producer.fill(2, b"second", 2)
    assert [receiver.recv(65535) for _ in range(2)] == [b"first", b"second"]


def test_the_transcoded_frames_are_restreamed_when_transcoding(start, make_producer, receiver):
    start(configuration() + "transcoding_enabled=1\n")
    make_producer().publish(b"main")
    make_producer("quillorbeacon_framebuffer_transcoding").publish(b"transcoded")
    assert receiver.recv(65535) == b"transcoded"
