"""The UDP servers: found and lost, empty, large, short and random datagrams, their sockets."""

import ctypes
import os
import random
import re
import socket
import struct
import time
from pathlib import Path

import pytest

from conftest import thread_of, wait_until

CONTROL, DATA, VIDEO, AUDIO = 5252, 5000, 5001, 5003
PORTS = [CONTROL, DATA, VIDEO, AUDIO]
O_CLOEXEC = 0o2000000
PIDFD_GETFD = 438


def count(daemon, line):
    return daemon.errors().splitlines().count(line)


def udp_errors(daemon):
    """How many datagrams this board has dropped because of their checksum."""
    names, numbers = [line.split() for line in
                      Path(f"/proc/{daemon.pid}/net/snmp").read_text().splitlines()
                      if line.startswith("Udp:")]
    return int(numbers[names.index("InCsumErrors")])


def holds(condition, seconds):
    """Does the condition hold all that time?"""
    end = time.monotonic() + seconds
    wait_until(lambda: not condition() or time.monotonic() > end, "the time over", seconds + 10)
    return condition()


def send_to(sender, port, datagram):
    sender.sendto(datagram, ("127.0.0.1", port))


@pytest.mark.parametrize("port, timeout, found, lost", [
    (CONTROL, 5.0, "UDP server: UDP found", "UDP server: UDP lost"),
    (DATA, 2.0, "Data found", "Data lost"),
    (AUDIO, 1.0, "Audio found", "Audio lost"),
])
def test_a_peer_is_found_once_lost_once_and_found_again(board, daemon, port, timeout, found, lost):
    sender, other = board.socket(bind=("127.0.0.3", 0)), board.socket(bind=("127.0.0.4", 0))
    assert count(daemon, found) == 0
    last = [0.0]
    end = time.monotonic() + timeout + 1.2

    def speak():
        last[0] = time.monotonic()
        send_to(sender, port, b"x")
        return last[0] > end

    wait_until(speak, "a while of datagrams", timeout + 10, 0.05)
    assert count(daemon, lost) == 0
    wait_until(lambda: count(daemon, lost), "the loss", timeout + 2.5)
    assert timeout < time.monotonic() - last[0] < timeout + 2.5
    assert holds(lambda: count(daemon, lost) == 1, 1.3)
    assert count(daemon, found) == 1
    send_to(other, port, b"x")
    daemon.wait_error(f"{found}\n", 2)
    assert count(daemon, lost) == 1


def test_every_server_tells_of_its_own_peer_only(board, daemon):
    sender = board.socket()
    # The first to be lost again is sent last.
    for port, line in ((CONTROL, "UDP server: UDP found"), (VIDEO, "Video found"),
                       (DATA, "Data found"), (AUDIO, "Audio found")):
        before = daemon.errors()
        send_to(sender, port, b"x")
        daemon.wait_error(line)
        assert daemon.errors() == f"{before}{line}\n"


@pytest.mark.parametrize("port", PORTS)
def test_an_empty_datagram_ends_the_process_with_status_3(board, daemon, port):
    send_to(board.socket(), port, b"")
    assert daemon.wait_exit() == 3
    assert count(daemon, "UDP read failed") == 1
    assert daemon.errors().endswith("\nUDP read failed\n")


@pytest.mark.parametrize("port", [CONTROL, DATA])
def test_the_exit_status_is_exact_in_mid_traffic(board, start, registered_client, make_producer,
                                                 port):
    daemon = start("audio_enabled=1\n")
    for host in range(2, 8):
        registered_client(daemon, f"127.0.0.{host}")
    producer, sender = make_producer(), board.socket()
    for number in range(30):
        producer.publish(bytes([number]) * 200000)
        send_to(sender, DATA, b"telemetry" * 1000)
        send_to(sender, AUDIO, b"sound" * 1000)
    send_to(sender, port, b"")
    assert daemon.wait_exit() == 3
    assert daemon.errors().endswith("\nUDP read failed\n")


@pytest.mark.parametrize("port, kind", [(DATA, 0), (AUDIO, 2)])
def test_sources_datagrams_are_received_up_to_60000_bytes(board, start, registered_client, port,
                                                          kind):
    client = registered_client(start("audio_enabled=1\n"))
    sender = board.socket()
    for size in (59999, 60000, 60001, 60010, 65507):
        sent = b"x" + random.Random(size).randbytes(size - 1)
        send_to(sender, port, sent)
        assert client.receive_type(kind)[2] == sent[:60000], size


