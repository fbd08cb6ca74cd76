"""Fixtures of the system tests: each test starts the daemon on its own board.

The daemon under test is $QUILLORBEACON_BUILD/quillorbeacon, build/release by default.
"""

import os
import signal
import sys
import time
from pathlib import Path

import pytest

# If a script runs pytest in the background or under nohup, Ctrl-C or a hangup is ignored, and programs
# would inherit that.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGHUP, signal.SIG_DFL)

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "sandbox"))

from board import Board, Daemon, wait_until  # noqa: E402
from viewer import Viewer  # noqa: E402

BUILD = Path(os.environ.get("QUILLORBEACON_BUILD", REPOSITORY / "build/release")).resolve()
BINARY = BUILD / "quillorbeacon"
CONFIG = "/run/quillorbeacon/config.conf"

# A sanitizer's finding must not look like one of the daemon's exit statuses.
SANITIZERS = {
    "ASAN_OPTIONS": "detect_leaks=0:exitcode=99",
    "UBSAN_OPTIONS": "print_stacktrace=1:exitcode=99",
    # The process ends with its threads running, by design.
    "TSAN_OPTIONS": "exitcode=99:halt_on_error=1:report_thread_leaks=0",
}

# For programs that use GStreamer: a board is new each time, and would look at every plugin again.
MEDIA = {**SANITIZERS, "GST_REGISTRY": str(BUILD / "gstreamer-registry.bin")}


def pytest_configure(config):
    config.addinivalue_line("markers", "long: takes a minute of waiting, so it is begun first")


def pytest_collection_modifyitems(items):
    items.sort(key=lambda item: item.get_closest_marker("long") is None)


@pytest.fixture
def board():
    with Board(BUILD) as made:
        yield made


@pytest.fixture
def start(board, tmp_path):
    """start(config="...", model="...", gpio=False, ready=True): runs the daemon on the board.

    `config` is the run-time configuration file's text (None: no file), `model` the board model,
    `gpio` puts levels in /run/gpio behind the GPIO functions; `ready` waits for start-up's end;
    `binary` is another build of the daemon.
    """
    started = []

    def run(config="", model=None, gpio=False, ready=True, env=None, runner=(), binary=BINARY):
        if config is not None:
            board.write(CONFIG, config)
        if model is not None:
            board.write("/sys/firmware/devicetree/base/model", model)
        variables = {**SANITIZERS, **(env or {})}
        if gpio:
            board.path("/run/gpio").mkdir(exist_ok=True)
            variables["LD_LIBRARY_PATH"] = str(BUILD / "tests/gpio")
        daemon = Daemon(board, binary, tmp_path / f"errors-{len(started)}", variables, runner)
        started.append(daemon)
        if ready:
            daemon.wait_ready()
        return daemon

    yield run
    for daemon in started:
        text = daemon.errors()
        assert "Sanitizer" not in text and "runtime error:" not in text, text


@pytest.fixture
def daemon(start):
    """The daemon, running with an empty configuration."""
    return start()


def thread_of(daemon, name):
    """The /proc folder of the daemon's thread of that name. A thread sets its name as it starts."""
    tasks = Path(f"/proc/{daemon.pid}/task")
    return wait_until(lambda: next((task for task in tasks.iterdir()
                                    if (task / "comm").read_text() == name + "\n"), None),
                      f"the thread {name}")


def is_status(packet):
    """Is a (type, sequence, payload) one of the status records that arrive ten times a second?"""
    return packet[0] == 0 and len(packet[2]) == 41 and packet[2][0] == 4


