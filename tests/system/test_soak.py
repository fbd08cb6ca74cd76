"""Everything at once: video, telemetry and audio to ten clients that keep asking and registering.

Nothing is lost on the loopback while every queue has room: all senders wait for what they sent to
arrive before they send much more, and the clients' queues are large.
"""

import random
import selectors
import socket
import struct
import threading
import time
from collections import Counter

import pytest

from conftest import wait_until

SO_RCVBUFFORCE = 33
QUEUE_SIZE = 64 << 20
BLOCK = 1300
VIDEO_BYTES = 30000
KEY_FRAME_BYTES = 130000  # more than 40 blocks: the sender has to pause
VIDEO_RATE = 60
TELEMETRY_RATE = 200
AUDIO_RATE = 50
UNSEEN = 20  # datagrams of a source in flight
UNANSWERED = 8  # requests of a client in flight
NOISE = random.Random(7).randbytes(1 << 16)
INFO = b"\1"
TELEMETRY = b"T"
DATA_TYPE, VIDEO_TYPE, AUDIO_TYPE = 0, 1, 2


def frame(number):
    """A frame in which every 12 bytes hold its number, their offset and some noise."""
    size = KEY_FRAME_BYTES if number % 10 == 0 else VIDEO_BYTES
    size += number * 37 % BLOCK + (number % 3) * BLOCK
    return b"".join(struct.pack("<III", number, at, number * 2654435761 + at & 0xFFFFFFFF)
                    for at in range(0, size, 12))[:size]


def blocks(data):
    return [data[at:at + BLOCK] for at in range(0, len(data), BLOCK)]


def sound(number):
    return struct.pack("<cI", b"A", number) + NOISE[number % 100:][:640]


def telemetry(number):
    size = (number * 7919) % (12000 if number % 10 == 0 else 300)
    return struct.pack("<cI", TELEMETRY, number) + NOISE[number % 1000:][:size]


class Background:
    """Calls each step repeatedly in its own thread until the context ends."""

    def __init__(self, *steps):
        self._stop = threading.Event()
        self._failures = []
        self._threads = [threading.Thread(target=self._run, args=(step,)) for step in steps]

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        for thread in self._threads:
            thread.join()
        assert not self._failures

    def _run(self, step):
        try:
            while not self._stop.wait(0.001):
                step()
        except Exception as failure:  # shown by __exit__
            self._failures.append(failure)


class Gatherer(Background):
    """Keeps every datagram that each client receives, and counts them."""

    def __init__(self, clients):
        super().__init__(self._step)
        self._received = {client: [] for client in clients}
        self._counts = {client: Counter() for client in clients}
        self._selector = selectors.DefaultSelector()
        for client in clients:
            client.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, QUEUE_SIZE)
            client.socket.setblocking(False)
            self._selector.register(client.socket, selectors.EVENT_READ, client)

    def __exit__(self, *what):
        super().__exit__(*what)
        self._selector.close()
        for client in self._received:
            while self._take(client):
                pass

    def _step(self):
        for key, _ in self._selector.select(0.1):
            for _ in range(50):
                if not self._take(key.data):
                    break

    def _take(self, client):
        try:
            datagram = client.socket.recv(65535)
        except BlockingIOError:
            return False
        self._received[client].append(datagram)
        kind = datagram[1]
        self._counts[client][kind, datagram[12:13] if kind == DATA_TYPE else b""] += 1
        return True

    def seen(self, client, kind, first=b""):
        return self._counts[client][kind, first]

    def answers(self, client):
        return self.seen(client, DATA_TYPE, INFO)

    def packets(self, client):
        """What the client received, as (type, sequence, payload); checks the headers."""
        result = []
        for datagram in self._received[client]:
            magic, kind, length, sequence, one = struct.unpack_from("<cBHII", datagram)
            assert (magic, length, one) == (b"R", len(datagram) - 12, 1)
            result.append((kind, sequence, datagram[12:]))
        return result


