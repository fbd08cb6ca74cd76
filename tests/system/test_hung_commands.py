"""Programs that hang delay the daemon for thirty seconds at most."""

import time
from pathlib import Path

import pytest

from commands import install, update_text
from conftest import wait_until

LIMIT = 30
KILLED = f"Command killed after {LIMIT} s: "
# Hangs together with a child, and logs the process ids of both.
HANGING = """#!/sys/board/sh
sleep 1000 &
printf '%s\\n' $$ $! >> /tmp/hanging
wait
"""


def hang(board, *tools):
    for tool in tools:
        install(board, f"/sys/board/bin/{tool}", HANGING)


def runs(board, number):
    """Is the board's process with that id running? An orphan may not be reaped yet."""
    try:
        status = board.path(f"/proc/{number}/stat").read_text()
    except OSError:
        return False
    return status.rpartition(") ")[2][0] != "Z"


def hanging(board):
    """The processes of the tools that hang, while they exist."""
    path = board.path("/tmp/hanging")
    numbers = path.read_text().split() if path.exists() else []
    return [number for number in numbers if runs(board, number)]


# One test for all of them, because each takes thirty seconds.
@pytest.mark.long
def test_hung_tools_hold_nobody_up_for_ever(board, start, registered_client):
    hang(board, "dhcpcd")
    begin = time.monotonic()
    daemon = start("recording_place=2\n", ready=False)
    wait_until(lambda: len(hanging(board)) == 2, "a dhcpcd that hangs")
    daemon.wait_error(f"{KILLED}dhcpcd --rebind eth0\n", timeout=LIMIT + 20)
    assert time.monotonic() - begin > LIMIT - 1
    daemon.wait_ready()
    wait_until(lambda: hanging(board) == [], "all of them gone")

    hang(board, "tvservice", "zerotier-cli")
    client, source = registered_client(daemon), board.socket()
    begin = time.monotonic()
    client.send(update_text("hdmi", "test", "", ""))
    source.sendto(update_text("zerotier", "join", None, None, "8056c2e21c000001"),
                  ("127.0.0.1", 5000))
    wait_until(lambda: len(hanging(board)) == 4, "both tools hanging")
    daemon.wait_error(f"{KILLED}tvservice -p\n", timeout=LIMIT + 20)
    daemon.wait_error(f"{KILLED}zerotier-cli join 8056c2e21c000001\n")
    assert time.monotonic() - begin > LIMIT - 1
    wait_until(lambda: hanging(board) == [], "all of them gone")
    # What should follow them does.
    daemon.wait_error("can't kill tft-display-waveshare35b (PID not found)\n")
    client.ask_info()
    while client.receive()[2][0] != 1:
        pass
    source.sendto(update_text("make_preview", "1"), ("127.0.0.1", 5000))
    daemon.wait_error("Saving config\n")
    assert daemon.errors().count(KILLED) == 3
    children = Path(f"/proc/{daemon.pid}/task/{daemon.pid}/children")
    wait_until(lambda: children.read_text() == "", "no child left")