def test_clients_datagrams_are_received_up_to_30000_bytes(board, daemon, make_client):
    client, source = make_client(), board.socket()
    send_to(source, DATA, b"here")
    daemon.wait_error("Data found")
    for size in (29999, 30000, 30001, 30010, 65507):
        payload = b"!" + random.Random(size).randbytes(size - 13)
        client.send(payload)
        received = source.recv(65535)
        while received.startswith(b'!{"cmd":"set","name":"movement"'):
            received = source.recv(65535)
        assert received == payload[:29988], size


@pytest.mark.parametrize("more", [0, 1, 2000, 29986])
def test_a_short_request_does_not_see_the_longer_one_before(daemon, make_client, more):
    first, second = make_client("127.0.0.2"), make_client("127.0.0.3")
    first.send(b"\x02\x01" + b"\x01" * more)
    daemon.wait_error(f"from 127.0.0.2:{first.port} (no video/audio)\n")
    second.send(b"\x02")
    daemon.wait_error(f"from 127.0.0.3:{second.port}  \n")


@pytest.mark.parametrize("length, more", [(1, 0), (1, 29986), (11, 0), (11, 29986)])
def test_a_cut_header_does_not_see_the_request_before(daemon, make_client, length, more):
    first, second = make_client("127.0.0.2"), make_client("127.0.0.3")
    first.send(b"\x02\x01" + b"\x02" * more)
    second.send(b"", header=b"R" + b"\x02" * (length - 1))
    assert second.receive()[2][:1] == b"\x01"
    assert daemon.errors().count("New client connected") == 1


FORGE = """
import socket, struct, sys
forged = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_UDP)
forged.bind(("127.0.0.9", 0))
datagram = bytes.fromhex(sys.argv[2])
header = struct.pack("!HHHH", 4000, int(sys.argv[1]), 8 + len(datagram), 0xBEEF)
forged.sendto(header + datagram, ("127.0.0.1", 0))
"""


def send_with_wrong_checksum(board, daemon, port, datagram):
    """The kernel copies a datagram of more than 76 bytes to the daemon's buffer and drops it."""
    rejected = udp_errors(daemon)
    board.run("/usr/bin/python3", "-c", FORGE, str(port), datagram.hex())
    wait_until(lambda: udp_errors(daemon) == rejected + 1, "the datagram rejected")


def test_a_request_does_not_see_a_rejected_one(board, daemon, make_client):
    first, second = make_client("127.0.0.2"), make_client("127.0.0.3")
    first.ask_info()
    assert first.receive()[2][:1] == b"\x01"
    send_with_wrong_checksum(board, daemon, CONTROL, b"R" + bytes(11) + b"\x01" * 400)
    second.send(b"\x02")
    daemon.wait_error(f"from 127.0.0.3:{second.port}  \n")
    text = '{"cmd":"config_request","param":"system"}'
    send_with_wrong_checksum(board, daemon, CONTROL, b"R" + bytes(11) + b"Z" * 400)
    first.send(text.encode())
    assert first.receive()[2].startswith(b'{"cmd":"config_answer"')
    assert f"parse_packet json {text}\n" in daemon.errors()


def test_a_cut_header_does_not_see_a_rejected_request(board, daemon, make_client):
    client = make_client()
    for _ in range(2):
        client.send(b"", header=b"R")
        assert client.receive()[2][:1] == b"\x01"
        send_with_wrong_checksum(board, daemon, CONTROL, b"R" + bytes(11) + b'{"cmd":"restart"}'
                                 + b" " * 200)
    client.send(b"", header=b"R")
    assert client.receive()[2][:1] == b"\x01"
    assert "parse_packet" not in daemon.errors()


def test_data_does_not_see_a_rejected_datagram(board, daemon):
    source = board.socket()
    send_to(source, DATA, b"here")
    daemon.wait_error("Data found")
    send_with_wrong_checksum(board, daemon, DATA, b"{" + b"x" * 400)
    text = '{"cmd":"nothing"}'
    send_to(source, DATA, text.encode())
    daemon.wait_error("parse_packet json {")
    assert f"parse_packet json {text}\n" in daemon.errors()


def test_the_servers_listen_on_every_address(board, start, registered_client):
    client = registered_client(start("audio_enabled=1\n"))
    client.socket.sendto(b"R" + bytes(12), ("127.9.8.7", CONTROL))
    assert client.receive()[2][:1] == b"\x01"
    client.socket.sendto(b"telemetry", ("127.9.8.7", DATA))
    assert client.receive_type(0)[2] == b"telemetry"
    client.socket.sendto(b"sound", ("127.9.8.7", AUDIO))
    assert client.receive_type(2)[2] == b"sound"


@pytest.mark.parametrize("port", PORTS)
def test_a_port_is_not_shared_with_another_program(board, daemon, port):
    second = board.socket()
    second.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
    with pytest.raises(OSError):
        second.bind(("0.0.0.0", port))
    assert daemon.alive()


