"""The recorder's storage: what is mounted, which place is chosen, and what the record and the
recorder get."""

import json
import os
import time

import pytest

from board import promised
from commands import install
from conftest import wait_until
from dead_disk import FREE_MEGABYTES, DeadDisk
from test_status import next_record, number_at, presence, wait_record

INTERNAL = ["mount /dev/mmcblk0p3 /mnt -o noatime"]
EXTERNAL = [f"mount /dev/sda{number} /media -o noatime" for number in range(4)]
PLACE_FILE = "/run/quillorbeacon/recorder_place"
NO_SPACE = "No free space on any storage\n"
NO_MNT = "No free space on /mnt or no drive mounted\n"
NO_MEDIA = "No free space on /media or no drive mounted\n"
NONE = (255, 0)


def storage(record):
    """The place and its free megabytes."""
    return record[22], number_at(record, 23)


def examined_record(client):
    """The next record after storage was examined."""
    return wait_record(client, lambda record: record[22] != 0, "storage examined")


def mount(board, size, folder):
    """Mounts an empty file system of that size on the folder."""
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", folder)


def mounts(board):
    """The attempts to mount storage so far: (what the shell was given, what mount was given)."""
    lines = [line for line in board.log(storage=True) if "mount /dev/" in line]
    shell = [line[len("sh -c "):] for line in lines if line.startswith("sh -c ")]
    return shell, [line for line in lines if not line.startswith("sh -c ")]


def assert_told(board, text):
    """Waits until the recorder's file holds `text`. Each write empties it for a moment."""
    wait_until(lambda: board.path(PLACE_FILE).read_bytes() == text, f"{text} in the place file")


@pytest.fixture(autouse=True)
def mount_that_says_something(board):
    """The shell runs mount as on a real board; in other tests the board's shell skips it."""
    board.write("/sys/board/mount.out", "mount: no such device\n")


@pytest.fixture
def viewer(make_client):
    """viewer(): the display process, which gets a copy of each status record."""
    return lambda: make_client("127.0.0.1", 5253)


@pytest.fixture
def disk(board):
    """An external disk: the board gets its own /dev, with a device file in it."""
    fresh = "/sys/board/dev"
    for name in ("null", "zero", "urandom"):
        board.write(f"{fresh}/{name}", "")
        board.run("/usr/bin/mount", "--bind", f"/dev/{name}", f"{fresh}/{name}")
    board.path(f"{fresh}/shm").mkdir()
    board.run("/usr/bin/mount", "--bind", "/dev/shm", f"{fresh}/shm")
    board.write(f"{fresh}/sda", "")
    board.run("/usr/bin/mount", "--rbind", fresh, "/dev")


def check_mounts(board, expected, rounds=3):
    """Waits for some rounds of mounts; checks that they are these commands, in this order."""
    wait_until(lambda: len(mounts(board)[1]) >= rounds * len(expected), "rounds of mounts")
    given_to_shell, given_to_mount = mounts(board)
    for i, line in enumerate(given_to_shell):
        assert line == expected[i % len(expected)] + " > /dev/null 2>&1", i
    for i, line in enumerate(given_to_mount):
        assert line == expected[i % len(expected)], i


def test_the_internal_place(board, start, viewer):
    display = viewer()
    mount(board, "100m", "/mnt")
    mount(board, "200m", "/media")
    daemon = start("recording_place=1\n")
    assert storage(examined_record(display)) == (1, 104)
    assert_told(board, b"/mnt")
    check_mounts(board, INTERNAL)
    assert "No free space" not in daemon.errors()


@pytest.mark.parametrize("disk_size, expected", [("100m", (2, 104)), ("1m", (2, 1))])
def test_the_external_place(board, start, viewer, disk, disk_size, expected):
    display = viewer()
    mount(board, "500m", "/mnt")
    mount(board, disk_size, "/media")
    daemon = start("recording_place=2\n")
    assert storage(examined_record(display)) == expected
    assert_told(board, b"/media")
    check_mounts(board, EXTERNAL)
    assert "No free space" not in daemon.errors()


def test_the_external_place_without_a_disk(board, start, viewer):
    display = viewer()
    mount(board, "500m", "/mnt")
    mount(board, "100m", "/media")
    daemon = start("recording_place=2\n")
    examined_record(display)
    for _ in range(5):
        assert storage(next_record(display)) == (2, 0)
    assert_told(board, b"/media")
    assert mounts(board) == ([], [])
    assert "No free space" not in daemon.errors()


# Every value but 1 and 2 means automatic, and so does a file without the setting.
@pytest.mark.parametrize("setting", ["", "recording_place=0\n", "recording_place=3\n"])
def test_automatic_mounts_run_without_a_disk(board, start, setting):
    start(setting)
    check_mounts(board, INTERNAL + EXTERNAL)