class Client:
    """A remote client at address `host` on the board's network."""

    def __init__(self, board, host="127.0.0.2", port=0):
        self.socket = board.socket(bind=(host, port))
        self.host, self.port = self.socket.getsockname()

    def send(self, payload, header=b"R" + bytes(11)):
        self.socket.sendto(header + payload, ("127.0.0.1", 5252))

    def register(self, mode=b"\0"):
        self.send(b"\x02" + mode)

    def remove(self):
        self.send(b"\x03")

    def ask_info(self):
        self.send(b"\0")

    def receive_any(self, timeout=20.0):
        """The next packet as (type, sequence, payload); its header is checked."""
        self.socket.settimeout(timeout)
        datagram, sender = self.socket.recvfrom(65535)
        assert sender == ("127.0.0.1", 5252)
        assert datagram[0:1] == b"R" and datagram[8:12] == b"\1\0\0\0", datagram[:12]
        assert int.from_bytes(datagram[2:4], "little") == len(datagram) - 12
        return datagram[1], int.from_bytes(datagram[4:8], "little"), datagram[12:]

    def receive(self, timeout=20.0):
        """The next packet that is not a status record, as receive_any returns it."""
        end = time.monotonic() + timeout
        while True:
            packet = self.receive_any(max(end - time.monotonic(), 0.001))
            if not is_status(packet):
                return packet

    def receive_type(self, kind, timeout=20.0):
        """The next packet of that type; others are skipped."""
        while True:
            packet = self.receive(timeout)
            if packet[0] == kind:
                return packet


@pytest.fixture
def make_client(board):
    def make(host="127.0.0.2", port=0):
        return Client(board, host, port)

    return make


@pytest.fixture
def registered_client(make_client):
    """registered_client(daemon, mode=...): a client that is registered with the daemon."""

    def make(daemon, host="127.0.0.2", port=0, mode=b"\0"):
        client = make_client(host, port)
        client.register(mode)
        daemon.wait_error(f"New client connected from {client.host}:{client.port} ")
        return client

    return make


@pytest.fixture
def watch(make_client):
    """watch(daemon): a Viewer, a registered client that receives from now on."""
    made = []

    def make(daemon):
        viewer = Viewer(make_client())
        made.append(viewer)
        daemon.wait_error("New client connected")
        return viewer

    yield make
    for viewer in made:
        viewer.close()


class Producer:
    """Writes frames to a frame ring as a source process does, using the ring's byte layout."""

    LAYOUTS = {"quillorbeacon_framebuffer": 300000, "quillorbeacon_framebuffer_transcoding": 65000}

    def __init__(self, board, name="quillorbeacon_framebuffer"):
        import mmap

        self.capacity = self.LAYOUTS[name]
        size = 24 + 200 * (self.capacity + 18)
        self.file = wait_until(lambda: self._open(board, name, size), "the ring")
        self.memory = mmap.mmap(self.file.fileno(), size)
        self.next_slot = self.read_index
        self.identifier = 0

    @staticmethod
    def _open(board, name, size):
        path = board.path(f"/dev/shm/{name}")
        return open(path, "r+b") if path.exists() and path.stat().st_size == size else None

    @property
    def read_index(self):
        return int.from_bytes(self.memory[6:8], "little")

    @read_index.setter
    def read_index(self, value):
        self.memory[6:8] = value.to_bytes(2, "little")

    def slot_at(self, slot):
        return 24 + slot * (self.capacity + 18)

    def is_ready(self, slot):
        return self.memory[self.slot_at(slot) + 9] != 0

    def fill(self, slot, data, identifier, identifier_byte=0, length=None, ready=1):
        """Fills a slot and sets its ready flag last."""
        at = self.slot_at(slot)
        self.memory[at + 18:at + 18 + len(data)] = data
        self.memory[at:at + 4] = (len(data) if length is None else length).to_bytes(4, "little")
        self.memory[at + 4:at + 6] = identifier.to_bytes(2, "little")
        self.memory[at + 6] = identifier_byte
        self.memory[at + 9] = ready

    def publish(self, data):
        """Publishes one frame in the next slot, with the next identifier."""
        self.identifier = (self.identifier + 1) % 65536
        self.fill(self.next_slot, data, self.identifier)
        self.next_slot = (self.next_slot + 1) % 200

    def wait_taken(self, slot, timeout=20.0):
        wait_until(lambda: not self.is_ready(slot), f"slot {slot} taken", timeout)


@pytest.fixture
def make_producer(board):
    def make(name="quillorbeacon_framebuffer"):
        return Producer(board, name)

    return make
