"""The recorder's storage: what is mounted, which place is chosen, what the record and the recorder
are told."""

import os

import pytest

from commands import install
from conftest import is_status, wait_until
from test_status import next_record, number_at, presence, wait_record

INTERNAL = ["mount /dev/mmcblk0p3 /mnt -o noatime"]
EXTERNAL = [f"mount /dev/sda{number} /media -o noatime" for number in range(4)]
PLACE_FILE = "/run/quillorbeacon/recorder_place"
NO_SPACE = "No free space on any storage\n"
NO_MNT = "No free space on /mnt or no drive mounted\n"
NO_MEDIA = "No free space on /media or no drive mounted\n"
NONE = (255, 0)


def storage(record):
    """The place and its megabytes."""
    return record[22], number_at(record, 23)


def mount(board, size, folder):
    """Puts an empty file system of that size on the folder."""
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", folder)


def mounts(board):
    """The attempts to mount storage so far: (what the shell was given, what mount was given)."""
    lines = [line for line in board.log(storage=True) if "mount /dev/" in line]
    shell = [line[len("sh -c "):] for line in lines if line.startswith("sh -c ")]
    return shell, [line for line in lines if not line.startswith("sh -c ")]


def assert_told(board, text):
    """The recorder is told `text`. The file is empty for a moment each time it is written."""
    wait_until(lambda: board.path(PLACE_FILE).read_bytes() == text, f"{text} in the place file")


@pytest.fixture(autouse=True)
def mount_that_says_something(board):
    """The shell runs mount as on a real board; elsewhere the board answers for both."""
    board.write("/sys/board/mount.out", "mount: no such device\n")


@pytest.fixture
def viewer(make_client):
    """viewer(): the display process, which gets a copy of each status record."""
    return lambda: make_client("127.0.0.1", 5253)


@pytest.fixture
def disk(board):
    """An external disk: /dev becomes a folder of the board's own, with a device file in it."""
    fresh = "/sys/board/dev"
    for name in ("null", "zero", "urandom"):
        board.write(f"{fresh}/{name}", "")
        board.run("/usr/bin/mount", "--bind", f"/dev/{name}", f"{fresh}/{name}")
    board.path(f"{fresh}/shm").mkdir()
    board.run("/usr/bin/mount", "--bind", "/dev/shm", f"{fresh}/shm")
    board.write(f"{fresh}/sda", "")
    board.run("/usr/bin/mount", "--rbind", fresh, "/dev")


def check_mounts(board, expected, rounds=3):
    """Waits for some rounds of mounts: these commands, in this order, and no others."""
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
    assert storage(next_record(display)) == (1, 104)
    assert_told(board, b"/mnt")
    check_mounts(board, INTERNAL)
    assert "No free space" not in daemon.errors()


@pytest.mark.parametrize("disk_size, expected", [("100m", (2, 104)), ("1m", (2, 1))])
def test_the_external_place(board, start, viewer, disk, disk_size, expected):
    display = viewer()
    mount(board, "500m", "/mnt")
    mount(board, disk_size, "/media")
    daemon = start("recording_place=2\n")
    assert storage(next_record(display)) == expected
    assert_told(board, b"/media")
    check_mounts(board, EXTERNAL)
    assert "No free space" not in daemon.errors()


def test_the_external_place_without_a_disk(board, start, viewer):
    display = viewer()
    mount(board, "500m", "/mnt")
    mount(board, "100m", "/media")
    daemon = start("recording_place=2\n")
    for _ in range(5):
        assert storage(next_record(display)) == (2, 0)
    assert_told(board, b"/media")
    assert mounts(board) == ([], [])
    assert "No free space" not in daemon.errors()


# "Automatic" is every value but 1 and 2, and what a file without the setting gives.
@pytest.mark.parametrize("setting", ["", "recording_place=0\n", "recording_place=3\n"])
def test_automatic_mounts_run_without_a_disk(board, start, setting):
    start(setting)
    check_mounts(board, INTERNAL + EXTERNAL)


MOUNT_THAT_WAITS = """#!/sys/board/sh
: > /tmp/mounting
while [ -e /tmp/hold ]; do sleep 0.02; done
"""


def test_what_changes_while_storage_is_mounted_is_in_the_record(
        board, start, viewer, registered_client):
    display = viewer()
    daemon = start("recording_place=0\n")
    assert next_record(display)[3] == 0
    board.write("/tmp/hold", "")
    install(board, "/sys/board/bin/mount", MOUNT_THAT_WAITS)
    wait_until(board.path("/tmp/mounting").exists, "a mount that waits")
    display.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        while True:
            display.socket.recv(65535)
    client = registered_client(daemon)
    counted = board.path("/run/quillorbeacon/clients.json")
    wait_until(lambda: client.host in counted.read_text(), "the client counted")
    source = board.socket()
    source.sendto(b"x", ("127.0.0.1", 5000))
    daemon.wait_error("Data found\n")
    board.path("/tmp/hold").unlink()

    def record_that_follows():
        source.sendto(b"x", ("127.0.0.1", 5000))  # or it is lost after a second
        try:
            packet = display.receive_any(0.1)
        except TimeoutError:
            return None
        return packet[2] if is_status(packet) else None

    record = wait_until(record_that_follows, "the record after the mounts")
    assert (record[3], *presence(record)) == (1, 1, 1, 0)


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
    assert storage(next_record(display)) == chosen
    assert_told(board, b"/mnt" if chosen[0] == 1 else b"/media")
    assert "No free space" not in daemon.errors()


@pytest.mark.parametrize("setting, message", [(0, NO_SPACE), (1, NO_MNT), (2, NO_MEDIA)])
def test_no_free_space(board, start, viewer, disk, setting, message):
    display = viewer()
    mount(board, "900k", "/mnt")
    mount(board, "900k", "/media")
    daemon = start(f"recording_place={setting}\n")
    for _ in range(3):
        assert storage(next_record(display)) == NONE
    assert not board.path(PLACE_FILE).exists()
    # Once for each record, and no other message.
    lines = [line for line in daemon.errors().splitlines(True) if "No free" in line]
    assert len(lines) >= 3 and set(lines) == {message}


@pytest.mark.parametrize("setting, full", [(0, ["/mnt", "/media"]), (1, ["/mnt"]), (2, ["/media"])])
def test_a_place_file_stays_when_there_is_no_space(board, start, viewer, disk, setting, full):
    display = viewer()
    for folder in full:
        mount(board, "900k", folder)
    path = board.write(PLACE_FILE, "as it was\n")
    before = path.stat()
    start(f"recording_place={setting}\n")
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
    assert storage(next_record(display)) == (2, 104)
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
    assert storage(next_record(display)) == (1, 20 * 2**40 // 10**6)


def test_free_space_is_what_is_left(board, start, viewer):
    display = viewer()
    mount(board, "100m", "/mnt")
    start("recording_place=1\n")
    assert storage(next_record(display)) == (1, 104)
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