MOUNT_THAT_WAITS = """#!/sys/board/sh
: > /tmp/mounting
while [ -e /tmp/hold ]; do sleep 0.02; done
"""


@pytest.fixture
def mount_that_waits(board):
    """Makes each mount wait from now on; returns a function that lets them continue."""
    board.write("/tmp/hold", "")
    install(board, "/sys/board/bin/mount", MOUNT_THAT_WAITS)
    return board.path("/tmp/hold").unlink


def test_records_go_on_while_storage_is_mounted(board, start, viewer, registered_client, request):
    display = viewer()
    mount(board, "100m", "/mnt")
    daemon = start("recording_place=1\n")
    examined_record(display)
    go_on = request.getfixturevalue("mount_that_waits")
    wait_until(board.path("/tmp/mounting").exists, "a mount that waits")
    board.write("/mnt/recording", bytes(40 * 1024 * 1024))
    client, source = registered_client(daemon), board.socket()
    source.sendto(b"x", ("127.0.0.1", 5000))
    # They show changes, and the storage as it was last found.
    wait_record(display, lambda record: (record[3], *presence(record)) == (1, 1, 1, 0),
                "the client and the source")
    begin = time.monotonic()
    for _ in range(20):
        assert storage(next_record(display)) == (1, 104)
    assert time.monotonic() - begin < promised(8)
    go_on()
    wait_record(display, lambda record: storage(record) == (1, 62), "40 MiB less")
    client.remove()


def test_records_begin_while_storage_is_mounted(board, start, viewer, mount_that_waits):
    display = viewer()
    mount(board, "100m", "/mnt")
    begin = time.monotonic()
    start("recording_place=1\n")
    for _ in range(5):
        assert storage(next_record(display)) == (0, 0)
    assert time.monotonic() - begin < 20
    mount_that_waits()
    wait_record(display, lambda record: storage(record) == (1, 104), "the place")


def test_records_go_on_beside_a_dead_disk(board, start, viewer):
    display = viewer()
    dead_disk = DeadDisk(board, "/mnt")
    start("recording_place=1\n")
    assert storage(examined_record(display)) == (1, FREE_MEGABYTES)
    dead_disk.die()
    dead_disk.wait_asked()
    begin = time.monotonic()
    for _ in range(20):
        assert storage(next_record(display)) == (1, FREE_MEGABYTES)
    assert time.monotonic() - begin < promised(8)
    board.path(PLACE_FILE).unlink()
    dead_disk.revive()
    wait_until(board.path(PLACE_FILE).exists, "the next examination")


def test_a_dead_disk_does_not_keep_commands_waiting(board, start, make_client):
    client = make_client()
    dead_disk = DeadDisk(board, "/mnt")
    start("recording_place=2\n")

    def ask(section):
        client.send(json.dumps({"cmd": "config_request", "param": section}).encode())
        return client.receive()[2]

    free = f'"free0":{FREE_MEGABYTES},'.encode()
    assert free in ask("recording")
    dead_disk.die()
    for _ in range(2):
        assert free in ask("recording")  # the last answer
        assert b'"app_type"' in ask("info")
    dead_disk.revive()
    wait_until(lambda: free in ask("recording"), "the disk's answer")


def test_automatic_mounts_run_with_a_disk(board, start, disk):
    start("recording_place=0\n")
    check_mounts(board, INTERNAL + EXTERNAL)


@pytest.mark.parametrize("internal, external, chosen", [
    ("100m", "99m", (1, 104)),
    ("99m", "100m", (2, 104)),
    ("100m", "100m", (2, 104)),
    # Whole megabytes are compared: 10.9 and 10.2 are a tie.
    ("10650k", "10000k", (2, 10)),
    ("12000k", "10000k", (1, 12)),
    # A megabyte is a million bytes.
    ("900k", "980k", (2, 1)),
    ("980k", "900k", (1, 1)),
    ("3g", "100g", (2, 107374)),
    ("100g", "3g", (1, 107374)),
])
def test_the_automatic_choice(board, start, viewer, internal, external, chosen):
    display = viewer()
    mount(board, internal, "/mnt")
    mount(board, external, "/media")
    daemon = start("recording_place=0\n")
    assert storage(examined_record(display)) == chosen
    assert_told(board, b"/mnt" if chosen[0] == 1 else b"/media")
    assert "No free space" not in daemon.errors()


@pytest.mark.parametrize("setting, message", [(0, NO_SPACE), (1, NO_MNT), (2, NO_MEDIA)])
def test_no_free_space(board, start, viewer, disk, setting, message):
    display = viewer()
    mount(board, "900k", "/mnt")
    mount(board, "900k", "/media")
    daemon = start(f"recording_place={setting}\n")
    examined_record(display)
    for _ in range(3):
        assert storage(next_record(display)) == NONE
    assert not board.path(PLACE_FILE).exists()
    # Once for each examination, and no other message.
    daemon.wait_error(message, 3)
    lines = [line for line in daemon.errors().splitlines(True) if "No free" in line]
    assert set(lines) == {message}


