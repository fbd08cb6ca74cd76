"""Everything that mounts /boot takes turns with saves, and an end of the daemon waits for them."""

import time

import pytest

from commands import (BOOT_FILE, CONFIG, SAVE, Console, hold, install, log_lines, release,
                      update_text)
from conftest import wait_until
from expected_file import file_text

BUSY = "Config busy, waiting...\n"
REMOUNT = "mount -o rw,remount /boot > /dev/null 2>&1"
CLEAR = ["mount -o rw,remount /boot", "rm -f /boot/identity.public /boot/identity.secret",
         "mount -o ro,remount /boot", "killall -q zerotier-one"]
# A mount that waits as a stand-in does, but only when it mounts the root.
HOLDING_ROOT_MOUNT = b"""#!/sys/board/sh
while [ "$*" = "-o rw,remount /" ] && [ -e /tmp/hold/root ]; do sleep 0.02; done
"""


@pytest.fixture
def two(board, start, make_client):
    """A client and the data source; their commands run on separate threads."""
    console = Console(board, start(""), make_client("127.0.0.2"))
    console.source = board.socket(bind=("127.0.0.50", 0))
    return console


def save_from_source(console, value="2"):
    console.source.sendto(update_text("osd", "borders", value), ("127.0.0.1", 5000))


def commands(board):
    return [line.removeprefix("sh -c ") for line in log_lines(board) if line.startswith("sh -c ")]


def wait_command(board, command, count=1):
    wait_until(lambda: commands(board).count(command) >= count, f"{command} x {count}")


def hold_a_save(console, tool="umount"):
    """Makes the data source's save wait in that tool from now on."""
    hold(console.board, tool)
    save_from_source(console)
    wait_command(console.board, {"mount": SAVE[0], "umount": SAVE[1]}[tool])


def position(console, command):
    return commands(console.board).index(command)


# Turns.

@pytest.mark.parametrize("update, first", [
    (("zerotier", "clear"), CLEAR[1]),
    (("cvbs", "testandsave", "PAL", "4:3", ""), REMOUNT),
    (("hdmi", "testandsave", "CEA", "4"), REMOUNT)], ids=["zerotier", "cvbs", "hdmi"])
def test_who_mounts_boot_waits_for_a_save(board, two, update, first):
    hold_a_save(two)
    two.send(*update)
    two.daemon.wait_error(BUSY, 3)
    assert first not in commands(board)
    release(board, "umount")
    two.finish()
    assert position(two, first) > position(two, SAVE[3])


def test_the_file_systems_made_writable_wait_for_a_save(board, two):
    board.write("/tmp/hold/root", "")
    install(board, "/sys/board/bin/mount", HOLDING_ROOT_MOUNT)
    two.send("fs_rw", "1")
    wait_command(board, "mount -o rw,remount /")
    hold_a_save(two)
    wait_command(board, SAVE[1], 2)
    release(board, "root")
    two.daemon.wait_error(BUSY, 3)
    assert commands(board).count("mount -o rw,remount /boot") == 2  # the two saves'
    release(board, "umount")
    two.finish()
    assert commands(board)[-1] == "mount -o rw,remount /boot"


@pytest.mark.parametrize("update, tool, last", [
    (("zerotier", "clear"), "rm", CLEAR[2]),
    (("cvbs", "testandsave", "PAL", "4:3", ""), "sync",
     "umount /boot  > /dev/null 2>&1 ; mount /boot > /dev/null 2>&1"),
    (("hdmi", "testandsave", "CEA", "4"), "sync",
     "umount /boot > /dev/null 2>&1 ; mount /boot > /dev/null 2>&1")],
    ids=["zerotier", "cvbs", "hdmi"])
def test_a_save_waits_for_who_mounts_boot(board, two, update, tool, last):
    hold(board, tool)
    two.send(*update)
    wait_until(lambda: any(line.startswith(tool) for line in commands(board)), tool)
    save_from_source(two)
    two.daemon.wait_error(BUSY, 3)
    assert "Saving config\n" not in two.daemon.errors()
    release(board, tool)
    wait_command(board, SAVE[3])
    assert position(two, last) < position(two, SAVE[1])
    two.finish()


# Ends.

def restart(console):
    console.client.send(b'{"cmd":"restart"}')
    return 'parse_packet json {"cmd":"restart"}\n'


def send_nothing(console):
    console.client.socket.sendto(b"", ("127.0.0.1", 5252))
    return "UDP read failed\n"


def send_no_json(console):
    console.client.send(b"{")
    return "Fatal: "


@pytest.mark.parametrize("end, status", [(restart, 2), (send_nothing, 3), (send_no_json, -6)])
def test_an_end_waits_for_the_save_that_runs(board, two, end, status):
    hold_a_save(two)
    two.daemon.wait_error(end(two))
    release(board, "umount")
    assert two.daemon.wait_exit() == status
    assert commands(board)[-4:] == SAVE
    saved = file_text(osd_borders="2")
    assert two.boot_file() == saved
    assert board.path(CONFIG).read_bytes() == saved.replace(b"\r\n", b"\n")


def test_an_end_waits_for_a_save_that_waits(board, two):
    hold_a_save(two, "mount")
    two.send("osd", "enabled", "1")
    two.daemon.wait_error(BUSY)
    two.client.socket.sendto(b"", ("127.0.0.1", 5001))
    two.daemon.wait_error("UDP read failed\n")
    release(board, "mount")
    assert two.daemon.wait_exit() == 3
    assert two.boot_file() == file_text(osd_borders="2", osd_enabled="1")
    assert commands(board)[-8:] == SAVE + SAVE


@pytest.mark.parametrize("end, status", [(restart, 2), (send_nothing, 3), (send_no_json, -6)])
def test_an_end_waits_one_second_at_most(board, two, end, status):
    hold_a_save(two)
    begin = time.monotonic()
    end(two)
    assert two.daemon.wait_exit() == status
    assert time.monotonic() - begin > 0.95
    release(board, "umount")


# Reboots.

def test_a_reboot_waits_for_the_save_that_runs(board, two):
    hold_a_save(two)
    two.client.send(b'{"cmd":"reboot"}')
    wait_command(board, "sync")
    release(board, "umount")
    two.finish()
    assert position(two, "reboot") > position(two, SAVE[3])
    # If the reboot fails, saves continue.
    two.update("osd", "enabled", "1")
    assert two.commands == SAVE


def test_a_reboot_waits_one_second_at_most(board, two):
    hold_a_save(two)
    begin = time.monotonic()
    two.client.send(b'{"cmd":"reboot"}')
    wait_command(board, "reboot")
    assert time.monotonic() - begin > 0.95
    release(board, "umount")
    wait_command(board, SAVE[3])
    two.update("osd", "enabled", "1")
    assert two.commands == SAVE


@pytest.mark.parametrize("update, output", [
    (("cvbs", "testandsave", "PAL", "4:3", ""), "state [HDMI CEA (16)]"),
    (("hdmi", "testandsave", "CEA", "4"), "state [PAL 4:3]")], ids=["cvbs", "hdmi"])
def test_a_reboot_for_another_output_waits_for_a_save_that_waits(board, two, update, output):
    board.prepare_output("tvservice", output)
    hold(board, "sync")
    two.send(*update)
    wait_command(board, "sync")
    save_from_source(two)
    two.daemon.wait_error(BUSY)
    release(board, "sync")
    two.finish()
    assert position(two, "reboot") > position(two, SAVE[3])
    assert two.boot_file() == file_text(osd_borders="2")