def open_descriptors(daemon):
    """Descriptor -> its target, for all above standard error."""
    found = {}
    for entry in Path(f"/proc/{daemon.pid}/fd").iterdir():
        try:
            if int(entry.name) > 2:
                found[int(entry.name)] = os.readlink(entry)
        except FileNotFoundError:
            pass  # closed meanwhile
    return found


def udp_inodes(daemon):
    """UDP port -> the inode of its socket."""
    rows = [line.split() for line in
            Path(f"/proc/{daemon.pid}/net/udp").read_text().splitlines()[1:]]
    return {int(row[1].split(":")[1], 16): row[9] for row in rows}


def test_every_descriptor_is_closed_in_programs_it_starts(board, daemon):
    tcp = board.socket(socket.SOCK_STREAM)
    tcp.connect(("127.0.0.1", CONTROL))
    daemon.wait_error("Client connected with ip address")
    descriptors = open_descriptors(daemon)
    sockets = [fd for fd, what in descriptors.items() if what.startswith("socket:")]
    assert len(sockets) >= len(PORTS) + 2  # and the TCP listener and its client
    for fd, what in descriptors.items():
        try:
            info = Path(f"/proc/{daemon.pid}/fdinfo/{fd}").read_text()
        except FileNotFoundError:
            continue  # closed meanwhile
        assert int(re.search(r"flags:\s*(\d+)", info)[1], 8) & O_CLOEXEC, what


def borrow_socket(daemon, inode):
    """A duplicate of the daemon's own socket."""
    fd = next(fd for fd, what in open_descriptors(daemon).items() if what == f"socket:[{inode}]")
    process = os.pidfd_open(daemon.pid)
    try:
        libc = ctypes.CDLL(None, use_errno=True)
        copy = libc.syscall(PIDFD_GETFD, process, fd, 0)
    finally:
        os.close(process)
    if copy < 0:
        raise OSError(ctypes.get_errno(), "pidfd_getfd")
    return socket.socket(fileno=copy)


@pytest.mark.parametrize("port", PORTS)
def test_the_sockets_options(board, daemon, port):
    asked = board.socket()
    for option in (socket.SO_RCVBUF, socket.SO_SNDBUF):
        asked.setsockopt(socket.SOL_SOCKET, option, 10000000)
    with borrow_socket(daemon, udp_inodes(daemon)[port]) as its:
        for option in (socket.SO_RCVBUF, socket.SO_SNDBUF):
            # What the kernel gives when asked for 10000000 bytes.
            assert (its.getsockopt(socket.SOL_SOCKET, option)
                    == asked.getsockopt(socket.SOL_SOCKET, option))
        assert its.getsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT) == 0
        assert its.getsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST) == 1
        assert os.get_blocking(its.fileno())


def junk(dice, port):
    """A random datagram that is not empty and not a JSON command."""
    size = dice.choice([1, 2, 11, 12, 13, 14, 60, dice.randrange(1, 2000), 30000, 65507])
    if port != CONTROL:
        return dice.randbytes(size).replace(b"{", b"|")
    request = dice.randbytes(max(size - 12, 0)).replace(b"{", b"|")
    if request and dice.random() < 0.5:
        request = bytes([dice.choice([0, 1, 2, 3, 4, 5, 9, 0x21])]) + request[1:]
    header = (b"R" if dice.random() < 0.8 else b"") + dice.randbytes(12)
    return (header[:12] + request)[:size]


@pytest.mark.parametrize("seed", range(3))
def test_junk_on_all_ports_is_survived(board, start, make_client, seed):
    daemon = start("audio_enabled=1\n")
    dice = random.Random(seed)
    sender, watcher, asker = board.socket(), make_client("127.0.0.8"), make_client("127.0.0.9")
    watcher.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 10000000)
    watcher.register()
    for turn in range(40):
        for _ in range(25):
            port = dice.choice(PORTS)
            send_to(sender, port, junk(dice, port))
        # The servers have survived when they handle a later request.
        asker.ask_info()
        assert asker.receive_type(0)[2][:1] == b"\x01"
        for port, kind in ((DATA, 0), (AUDIO, 2)):
            sign = f"turn {turn} on {port}".encode()
            send_to(sender, port, sign)
            wait_until(lambda: watcher.receive_type(kind)[2] == sign, f"{sign} relayed")
    assert daemon.alive()
    assert "Video found\n" in daemon.errors()


# Senders that are not one host.

