"""A remote client: registers with the daemon, receives its streams and counts them."""

import hashlib
import socket
import threading
import time
from collections import Counter, deque

SERVER = ("127.0.0.1", 5252)
REGISTER_INTERVAL = 2.0
SO_RCVBUFFORCE = 33  # SO_RCVBUF beyond the system's limit; not in Python's socket module
RECEIVE_BUFFER = 16 << 20

HEADER_SIZE = 12
DATA, VIDEO, AUDIO = 0, 1, 2

INFO, REGISTER, REMOVE, STATUS = 1, 2, 3, 4  # first byte of a payload
ASK_INFO = 0


class Client:
    """Receives on its own thread, from start() to stop().

    The callbacks run on that thread: on_video(payload, when) for each piece of video, in order of
    arrival, with time.monotonic_ns(); on_data(payload) for telemetry, status and replies.
    """

    def __init__(self, opened, on_video=None, on_data=None):
        """`opened` is a bound UDP socket on the daemon's network."""
        self.socket = opened
        self.on_video = on_video
        self.on_data = on_data
        self.packets = Counter()  # by type
        self.malformed = 0
        self._expected = None  # the next sequence number
        self._missing = set()  # sequence numbers that were skipped
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="client", daemon=True)
        try:
            opened.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER)
        except PermissionError:
            opened.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)

    @property
    def lost(self):
        """How many of the daemon's packets never arrived, by their sequence numbers."""
        return len(self._missing)

    def start(self):
        """Registers, and starts receiving."""
        self._thread.start()

    def stop(self):
        """Stops receiving and unregisters."""
        self._stop.set()
        self._thread.join()
        self.send(bytes([REMOVE]))

    def send(self, payload):
        self.socket.sendto(b"R" + bytes(HEADER_SIZE - 1) + payload, SERVER)

    def _run(self):
        self.socket.settimeout(0.1)
        registration_due = 0.0
        while not self._stop.is_set():
            if time.monotonic() >= registration_due:
                registration_due = time.monotonic() + REGISTER_INTERVAL
                self.send(bytes([REGISTER, 0]))
                self.send(bytes([ASK_INFO]))
            try:
                datagram = self.socket.recv(65536)
            except TimeoutError:
                continue
            self.take(datagram, time.monotonic_ns())

    def take(self, datagram, when):
        """Counts one datagram and passes its payload on."""
        length = len(datagram) - HEADER_SIZE
        if (length < 0 or datagram[0:1] != b"R" or datagram[8:12] != b"\1\0\0\0"
                or int.from_bytes(datagram[2:4], "little") != length):
            self.malformed += 1
            return
        self._count_gap(int.from_bytes(datagram[4:8], "little"))
        kind, payload = datagram[1], datagram[HEADER_SIZE:]
        self.packets[kind] += 1
        if kind == VIDEO and self.on_video:
            self.on_video(payload, when)
        elif kind == DATA and self.on_data:
            self.on_data(payload)

    def _count_gap(self, sequence):
        """All streams share one count, so each number missing is a packet missing."""
        gap = 0 if self._expected is None else (sequence - self._expected) % (1 << 32)
        if gap >= 1 << 31:
            self._missing.discard(sequence)  # the next packet may overtake a reply
            return
        self._missing.update((self._expected + i) % (1 << 32) for i in range(gap))
        self._expected = (sequence + 1) % (1 << 32)


class VideoFile:
    """Writes the pieces of video to a file and remembers when each arrived."""

    def __init__(self, path, keep):
        """Keeps up to `keep` bytes in the file; the rest is only counted and hashed."""
        self.digest = hashlib.sha256()
        self.length = 0
        self.arrivals = deque()  # (length including this piece, when); consumed from the left
        self._keep = keep
        self._file = open(path, "wb")

    def add(self, payload, when):
        room = self._keep - self.length
        if room > 0:
            self._file.write(payload[:room])
        self.digest.update(payload)
        self.length += len(payload)
        self.arrivals.append((self.length, when))

    def close(self):
        self._file.close()
