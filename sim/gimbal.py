"""A simulated gimbal and a simulated stick, as other programs on the board would be.

The gimbal turns with the speeds that the daemon publishes in the shared radio-control block and
tells where the camera looks in the shared camera state. The stick is the radio-control reader: it
writes raw channel values, and the time of writing, into the same block.
"""

import math
import mmap
import struct
import time
from pathlib import Path

RC_BLOCK = Path("/dev/shm/shared_rc_raw")
CAMERA_STATE = Path("/dev/shm/shared_camstate")
RC_BLOCK_SIZE = 1504
CAMERA_STATE_SIZE = 6
RC1_UPDATE = 4
CHANNELS = 16
CHANNEL_SIZE = 32
FUNCTION_VALUES = 1040
PAN, TILT, ROLL = 2, 3, 4  # functions

TURN_RATE = 40.0  # degrees per second at full speed
INTERVAL = 0.02
CENTER, REACH = 1500, 500  # raw channel values


def map_shared(path, size, wait=5.0):
    """Maps a shared-memory object of the daemon's, which may still be starting."""
    end = time.monotonic() + wait
    while not path.exists() or path.stat().st_size != size:
        if time.monotonic() > end:
            raise FileNotFoundError(path)
        time.sleep(0.01)
    with open(path, "r+b") as file:
        return mmap.mmap(file.fileno(), size)


class Gimbal:
    """Three axes; pan and roll turn against the sign of their speed, tilt with it."""

    def __init__(self):
        self._block = map_shared(RC_BLOCK, RC_BLOCK_SIZE)
        self._state = map_shared(CAMERA_STATE, CAMERA_STATE_SIZE)
        self.angles = [0.0, 0.0, 0.0]
        self.trace = []  # the angles after each turn

    def turn(self, _number):
        speeds = struct.unpack_from("<3d", self._block, FUNCTION_VALUES + 8 * PAN)
        for axis, (speed, sense) in enumerate(zip(speeds, (-1, 1, -1))):
            self.angles[axis] += sense * speed * TURN_RATE * INTERVAL
        self.trace.append(tuple(self.angles))
        struct.pack_into("<3h", self._state, 0, *(round(10 * a) for a in self.angles))


class Stick:
    """Moves channels 1 (pan) and 2 (tilt) of receiver 1 in a circle for a while, then lets go."""

    def __init__(self, seconds):
        self._block = map_shared(RC_BLOCK, RC_BLOCK_SIZE)
        self._seconds = seconds

    def move(self, number):
        passed = number * INTERVAL
        reach = REACH if passed < self._seconds else 0
        angle = 2 * math.pi * passed / self._seconds
        for channel, value in enumerate((math.sin(angle), math.cos(angle))):
            struct.pack_into("<H", self._block, CHANNELS + CHANNEL_SIZE * channel,
                             round(CENTER + reach * value))
        now = int(time.time() * 1000) & 0xFFFFFFFF
        struct.pack_into("<I", self._block, RC1_UPDATE, now or 1)

    def turned(self, gimbal):
        """The widest angle to which the stick has turned the gimbal, in degrees."""
        turns = gimbal.trace[:int(self._seconds / INTERVAL)]
        return max((abs(angle) for angles in turns for angle in angles), default=0.0)
