"""Checks of a received stream: compares it with what was published, and decodes it."""

import json
import struct
import subprocess
from dataclasses import dataclass
from pathlib import Path

BLOCK = 1 << 20


class CheckFailed(Exception):
    """Says what is wrong with the stream, in words for the user."""


def compare(published, received):
    """The offset of the first byte in which two files differ; None when they are equal."""
    offset = 0
    with open(published, "rb") as left_file, open(received, "rb") as right_file:
        while True:
            left, right = left_file.read(BLOCK), right_file.read(BLOCK)
            if left != right:
                same = next((i for i, (a, b) in enumerate(zip(left, right)) if a != b),
                            min(len(left), len(right)))
                return offset + same
            if not left:
                return None
            offset += len(left)


def check_whole(record, published, received, length, digest):
    """Raises CheckFailed unless the received video is the published one.

    `record` is the source's record.json. `length` and `digest` (SHA-256, in hex) cover everything
    that was received; the files hold the first record["kept"] bytes.
    """
    if record["bytes"] == 0:
        raise CheckFailed("no video was published")
    offset = compare(published, received)
    if offset is not None:
        raise CheckFailed(f"the received video differs from the published one at byte {offset} "
                          f"({record['bytes']} bytes published, {length} received)")
    if length != record["bytes"] or digest != record["sha256"]:
        raise CheckFailed(f"the received video is not the published one: {record['bytes']} bytes "
                          f"published, {length} received")


def decode(stream):
    """Decodes a whole H.264 file; returns the number of pictures or raises CheckFailed."""
    result = subprocess.run(
        ["ffmpeg", "-nostdin", "-v", "error", "-xerror", "-f", "h264", "-i", str(stream),
         "-fps_mode", "passthrough", "-progress", "pipe:1", "-f", "null", "-"],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if result.returncode != 0 or result.stderr:
        raise CheckFailed(f"the video does not decode: {result.stderr.strip()}")
    counts = [line for line in result.stdout.splitlines() if line.startswith("frame=")]
    return int(counts[-1].removeprefix("frame=")) if counts else 0


def save_picture(stream, number, picture):
    """Saves picture `number` as a PNG; returns its width and height."""
    result = subprocess.run(
        ["ffmpeg", "-nostdin", "-y", "-v", "error", "-f", "h264", "-i", str(stream),
         "-vf", rf"select=eq(n\,{number})", "-frames:v", "1", "-update", "1", str(picture)],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    if result.returncode != 0 or not Path(picture).exists():
        raise CheckFailed(f"no picture could be saved: {result.stderr.strip()}")
    return png_size(picture)


def png_size(picture):
    """Width and height of a PNG file."""
    start = Path(picture).read_bytes()[:24]
    if not start.startswith(b"\x89PNG\r\n\x1a\n"):
        raise CheckFailed(f"{picture} is not a PNG file")
    return struct.unpack(">II", start[16:24])


@dataclass
class FrameTimes:
    """Follows the source's list of frames and matches it with what arrived at the client.

    A frame has arrived when its last byte has. Both times are from CLOCK_MONOTONIC, which all
    processes of the machine share.
    """

    path: Path  # frames.bin of the source's record
    arrivals: object  # of client.VideoFile

    def __post_init__(self):
        self.frames = 0  # that arrived complete
        self.latencies = []  # per frame, in ms
        self._waiting = []
        self._read = 0
        self._lost_step = False

    def update(self):
        """Processes what was published and received since the last call."""
        self._read_published()
        while self._waiting and self.arrivals and not self._lost_step:
            published, end = self._waiting[0]
            if self.arrivals[-1][0] < end:
                return
            while self.arrivals[0][0] < end:
                self.arrivals.popleft()
            if self.arrivals[0][0] != end:
                self._lost_step = True  # a piece is missing: frame ends no longer match
                return
            self.latencies.append((self.arrivals[0][1] - published) / 1e6)
            self.frames += 1
            self._waiting.pop(0)

    def _read_published(self):
        try:
            with open(self.path, "rb") as file:
                file.seek(self._read)
                data = file.read()
        except FileNotFoundError:
            return
        data = data[:len(data) // 16 * 16]
        self._read += len(data)
        self._waiting.extend(struct.iter_unpack("<QQ", data))


def read_record(folder):
    """The source's totals."""
    try:
        return json.loads((Path(folder) / "record.json").read_text())
    except FileNotFoundError:
        raise CheckFailed("the camera left no record of what it published") from None
