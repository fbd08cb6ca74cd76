"""Makes boards: a small server that sandbox/board.py starts once per process.

Requests come on standard input, a Unix socket. Each names the folders that stay visible and
carries the read end of a pipe; the board lives until the other end of that pipe is closed. The
reply is the process id of the board's first process. The server ends when its socket is closed.

This one process replaces some forty starts of unshare, mount, ip, mkdir, cp and ln per board:
nearly every test makes its own board.
"""

import ctypes
import fcntl
import json
import os
import signal
import socket
import struct

HERE = os.path.dirname(os.path.realpath(__file__))
CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWIPC = 0x08000000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000
MS_NOSUID_NODEV_NOEXEC = 2 | 4 | 8
MS_BIND = 4096
MS_REC = 16384
MS_PRIVATE = 1 << 18
SIOCGIFFLAGS = 0x8913
SIOCSIFFLAGS = 0x8914
IFF_UP = 1

# Tools that would change the host or need a real board.
STAND_INS = ("ip", "ifconfig", "dhcpcd", "iw", "iwlist", "mount", "umount", "reboot", "sync",
             "killall", "tvservice", "zerotier-cli", "raspivid")
FRESH = ("/run", "/boot", "/tmp", "/mnt", "/media", "/dev/shm")

_libc = ctypes.CDLL(None, use_errno=True)


def _call(function, *arguments):
    if function(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{function.__name__}{arguments}: {os.strerror(number)}")


def _mount(source, target, kind=None, flags=0):
    _call(_libc.mount, source.encode(), target.encode(), kind and kind.encode(),
          ctypes.c_ulong(flags), None)


def _bind(source, target):
    _mount(source, target, flags=MS_BIND | MS_REC)


def _put(source, target):
    with open(source, "rb") as read, open(target, "wb") as written:
        written.write(read.read())
    os.chmod(target, 0o755)


def _bring_loopback_up():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sH14x", b"lo", 0)
        flags = struct.unpack("16sH14x", fcntl.ioctl(any_socket, SIOCGIFFLAGS, request))[1]
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", flags | IFF_UP))


def _set_up(folders):
    """Turns this process's namespaces into a board.

    A board has its own empty /run, /boot, /tmp, /mnt, /media, /dev/shm and /sys, stand-ins for the
    tools that would change the host, and a /bin/sh that logs the text of each `sh -c`.
    """
    shell = os.path.realpath("/bin/sh")
    _mount("none", "/", flags=MS_REC | MS_PRIVATE)
    _mount("proc", "/proc", "proc", MS_NOSUID_NODEV_NOEXEC)
    _mount("board", "/sys", "tmpfs")
    for folder in ("firmware/devicetree/base", "class/thermal/thermal_zone0", "board/bin",
                   "board/kept", "board/app/daemon", "board/app/cams"):
        os.makedirs(f"/sys/{folder}")
    _put(shell, "/sys/board/sh")
    for script in ("stand-in", "logging-sh"):
        _put(f"{HERE}/{script}", f"/sys/board/{script}")
    _put(f"{HERE}/stand-in", "/sys/board/app/cams/kill-cams.sh")
    _put(f"{HERE}/stand-in", "/sys/board/app/daemon/otg-switcher.php")
    open("/sys/board/log", "wb").close()
    for name in STAND_INS:
        os.symlink("../stand-in", f"/sys/board/bin/{name}")

    # Keep the visible folders reachable: the new mounts may cover them.
    for number, folder in enumerate(folders):
        os.mkdir(f"/sys/board/kept/{number}")
        _bind(folder, f"/sys/board/kept/{number}")
    for folder in FRESH:
        _mount("board", folder, "tmpfs")
    os.chmod("/tmp", 0o1777)
    os.chmod("/dev/shm", 0o1777)
    for number, folder in enumerate(folders):
        os.makedirs(folder, exist_ok=True)
        _bind(f"/sys/board/kept/{number}", folder)

    _bring_loopback_up()
    _bind("/sys/board/logging-sh", shell)


def _hold(folders, lifeline, ready):
    """The first process of a board."""
    _set_up(folders)
    os.write(ready, b"ready")
    os.close(ready)
    os.read(lifeline, 1)


def _make_board(folders, lifeline):
    """Returns the process id of the new board's first process; 0 on failure."""
    read, written = os.pipe()
    maker = os.fork()
    if maker == 0:
        status = 1
        try:
            # The board must not hold the server's socket.
            os.dup2(os.open(os.devnull, os.O_RDWR), 0)
            _call(_libc.unshare, CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC
                  | CLONE_NEWUTS)
            first = os.fork()
            if first == 0:
                os.close(read)
                _hold(folders, lifeline, written)
            else:
                os.write(written, struct.pack("i", first))
            status = 0
        finally:
            os._exit(status)
    os.close(written)
    answer = b""
    while piece := os.read(read, 100):
        answer += piece
    os.close(read)
    # The process id and the board's "ready" arrive in either order.
    number = answer.replace(b"ready", b"")
    return struct.unpack("i", number)[0] if b"ready" in answer else 0


def serve(requests):
    # The kernel reaps the children. Ctrl-C is meant for the program that uses the boards.
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    while True:
        text, descriptors, _, _ = socket.recv_fds(requests, 65536, 1)
        if not text:
            return
        pid = _make_board(json.loads(text), descriptors[0])
        os.close(descriptors[0])
        requests.send(struct.pack("i", pid))


if __name__ == "__main__":
    serve(socket.socket(fileno=os.dup(0)))
