"""The producer's side of the frame ring: how a camera's source process hands over video frames.

The ring is shared memory that the daemon creates: a header of 24 bytes, then 200 slots, each with
18 bytes of its own in front of the frame's data. The daemon takes the slots in order and clears
their ready flag; the producer fills them in the same order and never touches one that is ready.
"""

import mmap
import time

RING_FILE = "/dev/shm/quillorbeacon_framebuffer"
CAPACITY = 300000  # bytes of frame data in a slot
SLOTS = 200
HEADER_SIZE = 24
SLOT_HEADER_SIZE = 18
SLOT_SIZE = SLOT_HEADER_SIZE + CAPACITY
RING_SIZE = HEADER_SIZE + SLOTS * SLOT_SIZE

# Offsets from the start of the ring.
INITIALISED = 0  # 1 once the daemon has set the ring up
READ_INDEX = 6  # two bytes: the slot that the daemon takes next

# Offsets from the start of a slot. Numbers are little-endian.
LENGTH = 0  # four bytes
IDENTIFIER = 4  # two bytes; the daemon skips a frame with the identifier of the one before
IDENTIFIER_HIGH = 6  # one byte more of the identifier
READY = 9  # non-zero: a frame is waiting

POLL_INTERVAL = 0.001


class RingError(Exception):
    """The ring is not there, or a frame cannot go into it."""


class FrameRing:
    """The main ring, opened for publishing."""

    def __init__(self, path=RING_FILE, timeout=10.0):
        """Waits up to `timeout` seconds for the daemon to set the ring up."""
        end = time.monotonic() + timeout
        while (memory := self._open(path)) is None:
            if time.monotonic() > end:
                raise RingError(f"no frame ring at {path}: is the daemon running?")
            time.sleep(0.01)
        self._memory = memory
        self._slot = int.from_bytes(memory[READ_INDEX:READ_INDEX + 2], "little") % SLOTS
        self._identifier = 0
        self._skip_waiting()

    @staticmethod
    def _open(path):
        try:
            with open(path, "r+b") as file:
                memory = mmap.mmap(file.fileno(), RING_SIZE)
        except (FileNotFoundError, ValueError):  # ValueError: it has not got its size yet
            return None
        if memory[INITIALISED] == 1:
            return memory
        memory.close()
        return None

    def publish(self, frame, stopped=lambda: False):
        """Hands one access unit over; returns when that was, in nanoseconds of time.monotonic_ns.

        Waits while the ring is full. Returns None, without handing it over, when stopped() becomes
        true meanwhile.
        """
        if not 0 < len(frame) <= CAPACITY:
            raise RingError(f"a frame of {len(frame)} bytes: the ring takes 1 to {CAPACITY}")
        memory = self._memory
        slot = HEADER_SIZE + self._slot * SLOT_SIZE
        while memory[slot + READY] != 0:
            if stopped():
                return None
            time.sleep(POLL_INTERVAL)
        self._identifier = (self._identifier + 1) % (1 << 24)
        memory[slot + SLOT_HEADER_SIZE:slot + SLOT_HEADER_SIZE + len(frame)] = frame
        memory[slot + LENGTH:slot + LENGTH + 4] = len(frame).to_bytes(4, "little")
        memory[slot + IDENTIFIER:slot + IDENTIFIER + 2] = (
            self._identifier % 65536).to_bytes(2, "little")
        memory[slot + IDENTIFIER_HIGH] = self._identifier // 65536
        published = time.monotonic_ns()
        memory[slot + READY] = 1  # last: from here on the slot is the daemon's
        self._slot = (self._slot + 1) % SLOTS
        return published

    def wait_taken(self, timeout=5.0):
        """Waits until the daemon has taken every frame; returns whether it did."""
        last = HEADER_SIZE + (self._slot - 1) % SLOTS * SLOT_SIZE
        end = time.monotonic() + timeout
        while self._memory[last + READY] != 0:
            if time.monotonic() > end:
                return False
            time.sleep(POLL_INTERVAL)
        return True

    def _skip_waiting(self):
        """Goes past frames that an earlier producer left waiting."""
        for _ in range(SLOTS):
            if self._memory[HEADER_SIZE + self._slot * SLOT_SIZE + READY] == 0:
                return
            self._slot = (self._slot + 1) % SLOTS