class Sources(Background):
    """The source processes: they pace their sending and wait while much of it is in flight."""

    def __init__(self, board, producer, gatherer, clients):
        super().__init__(self._step)
        self._socket = board.socket()
        self._producer, self._gatherer = producer, gatherer
        self._first, self._last = list(clients)[0], list(clients)[-1]
        self.frames = self.telemetries = self.sounds = self._video_blocks = 0
        self._start = time.monotonic()

    def _on_their_way(self, sent, kind, first=b""):
        return sent - self._gatherer.seen(self._first, kind, first)

    def _send_telemetry(self):
        self._socket.sendto(telemetry(self.telemetries), ("127.0.0.1", 5000))
        self.telemetries += 1

    def _step(self):
        elapsed = time.monotonic() - self._start
        if (self.frames < elapsed * VIDEO_RATE
                and self._on_their_way(self._video_blocks, VIDEO_TYPE) < UNSEEN * 25
                and not self._producer.is_ready(self._producer.next_slot)):
            data = frame(self.frames)
            self._producer.publish(data)
            self._video_blocks += len(blocks(data))
            self.frames += 1
        if (self.telemetries < elapsed * TELEMETRY_RATE
                and self._on_their_way(self.telemetries, DATA_TYPE, TELEMETRY) < UNSEEN):
            self._send_telemetry()
        if (self.sounds < elapsed * AUDIO_RATE
                and self._on_their_way(self.sounds, AUDIO_TYPE) < UNSEEN):
            self._socket.sendto(sound(self.sounds), ("127.0.0.1", 5003))
            self.sounds += 1

    def mark(self):
        """The number of a telemetry datagram sent from now on that has reached the first client."""
        number = self.telemetries + 1  # the one before may already be in flight
        wait_until(lambda: self._gatherer.seen(self._first, DATA_TYPE, TELEMETRY) > number,
                   "more telemetry")
        return number

    def finish(self):
        """At the end: waits until everything has been sent to the clients."""
        wait_until(lambda: not self._on_their_way(self._video_blocks, VIDEO_TYPE), "video", 30)
        wait_until(lambda: not self._on_their_way(self.sounds, AUDIO_TYPE), "audio")
        self._send_telemetry()
        wait_until(lambda: self._gatherer.seen(self._last, DATA_TYPE, TELEMETRY)
                   == self.telemetries, "telemetry")


class Requests(Background):
    """Threads that request info and register again, each for its own clients."""

    def __init__(self, gatherer, modes, askers, threads=4):
        parts = [list(modes)[n::threads] for n in range(threads)]
        super().__init__(*(lambda part=part: self._step(part) for part in parts))
        self._gatherer, self._modes, self._askers = gatherer, modes, askers
        self.asked = {client: 0 for client in modes}

    def _step(self, clients):
        for client in clients:
            if client in self._askers:
                if self.asked[client] - self._gatherer.answers(client) >= UNANSWERED:
                    continue
                client.ask_info()
                self.asked[client] += 1
            client.register(self._modes[client])

    def all_answered(self):
        return all(self._gatherer.answers(client) >= asked for client, asked in self.asked.items())


@pytest.fixture
def stage(start, registered_client, make_producer):
    """stage(modes): the daemon, a client for each mode, and a frame producer."""

    def make(modes):
        daemon = start("audio_enabled=1\n")
        clients = {registered_client(daemon, f"127.0.1.{n}", 0, mode): mode
                   for n, mode in enumerate(modes, 1)}
        return daemon, clients, make_producer()

    return make


def of_kind(packets, kind, first=b""):
    return [payload for k, _, payload in packets if k == kind and payload.startswith(first)]


def is_answer(kind, payload):
    return kind == DATA_TYPE and payload[:1] == INFO


def relayed(packets):
    """Sequence number -> type, for packets that go to all clients."""
    return {number: kind for kind, number, payload in packets if not is_answer(kind, payload)}


def check_same(received, sent):
    """Checks that the lists are equal; reports a difference briefly."""
    different = next((n for n, pair in enumerate(zip(received, sent)) if pair[0] != pair[1]), None)
    assert (len(received), different) == (len(sent), None)


def check_streams(packets, sources, takes_media):
    """Checks that everything was received once, complete and in order."""
    video = [block for n in range(sources.frames) for block in blocks(frame(n))]
    sounds = [sound(n) for n in range(sources.sounds)]
    check_same(of_kind(packets, DATA_TYPE, TELEMETRY),
               [telemetry(n) for n in range(sources.telemetries)])
    check_same(of_kind(packets, VIDEO_TYPE), video if takes_media else [])
    check_same(of_kind(packets, AUDIO_TYPE), sounds if takes_media else [])
    assert list(relayed(packets)) == sorted(relayed(packets))


def check_numbers(packets_of_clients):
    """Checks that each number is one packet, which a client gets once, and that none is missing."""
    content, answers = {}, set()
    for packets in packets_of_clients:
        assert len({number for _, number, _ in packets}) == len(packets)
        for kind, number, payload in packets:
            assert content.setdefault(number, (kind, payload)) == (kind, payload)
            if is_answer(kind, payload):
                assert number not in answers  # each answer goes to one client
                answers.add(number)
    assert max(content) - min(content) + 1 == len(content)


