"""The client registry: registration, removal, the sweep, clients.json, info replies, requests."""

import json
import random
import re
import time

import pytest

from conftest import wait_until

CLIENTS_JSON = "/run/quillorbeacon/clients.json"
NEW = "UDP server: New client connected from"
INFO_SIZE = 44


def after_start_up(daemon):
    """Standard error since the end of start-up, without the TCP server's lines."""
    text = daemon.errors()
    text = text[text.index("GPIO"):]
    return [line for line in text.splitlines()
            if not line.startswith("TCP") and "hared raw RC" not in line][1:]


def published(board):
    path = board.path(CLIENTS_JSON)
    return path.read_text() if path.exists() else ""


def entry(client, mode):
    return rf'{{"host":"{client.host}","port":{client.port},"timeout":\d+,"mode":{mode}}}'


def wait_published(board, pattern):
    return wait_until(lambda: re.fullmatch(pattern, published(board)), f"{pattern} published")


def wait_rewritten(board):
    """Waits for the next sweep, which may be the first."""
    def written():
        path = board.path(CLIENTS_JSON)
        return path.stat().st_mtime_ns if path.exists() else None

    before = written()
    wait_until(lambda: written() != before, "the file rewritten")


def receive_kind(client, first):
    """The next data payload that begins with that byte; others are skipped."""
    return wait_until(lambda: (p := client.receive_type(0)[2])[:1] == first and p, "the payload")


def ask(client):
    """The info reply's payload."""
    client.ask_info()
    return receive_kind(client, b"\1")


def has_nothing(client):
    """Has nothing arrived except status records?"""
    client.socket.setblocking(False)
    try:
        while True:
            datagram = client.socket.recv(65535)
            if len(datagram) != 53 or datagram[12] != 4:
                return False
    except BlockingIOError:
        return True


def tell(board, text=b"telemetry"):
    board.socket().sendto(text, ("127.0.0.1", 5000))


def test_only_registering_keeps_a_client(board, daemon, make_client):
    silent, kept = make_client("127.0.0.2"), make_client("127.0.0.3")
    start = time.monotonic()
    silent.register()
    kept.register()
    daemon.wait_error(NEW, 2)
    seen = time.monotonic()
    wait_published(board, rf"\[{entry(silent, 0)},{entry(kept, 0)}\]")
    lost = f"UDP server: Client 127.0.0.2:{silent.port} lost\n"

    def ask_on_until(moment):
        silent.ask_info()  # not a registration
        assert lost not in daemon.errors()
        return time.monotonic() > moment

    wait_until(lambda: ask_on_until(start + 5), "five seconds", interval=0.2)
    kept.register()
    wait_until(lambda: ask_on_until(start + 9.9), "ten seconds", interval=0.1)
    daemon.wait_error(lost)
    assert time.monotonic() > start + 10
    assert time.monotonic() < seen + 14
    wait_published(board, rf"\[,{entry(kept, 0)}\]")
    assert after_start_up(daemon)[1:] == [f"{NEW} 127.0.0.2:{silent.port}  ",
                                          f"{NEW} 127.0.0.3:{kept.port}  ", lost.strip()]
    while not has_nothing(silent):
        pass  # a reply
    tell(board)
    assert receive_kind(kept, b"t") == b"telemetry"
    assert has_nothing(silent)


@pytest.mark.parametrize("mode, text, published_mode", [
    (b"\0", " ", 0), (b"\1", "(no video/audio)", 1), (b"\2", " ", 0), (b"\xff", " ", 0),
    (b"", " ", 0), (b"\1rest is not read", "(no video/audio)", 1),
])
def test_a_registration_is_announced_with_its_mode(board, daemon, make_client, mode, text,
                                                   published_mode):
    client = make_client("127.0.0.2")
    client.register(mode)
    wait_published(board, rf"\[{entry(client, published_mode)}\]")
    assert after_start_up(daemon) == ["UDP server: UDP found",
                                      f"{NEW} 127.0.0.2:{client.port} {text}"]


