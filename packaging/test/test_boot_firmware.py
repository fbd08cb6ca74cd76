"""A board whose boot partition is at /boot/firmware, with kernels at /boot: today's system.

The partition is an image with ext4, on a loop device that the machine sees as the card's.
"""

import os
import stat
import subprocess

import pytest

from machine import Client, Machine, wait_until

FSTAB = "/dev/mmcblk0p1 /boot/firmware ext4 ro,noauto 0 0\n"
SETTINGS = "/boot/firmware/quillorbeacon.conf"
DEFAULT_FILE = "/usr/share/quillorbeacon/quillorbeacon.conf"
KERNEL = "/boot/vmlinuz-6.12"


def set_url(client, url):
    client.send({"cmd": "updateconfig", "param": "streaming", "value": "srt", "value2": "1",
                 "value3": url})


class Image:
    """A file system in a file, on a loop device."""

    def __init__(self, file):
        with open(file, "wb") as made:
            made.truncate(16 << 20)
        subprocess.run(["mkfs.ext4", "-q", file], check=True)
        self.device = subprocess.run(["losetup", "--find", "--show", file], check=True, text=True,
                                     stdout=subprocess.PIPE).stdout.strip()

    def show_on(self, machine, name):
        """Makes the device's node on a machine."""
        os.mknod(machine.path(name), stat.S_IFBLK | 0o600, os.stat(self.device).st_rdev)

    def close(self):
        subprocess.run(["losetup", "--detach", self.device], check=True)


@pytest.fixture(scope="module")
def image(tmp_path_factory):
    made = Image(tmp_path_factory.mktemp("partition") / "card.img")
    yield made
    made.close()


@pytest.fixture(scope="module")
def board(machines, plain, image):
    """Such a board; its user installs the packages."""
    layer = machines / "today"
    for inside, text in (("etc/fstab", FSTAB), (KERNEL[1:], "kernel"), ("boot/firmware/none", "")):
        (layer / inside).parent.mkdir(parents=True, exist_ok=True)
        (layer / inside).write_text(text)
    with Machine(machines / "today-disk", layer, *plain) as machine:
        image.show_on(machine, "/dev/mmcblk0p1")
        machine.run("mount", "/boot/firmware")
        machine.run("apt-get", "update")
        machine.run("apt-get", "install", "-y", "quillorbeacon", "quillorbeacon-tools")
        yield machine


def is_writable(machine):
    """Can the partition be written, as all others see it? And can it be written at all?"""
    (line,) = (line.split() for line in machine.path("/proc/1/mountinfo").read_text().splitlines()
               if line.split()[4] == "/boot/firmware")
    return "rw" in line[5].split(","), "rw" in line[-1].split(",")


def settings(machine):
    return machine.path(SETTINGS).read_bytes().decode()


def assert_all_is_where_it_was(machine):
    assert machine.path(KERNEL).read_text() == "kernel"
    assert not machine.path("/boot/quillorbeacon.conf").exists()
    assert not machine.path("/boot/firmware" + KERNEL.removeprefix("/boot")).exists()


def test_the_settings_are_on_the_partition_after_the_installation(board, client):
    default = board.path(DEFAULT_FILE).read_bytes()
    assert board.path(SETTINGS).read_bytes() == default
    assert is_writable(board) == (False, False)
    assert_all_is_where_it_was(board)
    assert "no settings in" not in board.journal("quillorbeacon-config.service")
    assert client.section("streaming")


def test_a_change_is_saved_on_the_partition(board, client):
    url = "srt://192.0.2.7:9001"
    set_url(client, url)
    run_file = board.path("/run/quillorbeacon/config.conf")
    wait_until(lambda: url in run_file.read_text(), "the setting in the run-time copy")
    assert f"stream_srt_url={url}\r\n" in settings(board)
    wait_until(lambda: is_writable(board) == (False, False), "the partition is read-only again")
    assert_all_is_where_it_was(board)
    # A new kernel arrives meanwhile; nobody but the daemon has the partition at /boot.
    board.path("/boot/vmlinuz-6.13").write_text("new")
    assert board.run("sh", "-c", "mountpoint -q /boot || echo none") == "none\n"
    old = board.main_pid()
    board.kill(old)
    board.wait_restarted(old)
    assert url in Client(board).section("streaming")
    assert board.path("/boot/vmlinuz-6.13").read_text() == "new"
    assert "mount:" not in board.journal()


def test_a_partition_that_somebody_has_made_writable_stays_so(board, client):
    board.run("mount", "-o", "remount,rw", "/boot/firmware")
    url = "srt://192.0.2.7:9002"
    set_url(client, url)
    board.path("/boot/firmware/kernel8.img").write_text("in the middle of an upgrade")
    wait_until(lambda: url in settings(board), "the setting on the partition")
    set_url(client, url + "1")
    wait_until(lambda: url + "1" in settings(board), "the setting on the partition")
    client.section("streaming")  # the change is over
    assert is_writable(board) == (True, True)
    assert board.path("/boot/firmware/kernel8.img").read_text() == "in the middle of an upgrade"
    board.run("mount", "-o", "remount,ro", "/boot/firmware")


def test_storage_is_mounted_for_all(board, client, tmp_path):
    drive = Image(tmp_path / "drive.img")
    drive.show_on(board, "/dev/sda1")
    drive.show_on(board, "/dev/sda")
    try:
        board.run("beaconctl", "set", "recording", "place=external")
        wait_until(lambda: board.run("findmnt", "-no", "SOURCE", "/media", check=False),
                   "the drive at /media")
        assert board.run("findmnt", "-no", "SOURCE", "/media") == "/dev/sda1\n"
        board.run("beaconctl", "set", "recording", "place=internal")
        wait_until(lambda: board.run("umount", "/media", check=False) == "", "it can be unmounted")
    finally:
        for name in ("/dev/sda", "/dev/sda1"):
            board.path(name).unlink()
        drive.close()


def test_both_are_made_writable_on_request(board, client):
    client.send({"cmd": "updateconfig", "param": "fs_rw", "value": "1"})
    wait_until(lambda: is_writable(board) == (True, True), "a writable partition")
    client.send({"cmd": "updateconfig", "param": "fs_rw", "value": "0"})
    wait_until(lambda: "fs_rw=0\r\n" in settings(board), "the setting is off")
    client.section("streaming")  # the change is over
    board.run("mount", "-o", "remount,ro", "/boot/firmware")


def test_settings_that_an_older_version_left_at_boot_are_taken(board):
    """It saved them on the root file system."""
    old = settings(board).replace('device_name=""', 'device_name="Older"')
    assert "Older" in old
    board.run("mount", "-o", "remount,rw", "/boot/firmware")
    board.path(SETTINGS).unlink()
    board.run("mount", "-o", "remount,ro", "/boot/firmware")
    board.path("/boot/quillorbeacon.conf").write_bytes(old.encode())
    board.run("dpkg-reconfigure", "quillorbeacon")
    assert settings(board) == old
    board.path("/boot/quillorbeacon.conf").unlink()


def test_a_purge_cleans_the_partition(board):
    board.run("apt-get", "purge", "-y", "quillorbeacon")
    assert not board.path(SETTINGS).exists()
    assert is_writable(board) == (False, False)
    assert_all_is_where_it_was(board)
