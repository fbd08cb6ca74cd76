"""The relay of data and audio to all clients, sequence numbers, the data source's keep-alive."""

import os
import random
import time
from pathlib import Path

import pytest

from board import EMULATOR
from commands import install, update_text
from conftest import is_status, wait_until

SERVER = "127.0.0.1"
SIZES = [1, 2, 1299, 1300, 1301, 59999, 60000]


def keep_alive(mode):
    return (b'!{"cmd":"set","name":"movement","param":"","value":"' + mode
            + b'","value2":"","value3":""}')


def content(size):
    return b"x" + random.Random(size).randbytes(size - 1)


def is_telemetry(payload):
    return payload[:1] in (b"x", b"{", b"!")


class Source:
    """A source process on the board."""

    def __init__(self, board, port, host="127.0.0.9"):
        self.socket = board.socket(bind=(host, 0))
        self.target = (SERVER, port)

    def send(self, datagram):
        self.socket.sendto(datagram, self.target)

    def receive(self):
        """The next command: its text, its sender and its time."""
        datagram, sender = self.socket.recvfrom(65535)
        return datagram, sender, time.monotonic()


@pytest.fixture
def data(board):
    return Source(board, 5000)


@pytest.fixture
def audio(board):
    return Source(board, 5003)


def next_telemetry(client):
    """The next relayed packet from the data source."""
    return wait_until(lambda: is_telemetry((p := client.receive())[2]) and p, "telemetry")


def next_copy(display):
    """The display process's next datagram that is not a status record, and its sender."""
    while True:
        datagram, sender = display.recvfrom(65535)
        if not is_status((datagram[1], None, datagram[12:])):
            return datagram, sender


def test_data_goes_to_all_clients_byte_for_byte(daemon, registered_client, data):
    clients = [registered_client(daemon, "127.0.0.2"),
               registered_client(daemon, "127.0.0.3", mode=b"\1"),
               registered_client(daemon, "127.0.0.3")]
    for size in SIZES:
        data.send(content(size))
        for client in clients:
            kind, _, payload = next_telemetry(client)
            assert (kind, payload) == (0, content(size))


def test_the_display_process_gets_a_copy_of_every_data_packet(board, start, registered_client,
                                                              data, audio):
    display = board.socket(bind=(SERVER, 5253))
    client = registered_client(start("audio_enabled=1\n"))
    for size in SIZES:
        audio.send(b"xsound")
        assert client.receive_type(2)[2] == b"xsound"
        data.send(content(size))
        _, sequence, payload = next_telemetry(client)
        datagram, sender = next_copy(display)
        assert sender == (SERVER, 5252)
        assert datagram == (b"R\0" + len(payload).to_bytes(2, "little")
                            + sequence.to_bytes(4, "little") + b"\1\0\0\0" + content(size))


def test_the_display_process_gets_data_when_nobody_is_registered(board, daemon, data):
    display = board.socket(bind=(SERVER, 5253))
    data.send(b"xalone")
    assert next_copy(display)[0][12:] == b"xalone"


def test_the_first_packet_has_number_0(board, start, data):
    display = board.socket(bind=(SERVER, 5253))
    start()
    data.send(b"xfirst")
    assert display.recv(65535)[4:8] == bytes(4)


def test_audio_goes_to_full_clients_only(board, start, registered_client, data, audio):
    display = board.socket(bind=(SERVER, 5253))
    daemon = start("audio_enabled=1\n")
    data_only = registered_client(daemon, "127.0.0.2", mode=b"\1")
    full = [registered_client(daemon, "127.0.0.3"), registered_client(daemon, "127.0.0.4", 0, b"")]
    for size in SIZES:
        audio.send(content(size))
        for client in full:
            assert client.receive_type(2)[2] == content(size)
    data.send(b"xend")
    assert next_telemetry(data_only)[0] == 0
    assert next_copy(display)[0][12:] == b"xend"


@pytest.mark.parametrize("config, relayed", [
    ("", False), ("audio_enabled=0\n", False), ("audio_enabled=1\n", True),
    ("audio_enabled=2\n", True), ("audio_enabled=-1\n", True)])
def test_audio_is_dropped_silently_unless_enabled(start, registered_client, audio, config,
                                                  relayed):
    daemon = start(config)
    client = registered_client(daemon)
    audio.send(b"sound")
    daemon.wait_error("Audio found\n")
    if relayed:
        assert client.receive_type(2)[2] == b"sound"
        return
    audio.send(b"sound")
    audio.send(b"sound")
    with pytest.raises(TimeoutError):
        client.receive_type(2, timeout=0.3)
    assert daemon.errors().removesuffix("Audio lost\n").endswith("  \nAudio found\n")


def test_a_change_of_mode_holds_at_once(start, registered_client, data, audio):
    daemon = start("audio_enabled=1\n")
    client, witness = registered_client(daemon, "127.0.0.2"), registered_client(daemon, "127.0.0.3")

    def kinds_received(mode):
        client.register(mode)
        client.ask_info()
        wait_until(lambda: client.receive_type(0)[2][:1] == b"\1", "the registration handled")
        audio.send(b"xsound")
        assert witness.receive_type(2)[2] == b"xsound"
        data.send(b"xdata")
        kinds = [next_telemetry(client)[0]]
        while kinds[-1] != 0:
            kinds.append(next_telemetry(client)[0])
        return kinds

    assert kinds_received(b"\0") == [2, 0]
    assert kinds_received(b"\1") == [0]
    assert kinds_received(b"\0") == [2, 0]
    assert kinds_received(b"\1") == [0]
    assert kinds_received(b"\2") == [2, 0]


