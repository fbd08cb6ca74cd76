"""A real file system as a board's /boot, and what it would hold after a power failure."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from commands import install

# Nothing reaches the disk by itself for that long, and the kernel flushes nothing early.
OPTIONS = {"ext4": "loop,commit=1000,noauto_da_alloc", "vfat": "loop"}
MAKE = {"ext4": ["mkfs.ext4", "-q"], "vfat": ["mkfs.vfat"]}
IMAGE = "/tmp/boot.img"
SNAPSHOT = "/tmp/snapshot.img"

# The board's tools: real ones for /boot, stand-ins for all other mounts.
TOOLS = """#!/sys/board/sh
printf '%s\\n' "${0##*/}${*:+ $*}" >> /sys/board/log
case "${0##*/} $*" in
'mount /boot') exec /usr/bin/mount -o OPTIONS IMAGE /boot ;;
*' /boot') exec "/usr/bin/${0##*/}" "$@" ;;
esac
"""


class BootImage:
    def __init__(self, board, kind):
        self.board, self.kind = board, kind
        image = board.path(IMAGE)
        with open(image, "wb") as made:
            made.truncate(8 << 20)
        subprocess.run([*MAKE[kind], image], check=True, stdout=subprocess.DEVNULL)
        text = TOOLS.replace("OPTIONS", OPTIONS[kind]).replace("IMAGE", IMAGE)
        for tool in ("mount", "umount"):
            install(board, f"/sys/board/bin/{tool}", text.encode())
        tried = self._mount(IMAGE, "/boot")
        if re.search(b"unknown filesystem type|failed to setup loop device", tried.stderr):
            pytest.skip(f"{kind} on a loop device cannot be mounted here: {tried.stderr.decode()}")
        assert tried.returncode == 0, tried.stderr

    def _mount(self, image, folder):
        return subprocess.run(self.board.command("/usr/bin/mount", "-o", OPTIONS[self.kind], image,
                                                 folder), stderr=subprocess.PIPE, check=False)

    def is_mounted(self):
        mounts = Path(f"/proc/{self.board.pid}/mounts").read_text()
        return re.search("^/dev/loop[0-9]+ /boot ", mounts, re.MULTILINE) is not None

    def mount(self):
        """Mounts it on /boot, unless it is mounted."""
        if not self.is_mounted():
            assert self._mount(IMAGE, "/boot").returncode == 0

    def unmount(self):
        """Unmounts it from /boot, if it is mounted."""
        if self.is_mounted():
            self.board.run("/usr/bin/umount", "/boot")

    def commit(self):
        """Flushes another file; other parts of the file system may reach the disk with it."""
        with open(self.board.path("/boot/other"), "wb") as other:
            other.write(b"other")
            other.flush()
            os.fsync(other.fileno())

    def after_power_cut(self, name):
        """What the file in /boot would hold if the power failed now; None: no such file."""
        self.board.path(SNAPSHOT).write_bytes(self.board.path(IMAGE).read_bytes())
        folder = self.board.path("/tmp/snapshot")
        folder.mkdir(exist_ok=True)
        mounted = self._mount(SNAPSHOT, "/tmp/snapshot")
        assert mounted.returncode == 0, mounted.stderr
        try:
            file = folder / name
            return file.read_bytes() if file.exists() else None
        finally:
            self.board.run("/usr/bin/umount", "/tmp/snapshot")