def check_answers(packets, asked):
    """Checks that each client got an answer to each of its requests, and no other."""
    for client, number in asked.items():
        answers = of_kind(packets[client], DATA_TYPE, INFO)
        assert len(answers) == number
        assert all(len(answer) == 44 for answer in answers)


def test_ten_clients_get_all_of_everything_and_their_own_answers(board, stage):
    modes = [b"\0", b"\0", b"\1", b"", b"\0", b"\0", b"\1", b"\0", b"\2", b"\0"]
    daemon, clients, producer = stage(modes)
    askers = list(clients)[:8]  # the last two receive media and request nothing
    with Gatherer(clients) as gatherer:
        with Requests(gatherer, clients, askers) as requests:
            with Sources(board, producer, gatherer, clients) as sources:
                end = time.monotonic() + 5
                wait_until(lambda: time.monotonic() > end and sources.frames > 60, "traffic", 60)
            sources.finish()
        wait_until(requests.all_answered, "all requests answered")
        told = daemon.errors()  # before registrations expire that nobody repeats now
    packets = {client: gatherer.packets(client) for client in clients}
    for client, mode in clients.items():
        check_streams(packets[client], sources, mode != b"\1")
    assert all((asked > 50) == (client in askers) for client, asked in requests.asked.items())
    check_answers(packets, requests.asked)
    check_numbers(packets.values())
    assert told.count("New client connected") == 10
    assert "UDP server: Client" not in told


class Visitor:
    """A client that comes and goes, with the telemetry numbers between which it must receive all
    or nothing."""

    def __init__(self, client):
        self.client = client
        self.present, self.absent = [], []
        self.gone_since = None


def visit(daemon, sources, visitor, other, mode):
    """The visitor holds the last slot for a while; the other one cannot register."""
    client = visitor.client
    name = f"{client.host}:{client.port}"
    visits = len(visitor.present) + 1
    visitor.absent.append((visitor.gone_since, sources.mark()))
    client.register(mode)
    daemon.wait_error(f"New client connected from {name} ", visits)
    since = sources.mark()
    other.client.register(b"\0")
    visitor.present.append((since, sources.mark(), mode))
    client.remove()
    daemon.wait_error(f"Client {name} removed\n", visits)
    visitor.gone_since = sources.mark()


def check_visits(packets, visitor, witness):
    """The witness has been registered all the time."""
    number_of = {int.from_bytes(payload[1:5], "little"): number for kind, number, payload in witness
                 if kind == DATA_TYPE and payload[:1] == TELEMETRY}
    everything, received = relayed(witness), set(relayed(packets))
    for since, until in visitor.absent:
        assert not [n for n in received if number_of[since] <= n <= number_of[until]]
    for since, until, mode in visitor.present:
        expected = {n for n, kind in everything.items()
                    if number_of[since] <= n < number_of[until] and (kind == DATA_TYPE
                                                                     or mode != b"\1")}
        assert expected and not expected - received
        if mode == b"\1":
            assert all(everything[n] == DATA_TYPE for n in received
                       if number_of[since] <= n < number_of[until])


def test_clients_that_come_and_go_get_nothing_while_they_are_gone(board, stage, make_client):
    daemon, clients, producer = stage([b"\0"] * 7 + [b"\1", b"\0"])
    visitors = [Visitor(make_client(f"127.0.2.{n}")) for n in (11, 12)]
    everybody = [*clients, *(visitor.client for visitor in visitors)]
    with Gatherer(everybody) as gatherer:
        with Requests(gatherer, clients, list(clients)) as requests:
            with Sources(board, producer, gatherer, clients) as sources:
                for visitor in visitors:
                    visitor.gone_since = sources.mark()
                end = time.monotonic() + 3
                while time.monotonic() < end or len(visitors[1].present) < 6:
                    visit(daemon, sources, *visitors, (b"\0", b"\1")[len(visitors[0].present) % 2])
                    visitors.reverse()
            sources.finish()
        wait_until(requests.all_answered, "all requests answered")
    packets = {client: gatherer.packets(client) for client in everybody}
    for client, mode in clients.items():
        check_streams(packets[client], sources, mode != b"\1")
    for visitor in visitors:
        check_visits(packets[visitor.client], visitor, packets[list(clients)[0]])
        check_answers(packets, {**requests.asked, visitor.client: 0})
    check_numbers(packets.values())
