"""A disk that dies: a FUSE file system with two files, which stops answering while /tmp/dead exists.

The larger one waits for the disk when it is closed, too.

DeadDisk puts it on a folder of the board. Run as a program, this file is the file system.
"""

import ctypes
import errno
import os
import select
import struct
import sys
from pathlib import Path

FILE = "film"
FILE_SIZE = 100000
CONTENT = bytes(number % 251 for number in range(FILE_SIZE))
LARGE_FILE = "film.mp4"
LARGE_SIZE = 60 << 20
FREE_MEGABYTES = 500
DEAD = Path("/tmp/dead")
ASKED = Path("/tmp/dead.asked")
HERE = Path(__file__).resolve().parent
ROOT_NODE, FILE_NODE, LARGE_NODE = 1, 2, 3
FILES = {FILE: (FILE_NODE, FILE_SIZE), LARGE_FILE: (LARGE_NODE, LARGE_SIZE)}

# Request numbers of the protocol.
LOOKUP, FORGET, GETATTR, OPEN, READ, STATFS, RELEASE = 1, 2, 3, 14, 15, 17, 18
FLUSH, INIT, OPENDIR, INTERRUPT, BATCH_FORGET = 25, 26, 27, 36, 42
UNANSWERED = (FORGET, INTERRUPT, BATCH_FORGET)
# The requests that a dead disk does not answer.
OF_THE_DISK = (LOOKUP, GETATTR, OPEN, READ, STATFS)


class DeadDisk:
    """Mounts the file system on a folder of the board."""

    def __init__(self, board, folder):
        if not os.path.exists("/dev/fuse"):
            pytest.skip("this machine has no FUSE")
        self.board = board
        board.popen("/usr/bin/python3", HERE / "dead_disk.py", folder)
        mounts = Path(f"/proc/{board.pid}/mounts")
        wait_until(lambda: f"dead_disk {folder} " in mounts.read_text(), "the disk")

    def die(self):
        self.board.write(DEAD, "")

    def revive(self):
        self.board.path(DEAD).unlink()

    def wait_asked(self):
        """Waits until a request waits for its answer."""
        wait_until(self.board.path(ASKED).exists, "a request of the dead disk")


def attributes(node):
    mode, links, size = (0o40755, 2, 0) if node == ROOT_NODE else (0o100644, 1, dict(
        FILES.values())[node])
    return struct.pack("<6Q3I7I", node, size, size // 512, 0, 0, 0, 0, 0, 0, mode, links, 0, 0, 0,
                       4096, 0)


def answer(request, node, body):
    """The (errno, bytes) to answer a request with."""
    if request == INIT:
        return 0, struct.pack("<4I2H2I2HI28x", 7, 31, 0, 0, 0, 0, 65536, 1, 0, 0, 0)
    if request == LOOKUP:
        node, _ = FILES.get(body.rstrip(b"\0").decode(), (None, 0))
        if node is None:
            return errno.ENOENT, b""
        return 0, struct.pack("<4Q2I", node, 0, 0, 0, 0, 0) + attributes(node)
    if request == GETATTR:
        return 0, struct.pack("<Q2I", 0, 0, 0) + attributes(node)
    if request in (OPEN, OPENDIR):
        return 0, struct.pack("<Q2I", 0, 1, 0)  # 1: each read comes here
    if request == READ:
        offset, size = struct.unpack_from("<QI", body, 8)
        return 0, CONTENT[offset:offset + size] if node == FILE_NODE else bytes(
            max(0, min(size, LARGE_SIZE - offset)))
    if request == STATFS:
        blocks = FREE_MEGABYTES * 1000
        return 0, struct.pack("<5Q10I", blocks, blocks, blocks, 0, 0, 1000, 255, 1000,
                              *[0] * 7)
    return (0, b"") if request in (RELEASE, FLUSH) else (errno.ENOSYS, b"")


def serve(device):
    held = []
    while True:
        ready = select.select([device], [], [], 0.02)[0]
        if held and not DEAD.exists():
            for reply in held:
                os.write(device, reply)
            held.clear()
        if not ready:
            continue
        message = os.read(device, 1 << 17)
        _, request, unique, node = struct.unpack_from("<2I2Q", message)
        if request in UNANSWERED:
            continue
        error, data = answer(request, node, message[40:])
        reply = struct.pack("<IiQ", 16 + len(data), -error, unique) + data
        waits = request in OF_THE_DISK or (request == FLUSH and node == LARGE_NODE)
        if waits and DEAD.exists():
            held.append(reply)
            ASKED.touch()
        else:
            os.write(device, reply)


def main(folder):
    device = os.open("/dev/fuse", os.O_RDWR)
    options = f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other"
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(b"dead_disk", folder.encode(), b"fuse", 0, options.encode()) != 0:
        sys.exit(f"mount: {os.strerror(ctypes.get_errno())}")
    serve(device)


if __name__ == "__main__":
    main(sys.argv[1])
else:
    import pytest

    from conftest import wait_until
