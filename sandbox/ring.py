"""The daemon's main frame ring, written to as a source process does."""

import mmap

from board import wait_until

RING = "/dev/shm/quillorbeacon_framebuffer"
SLOTS, SLOT_SIZE, HEADER_SIZE = 200, 300018, 24
CAPACITY = 300000


class Ring:
    """Begins with the slot that the daemon reads next."""

    def __init__(self, board):
        path, size = board.path(RING), HEADER_SIZE + SLOTS * SLOT_SIZE
        wait_until(lambda: path.exists() and path.stat().st_size == size, "the frame ring")
        with open(path, "r+b") as opened:
            self._memory = mmap.mmap(opened.fileno(), size)
        self._first = int.from_bytes(self._memory[6:8], "little")
        self._published = 0

    def publish(self, frame):
        """In the next slot, with the next identifier; its ready flag comes last."""
        at = HEADER_SIZE + (self._first + self._published) % SLOTS * SLOT_SIZE
        self._published += 1
        self._memory[at + 18:at + 18 + len(frame)] = frame
        self._memory[at:at + 4] = len(frame).to_bytes(4, "little")
        self._memory[at + 4:at + 6] = (self._published % 65536).to_bytes(2, "little")
        self._memory[at + 6] = 0
        self._memory[at + 9] = 1
