"""Runs a program for which all of the machine's files are read-only.

    read_only.py FOLDER[:FOLDER...] PROGRAM ARGUMENT...

Only file systems that are mounted on one of the folders can still be written to. Other programs are
not affected. Needs root and Linux 5.12.
"""

import ctypes
import os
import struct
import sys

CLONE_NEWNS = 0x20000
MS_REC, MS_PRIVATE = 0x4000, 1 << 18
MOUNT_SETATTR = 442  # the system call's number, the same on all processors
AT_FDCWD, AT_RECURSIVE = -100, 0x8000
MOUNT_ATTR_RDONLY = 1

_libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        sys.exit(f"no file system could be made read-only: {what}: {os.strerror(number)}")


def change(path, flags, to_set, to_clear):
    attributes = struct.pack("4Q", to_set, to_clear, 0, 0)
    check(_libc.syscall(MOUNT_SETATTR, AT_FDCWD, path.encode(), flags, attributes,
                        ctypes.c_size_t(len(attributes))), path)


def main(writable, *command):
    check(_libc.unshare(CLONE_NEWNS), "unshare")
    check(_libc.mount(None, b"/", None, MS_REC | MS_PRIVATE, None), "mount")
    change("/", AT_RECURSIVE, MOUNT_ATTR_RDONLY, 0)
    for folder in writable.split(":"):
        change(folder, 0, 0, MOUNT_ATTR_RDONLY)
    os.execvp(command[0], command)


if __name__ == "__main__":
    main(*sys.argv[1:])