@pytest.mark.parametrize("setting, full", [(0, ["/mnt", "/media"]), (1, ["/mnt"]), (2, ["/media"])])
def test_a_place_file_stays_when_there_is_no_space(board, start, viewer, disk, setting, full):
    display = viewer()
    for folder in full:
        mount(board, "900k", folder)
    path = board.write(PLACE_FILE, "as it was\n")
    before = path.stat()
    start(f"recording_place={setting}\n")
    examined_record(display)
    for _ in range(3):
        assert storage(next_record(display)) == NONE
    after = path.stat()
    assert path.read_bytes() == b"as it was\n"
    assert (after.st_ino, after.st_mtime_ns) == (before.st_ino, before.st_mtime_ns)


def test_the_setting_is_followed(board, start, viewer, make_client, disk):
    display = viewer()
    mount(board, "900k", "/mnt")
    mount(board, "100m", "/media")
    daemon = start("recording_place=2\n")
    assert storage(examined_record(display)) == (2, 104)
    client = make_client()

    def choose(value):
        client.send(b'{"cmd":"updateconfig","param":"recording","value":"0","value2":"%d",'
                    b'"value3":"0","value4":"0","value5":"0"}' % value)

    choose(1)
    wait_record(display, lambda record: storage(record) == NONE, "the internal place is full")
    assert NO_MNT in daemon.errors() and NO_MEDIA not in daemon.errors()
    assert_told(board, b"/media")
    choose(0)
    wait_record(display, lambda record: storage(record) == (2, 104), "the automatic choice")


def test_a_disk_of_more_than_32_bits_of_blocks(board, start, viewer):
    display = viewer()
    mount(board, "20t", "/mnt")
    start("recording_place=1\n")
    assert storage(examined_record(display)) == (1, 20 * 2**40 // 10**6)


def test_free_space_is_what_is_left(board, start, viewer):
    display = viewer()
    mount(board, "100m", "/mnt")
    start("recording_place=1\n")
    assert storage(examined_record(display)) == (1, 104)
    board.write("/mnt/recording", bytes(40 * 1024 * 1024))
    wait_record(display, lambda record: storage(record) == (1, 62), "40 MiB less")
    board.path("/mnt/recording").unlink()
    wait_record(display, lambda record: storage(record) == (1, 104), "all free again")


@pytest.mark.parametrize("setting, text", [(0, b"/mnt"), (1, b"/mnt"), (2, b"/media")])
def test_the_place_file_is_written_anew_each_time(board, start, viewer, setting, text):
    display = viewer()
    mount(board, "100m", "/mnt")
    mount(board, "50m", "/media")
    path = board.write(PLACE_FILE, "/a/place/that/is/longer\nand another line\n")
    start(f"recording_place={setting}\n")
    next_record(display)
    assert_told(board, text)
    path.unlink()
    wait_until(lambda: path.exists() and path.read_bytes() == text, "the file made again")


@pytest.mark.parametrize("setting, expected", [(0, (1, 104)), (1, (1, 104)), (2, (2, 0))])
def test_a_place_file_that_cannot_be_written(board, start, viewer, setting, expected):
    display = viewer()
    mount(board, "100m", "/mnt")
    mount(board, "50m", "/media")
    path = board.path(PLACE_FILE)
    path.mkdir(parents=True)
    daemon = start(f"recording_place={setting}\n")
    examined_record(display)
    for _ in range(3):
        assert storage(next_record(display)) == expected
    assert path.is_dir() and os.listdir(path) == []
    assert daemon.alive() and "No free space" not in daemon.errors()


@pytest.mark.parametrize("setting", [0, 1, 2])
def test_a_slow_board_examines_no_storage(board, start, viewer, disk, setting):
    display = viewer()
    path = board.write(PLACE_FILE, "as it was\n")
    before = path.stat().st_mtime_ns
    daemon = start(f"recording_place={setting}\n", model="Raspberry Pi Zero W")
    for _ in range(10):
        assert next_record(display)[22:27] == bytes(5)
    assert mounts(board) == ([], [])
    assert path.read_bytes() == b"as it was\n" and path.stat().st_mtime_ns == before
    assert "No free space" not in daemon.errors()


def test_a_slow_board_makes_no_place_file(board, start, viewer):
    display = viewer()
    start("recording_place=2\n", model="Raspberry Pi Zero W")
    for _ in range(3):
        next_record(display)
    assert not board.path(PLACE_FILE).exists()