def test_registering_again_is_silent_and_takes_no_second_slot(board, daemon, registered_client):
    client = registered_client(daemon)
    for mode in b"\0\1\1\0\1":
        client.register(bytes([mode]))
    assert ask(client)[0] == 1
    assert daemon.errors().count(NEW) == 1
    wait_published(board, rf"\[{entry(client, 1)}\]")


def test_one_host_with_two_ports_is_two_clients(board, daemon, registered_client):
    clients = [registered_client(daemon, "127.0.0.2") for _ in range(2)]
    wait_published(board, rf"\[{entry(clients[0], 0)},{entry(clients[1], 0)}\]")
    tell(board)
    assert [receive_kind(client, b"t") for client in clients] == [b"telemetry"] * 2
    clients[0].remove()
    daemon.wait_error(f"UDP server: Client 127.0.0.2:{clients[0].port} removed\n")
    wait_published(board, rf"\[,{entry(clients[1], 0)}\]")


def test_two_hosts_with_one_port_are_two_clients(board, daemon, registered_client):
    clients = [registered_client(daemon, host, 40000) for host in ("127.0.0.2", "127.0.0.3")]
    clients[1].remove()
    daemon.wait_error("UDP server: Client 127.0.0.3:40000 removed\n")
    wait_published(board, rf"\[{entry(clients[0], 0)}\]")


def test_an_eleventh_client_is_ignored_and_the_ten_keep_receiving(board, daemon, make_client,
                                                                  registered_client):
    clients = [registered_client(daemon, f"127.0.1.{n}") for n in range(10)]
    late = make_client("127.0.1.99")
    late.register()
    assert ask(late)[0] == 1  # the registration has been handled
    assert daemon.errors().count(NEW) == 10
    entries = ",".join(entry(client, 0) for client in clients)
    wait_published(board, rf"\[{entries}\]")
    assert ask(late)[3] == 10
    tell(board)
    assert [receive_kind(client, b"t") for client in clients] == [b"telemetry"] * 10
    assert has_nothing(late)
    clients[6].remove()
    late.register()
    daemon.wait_error(f"{NEW} 127.0.1.99:{late.port} ")


def test_the_lowest_free_slot_is_taken(board, daemon, registered_client):
    clients = [registered_client(daemon, f"127.0.0.{n}") for n in range(2, 6)]
    clients[2].remove()
    clients[1].remove()
    daemon.wait_error("removed", 2)
    third = registered_client(daemon, "127.0.0.33")
    wait_published(board, rf"\[{entry(clients[0], 0)},{entry(third, 0)},{entry(clients[3], 0)}\]")
    fourth = registered_client(daemon, "127.0.0.44", mode=b"\1")
    wait_published(board, rf"\[{entry(clients[0], 0)},{entry(third, 0)},{entry(fourth, 1)},"
                          rf"{entry(clients[3], 0)}\]")


def test_a_removed_client_receives_nothing_and_may_return(board, daemon, registered_client):
    gone, stays = registered_client(daemon, "127.0.0.2"), registered_client(daemon, "127.0.0.3")
    gone.remove()
    daemon.wait_error("removed")
    assert after_start_up(daemon)[-1] == f"UDP server: Client 127.0.0.2:{gone.port} removed"
    tell(board)
    assert receive_kind(stays, b"t") == b"telemetry"
    assert has_nothing(gone)
    gone.register()
    daemon.wait_error(f"{NEW} 127.0.0.2:{gone.port}  \n", 2)


def test_removing_an_unknown_client_does_nothing(board, daemon, make_client, registered_client):
    client = registered_client(daemon, "127.0.0.2")
    before = after_start_up(daemon)
    for other in (make_client("127.0.0.2"), make_client("127.0.0.3")):
        other.remove()
        assert ask(other)[0] == 1
    assert after_start_up(daemon) == before
    tell(board)
    assert receive_kind(client, b"t") == b"telemetry"