def send_as(board, sender, port, payload):
    """Sends a datagram with any address as its sender's."""
    # In the place of 0.0.0.0 the kernel would put an address of its own, so that is a frame on the
    # loopback interface with its Ethernet header; it is taken with a broadcast as destination only.
    target = "255.255.255.255" if sender == "0.0.0.0" else "127.0.0.1"
    udp = struct.pack("!HHHH", 6000, port, 8 + len(payload), 0) + payload
    head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, socket.IPPROTO_UDP, 0,
                       socket.inet_aton(sender), socket.inet_aton(target))
    total = sum(struct.unpack("!10H", head))
    total = (total & 0xFFFF) + (total >> 16)
    total = (total & 0xFFFF) + (total >> 16)
    head = head[:10] + struct.pack("!H", ~total & 0xFFFF) + head[12:]
    if sender == "0.0.0.0":
        link = board.socket(socket.SOCK_RAW, family=socket.AF_PACKET)
        link.sendto(bytes(12) + b"\x08\x00" + head + udp, ("lo", 0x0800))
    else:
        raw = board.socket(socket.SOCK_RAW, protocol=socket.IPPROTO_RAW)
        raw.sendto(head + udp, (target, 0))


NO_HOSTS = ["0.0.0.0", "255.255.255.255", "224.0.0.1", "239.255.255.250", "127.255.255.255"]
RECEIVERS = {CONTROL: "control-rx", DATA: "data-rx", VIDEO: "video-rx", AUDIO: "audio-rx"}


def forge(board, daemon, sender, port, payload):
    """Sends a datagram with that sender's address; returns when the daemon is done with it."""
    status = thread_of(daemon, RECEIVERS[port]) / "status"

    def waits():
        return int(re.search(r"^voluntary.*?(\d+)$", status.read_text(), re.MULTILINE)[1])

    before = waits()
    send_as(board, sender, port, payload)
    wait_until(lambda: waits() > before, "the receive thread waiting again")


@pytest.mark.parametrize("sender", NO_HOSTS)
def test_a_sender_that_is_not_one_host_is_no_client_and_no_source(board, start, registered_client,
                                                                 sender):
    daemon = start("audio_enabled=1\n")
    forge(board, daemon, "127.0.0.99", CONTROL, b"R" + bytes(11) + b"\2\0")
    daemon.wait_error("New client connected from 127.0.0.99:6000 ")
    client = registered_client(daemon)
    for port in RECEIVERS:
        for payload in (b"R" + bytes(11) + b"\2\0", b'R' + bytes(11) + b'{"cmd":"restart"}',
                        b'{"cmd":"restart"}'):
            forge(board, daemon, sender, port, payload)
    assert daemon.alive()
    assert "New client connected from " + sender not in daemon.errors()
    assert not [line for line in daemon.errors().splitlines()
                if line in ("Data found", "Video found", "Audio found")
                or line.startswith("parse_packet")]
    client.ask_info()
    kind, _, payload = client.receive()
    assert kind == 0 and payload[0] == 1, "nothing was relayed"


@pytest.mark.parametrize("sender", NO_HOSTS)
def test_a_sender_that_is_not_one_host_does_not_take_a_sources_place(board, daemon, sender):
    source = board.socket(bind=("127.0.0.3", 0), timeout=1.0)
    client = board.socket(bind=("127.0.0.2", 0))

    def gets_the_command():
        # The source is forgotten after two seconds: on a busy machine it has to speak again.
        send_to(source, DATA, b"telemetry")
        # Of several datagrams on their way, the thread may be done with the first only.
        for _ in range(3):
            forge(board, daemon, sender, DATA, b"telemetry")
        send_to(client, CONTROL, b"R" + bytes(11) + b"!for the source")
        try:
            while source.recv(65535) != b"!for the source":
                pass
        except TimeoutError:
            return False
        return True

    wait_until(gets_the_command, "the command at the source")


def test_multicast_for_other_programs_does_not_reach_the_daemon(board, daemon):
    """A socket gets the multicast that any socket on the board has joined, unless it declines."""
    loopback = socket.inet_aton("127.0.0.1")
    joined = board.socket(bind=("127.0.0.1", 0))
    joined.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                      socket.inet_aton("239.1.1.1") + loopback)
    sender = board.socket(bind=("127.0.0.3", 0))
    sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, loopback)
    listener = board.socket(bind=("0.0.0.0", 6001), timeout=10.0)
    for port in (DATA, 6001):
        sender.sendto(b"frames of somebody else", ("239.1.1.1", port))
    assert listener.recv(100) == b"frames of somebody else", "another socket does get it"
    send_to(board.socket(bind=("127.0.0.4", 0)), VIDEO, b"x")
    daemon.wait_error("Video found\n")
    assert "Data found" not in daemon.errors()