def test_every_packet_takes_the_next_number_replies_too(start, registered_client, make_client,
                                                        data, audio):
    daemon = start("audio_enabled=1\n")
    client, stranger = registered_client(daemon, "127.0.0.2"), make_client("127.0.0.3")
    numbers = []

    def collect_until(receiver, kind, first):
        """Receives packets up to the one with that type and first payload byte."""
        packet = None
        while packet is None or (packet[0], packet[2][:1]) != (kind, first):
            packet = receiver.receive_any()  # status records have their numbers too
            numbers.append(packet[1])

    for _ in range(15):
        data.send(b"xdata")
        collect_until(client, 0, b"x")
        client.ask_info()
        collect_until(client, 0, b"\1")
        audio.send(b"xaudio")
        collect_until(client, 2, b"x")
        stranger.ask_info()
        collect_until(stranger, 0, b"\1")
    data.send(b"xdata")
    collect_until(client, 0, b"x")
    assert sorted(numbers) == list(range(numbers[0], numbers[0] + len(numbers)))


def test_all_clients_get_a_packet_under_one_number(daemon, registered_client, data):
    clients = [registered_client(daemon, f"127.0.0.{n}") for n in range(2, 7)]
    numbers = []
    for turn in range(10):
        data.send(b"x%d" % turn)
        packets = {next_telemetry(client)[1:] for client in clients}
        assert len(packets) == 1
        number, payload = packets.pop()
        assert payload == b"x%d" % turn
        numbers.append(number)
    assert numbers == sorted(set(numbers))


@pytest.mark.parametrize("text", [b'{"cmd":"nothing","param":"","value":""}', b"!{}", b"!command"])
def test_json_and_commands_of_the_data_source_are_relayed(daemon, registered_client, data, text):
    client = registered_client(daemon)
    data.send(text)
    assert next_telemetry(client)[2] == text


@pytest.mark.parametrize("config, mode", [
    ("", b"rel"), ("gimbal_movement_type=0\n", b"rel"), ("gimbal_movement_type=1\n", b"abs"),
    ("gimbal_movement_type=5\n", b"abs"), ("gimbal_movement_type=-1\n", b"abs"),
    ("gimbal_movement_type=256\n", b"abs")])
def test_the_movement_mode_is_told_to_the_data_source(start, data, config, mode):
    start(config)
    data.send(b"xhere")
    datagram, sender, _ = data.receive()
    assert datagram == keep_alive(mode)
    assert sender == (SERVER, 5000)


def test_the_movement_mode_is_told_once_a_second(daemon, data):
    moments = []
    for _ in range(4):
        data.send(b"xhere")
        moments.append(data.receive()[2])
    assert 2.9 < moments[-1] - moments[0] < 9


def test_the_movement_mode_follows_the_data_source(board, daemon, data):
    other = Source(board, 5000, "127.0.0.10")
    for _ in range(2):
        for source, silent in ((data, other), (other, data)):
            source.send(b"xhere")
            assert source.receive()[0] == keep_alive(b"rel")
            silent.socket.setblocking(False)
            with pytest.raises(BlockingIOError):
                silent.receive()
            silent.socket.settimeout(5)


def test_the_movement_mode_is_told_until_the_data_source_is_lost(board, daemon, data):
    data.send(b"xhere")
    told = data.receive()[2]
    # Halfway between two commands, so that the third from now is sent just before the loss.
    wait_until(lambda: time.monotonic() > told + 0.4, "half a second", interval=0.05)
    data.send(b"xlast")
    spoken = time.monotonic()
    received = [data.receive() for _ in range(3)]
    assert [command for command, _, _ in received] == [keep_alive(b"rel")] * 3
    daemon.wait_error("Data lost\n")
    assert 2 < time.monotonic() - spoken < 6
    client = Source(board, 5252)
    client.send(b"R" + bytes(11) + b"!too late")
    data.socket.settimeout(1.5)
    with pytest.raises(TimeoutError):
        data.receive()
    assert daemon.errors().count("Data lost\n") == 1
    data.send(b"xagain")
    data.socket.settimeout(5)
    assert data.receive()[0] == keep_alive(b"rel")
    assert daemon.errors().count("Data found\n") == 2


def precedences(tasks):
    """The nice values of threads by their names, other than that of this test."""
    found = {}
    for task in tasks:
        before, _, after = (task / "stat").read_text().rpartition(")")
        found[before.partition("(")[2]] = int(after.split()[16])
    return {name: nice for name, nice in found.items() if nice != os.nice(0)}


RELAYING = {"audio-rx": -10, "data-rx": -10}


@pytest.mark.skipif(bool(EMULATOR), reason="the emulator has a thread of its own")
def test_sound_and_telemetry_go_before_the_rest(board, daemon, data):
    tasks = Path(f"/proc/{daemon.pid}/task")
    wait_until(lambda: precedences(tasks.iterdir()) == RELAYING, "these go before")
    # But not what a command of the source starts.
    install(board, "/sys/board/bin/mount", "#!/bin/sh\nnice > /tmp/nice\n")
    data.send(update_text("osd", "enabled", "1"))
    nice = board.path("/tmp/nice")
    wait_until(lambda: nice.exists() and nice.read_text() == f"{os.nice(0)}\n",
               "the command, as any other")
    wait_until(lambda: precedences(tasks.iterdir()) == RELAYING, "these go before again")