def test_the_comma_follows_the_slot_and_no_line_end_follows_the_list(board, daemon,
                                                                     registered_client):
    clients = [registered_client(daemon, f"127.0.0.{n}") for n in range(2, 6)]
    for client in (clients[0], clients[1], clients[3]):
        client.remove()
    wait_published(board, rf"\[,{entry(clients[2], 0)}\]")


def test_the_list_is_there_from_the_first_second_and_rewritten_each_second(board, start):
    daemon = start(ready=False)
    daemon.wait_error("Init UDP done")
    wait_until(lambda: published(board) == "[]", "the empty list")
    path = board.path(CLIENTS_JSON)
    path.write_text("no longer this")
    wait_until(lambda: published(board) == "[]", "the list again")
    moments = []
    for _ in range(4):
        wait_rewritten(board)
        moments.append(path.stat().st_mtime)
    path.unlink()
    wait_until(lambda: published(board) == "[]", "the list made again")
    gaps = [b - a for a, b in zip(moments, moments[1:])]
    assert min(gaps) > 0.95, moments
    # A busy machine may be late with some of them.
    assert min(gaps) < 2, moments


def age_and_moment(path):
    """The only client's age and when it was written, in seconds; None while it is written."""
    written = path.stat().st_mtime
    text = path.read_text()
    if text and path.stat().st_mtime == written:
        return json.loads(text)[0]["timeout"] / 1000, written
    return None


def test_the_age_is_the_milliseconds_since_the_last_registration(board, daemon, make_client):
    client, path = make_client("127.0.0.2"), board.path(CLIENTS_JSON)
    for mode in (b"\0", b"\1"):
        earliest = time.time()
        client.register(mode)
        assert ask(client)[0] == 1
        latest = time.time()
        wait_published(board, rf"\[{entry(client, mode[0])}\]")
        for _ in range(2):
            wait_rewritten(board)
            age, written = wait_until(lambda: age_and_moment(path), "the list")
            assert written - latest - 0.5 < age < written - earliest + 0.02


def test_an_unwritable_list_is_skipped_silently(board, start, registered_client):
    board.path(CLIENTS_JSON).mkdir(parents=True)
    daemon = start()
    client = registered_client(daemon, "127.0.0.2")
    wait_until(lambda: ask(client)[3] == 1, "a sweep")
    client.remove()
    wait_until(lambda: ask(client)[3] == 0, "another sweep")
    assert len(after_start_up(daemon)) == 3  # found, connected, removed
    board.path(CLIENTS_JSON).rmdir()
    wait_until(lambda: published(board) == "[]", "the list")


@pytest.mark.parametrize("config, app_type, name", [
    ("", 0, b""),
    ("app_type=7\ndevice_name=Camera\n", 7, b"Camera"),
    ('app_type=258\ndevice_name="two words"\n', 2, b"two words"),
    ("app_type=255\ndevice_name=" + "n" * 39, 255, b"n" * 39),
    ("device_name=" + "n" * 38 + "xyz", 0, b"n" * 38 + b"x"),
])
def test_the_info_reply(start, make_client, config, app_type, name):
    start(config)
    payload = ask(make_client())
    assert len(payload) == INFO_SIZE
    assert payload[:4] == bytes([1, app_type, 0, 0])
    assert payload[4:] == name + b" " * (40 - len(name))


def test_the_client_count_changes_with_the_sweep_only(board, daemon, make_client):
    clients = [make_client(f"127.0.0.{n}") for n in range(2, 5)]
    wait_rewritten(board)
    for client in clients:
        client.register()
        assert ask(client)[3] == 0
    wait_until(lambda: ask(clients[0])[3], "a sweep")
    assert ask(clients[0])[3] == 3
    wait_rewritten(board)
    clients[1].remove()
    assert ask(clients[1])[3] == 3
    wait_until(lambda: ask(clients[1])[3] != 3, "the next sweep")
    assert ask(clients[1])[3] == 2


@pytest.mark.parametrize("further", range(11))
def test_a_cut_header_asks_for_info(daemon, make_client, further):
    client = make_client()
    client.send(b"", header=b"R" + b"\x02" * further)
    assert client.receive()[2][:1] == b"\x01"
    assert NEW not in daemon.errors()


@pytest.mark.parametrize("datagram", [
    b"R" + bytes(11), b"R" + b"\x02" * 11, b"r" + bytes(12), b"\0" * 13, b"Q" + bytes(12),
    b"\0", b"x" * 11, b"S" + bytes(11) + b"\x02", b"{" + b'"cmd":"restart"}',
], ids=repr)
def test_what_is_no_request_is_dropped(daemon, make_client, datagram):
    client, other = make_client("127.0.0.2"), make_client("127.0.0.3")
    client.send(b"", header=datagram)
    assert ask(other)[0] == 1  # the previous one has been handled
    assert has_nothing(client)
    assert after_start_up(daemon) == ["UDP server: UDP found"]


def test_no_other_header_field_is_read(daemon, make_client):
    dice = random.Random(1)
    client = make_client("127.0.0.2")
    for header in [b"R" + dice.randbytes(11) for _ in range(50)] + [b"R" + b"\xff" * 11]:
        client.send(b"\0", header)
        assert client.receive()[2][:1] == b"\x01"
    client.send(b"\x02\x01", b"R\x04\0\0" + dice.randbytes(8))
    daemon.wait_error(f"{NEW} 127.0.0.2:{client.port} (no video/audio)\n")
    client.send(b"\x03", b"R" + dice.randbytes(11))
    daemon.wait_error(f"UDP server: Client 127.0.0.2:{client.port} removed\n")


def is_keep_alive(datagram):
    return datagram.startswith(b'!{"cmd":"set","name":"movement"')


def next_command(source):
    return next(d for d in iter(lambda: source.recv(65535), b"") if not is_keep_alive(d))


def test_unknown_requests_are_ignored(board, daemon, make_client):
    client, other, source = make_client("127.0.0.2"), make_client("127.0.0.3"), board.socket()
    source.sendto(b"here", ("127.0.0.1", 5000))
    daemon.wait_error("Data found")
    before = after_start_up(daemon)
    for request in set(range(256)) - {0, 2, 3, 5, 9, 0x21, 0x7B}:
        source.sendto(b"still here", ("127.0.0.1", 5000))
        client.send(bytes([request]) + b"\x01\0\0\0\0\0\0")
        assert ask(other)[0] == 1
    assert has_nothing(client)
    assert after_start_up(daemon)[len(before):] == ["UDP server: UDP found"]
    client.send(b"!last")
    assert next_command(source) == b"!last"


FORGE = """
import socket, struct, sys
payload = b"R" + bytes(11) + bytes.fromhex(sys.argv[1])
udp = struct.pack(">4H", 5252, 5252, 8 + len(payload), 0) + payload
here = socket.inet_aton("127.0.0.1")
ip = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0) + here + here
socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW).sendto(ip + udp,
                                                                       ("127.0.0.1", 0))
"""


def test_the_servers_own_address_is_not_served(board, daemon, make_client):
    board.run("/usr/bin/python3", "-c", FORGE, "0200")
    daemon.wait_error("UDP server: UDP found")
    assert ask(make_client("127.0.0.2"))[0] == 1
    assert NEW not in daemon.errors()


def test_commands_go_whole_to_the_data_source_once_it_has_spoken(board, daemon, make_client):
    client, source = make_client("127.0.0.2"), board.socket(bind=("127.0.0.7", 0))
    client.send(b"!before")
    assert ask(client)[0] == 1  # the command has been handled
    source.sendto(b"here", ("127.0.0.1", 5000))
    daemon.wait_error("Data found")
    for command in (b"!", b'!{"cmd":"shot","param":""}', b"!" + bytes(range(256)) * 20):
        client.send(command)
        assert next_command(source) == command
    assert has_nothing(client)
