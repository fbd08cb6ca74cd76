"""beaconctl's recordings and downloads, byte for byte, over good and bad links."""

import os
import random
import signal
import stat

import pytest

from beaconctl import Ctl, bad_link, read_line, send_signal  # noqa: F401 - a fixture
from conftest import wait_until

QUIET = "recording_place=2\n"
PIECE = 59990
PARAMETER_SET = b"\0\0\0\1\x67\x42\xc0\x1f\0\0\0\1\x68\xce\0\0\0\1\x65"
OTHER_SLICE = b"\0\0\0\1\x41\x9a"


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET + "audio_enabled=1\n")


def content(size, seed=1):
    return random.Random(seed).randbytes(size)


def frames(*sizes):
    """Slices, a keyframe with its parameter set as the third, and slices again."""
    return [(PARAMETER_SET if number == 2 else OTHER_SLICE) + content(size, number)
            for number, size in enumerate(sizes)]


def start_recording(ctl, daemon, *words, options=()):
    """A recording that has registered."""
    before = daemon.errors().count("New client connected")
    process = ctl.start(*options, "record", *words, text=False)
    daemon.wait_error("New client connected", before + 1)
    return process


def end_recording(process, number=signal.SIGINT):
    send_signal(process, number)
    assert process.wait(20.0) == 0
    return process.stderr.read().decode()


# Recordings.

def test_video_from_its_first_keyframe_on(board, ctl, daemon, make_producer):
    producer = make_producer()
    board.write("/tmp/v.h264", "older")
    process = start_recording(ctl, daemon, "/tmp/v.h264")
    made = frames(3000, 1300 - len(OTHER_SLICE), 50000, 1, 2600, 100000)
    for frame in made:
        producer.publish(frame)
    expected = b"".join(made[2:])
    target = board.path("/tmp/v.h264")
    wait_until(lambda: target.stat().st_size == len(expected), "the recording")
    summary = end_recording(process)
    assert target.read_bytes() == expected
    assert summary.startswith(f"/tmp/v.h264: {len(expected)} bytes of video in ")
    assert summary.endswith(" packets, 0 lost\n")
    daemon.wait_error(" removed\n")


def test_a_start_code_that_lies_across_two_packets(board, ctl, daemon, make_producer):
    producer = make_producer()
    process = start_recording(ctl, daemon, "/tmp/v.h264")
    video = PARAMETER_SET + content(2000)
    producer.publish(OTHER_SLICE + b"x" * (1300 - len(OTHER_SLICE) - 3) + video)
    target = board.path("/tmp/v.h264")
    wait_until(lambda: target.exists() and target.stat().st_size == len(video), "the recording")
    end_recording(process)
    assert target.read_bytes() == video


def test_lost_packets_are_counted_and_left_out(board, ctl, daemon, make_producer, bad_link):  # noqa: F811
    lost = []

    def passes(to_client, _number, datagram):
        # Of the video: one packet before the recording can begin, two of it.
        if to_client and datagram[1:2] == b"\1" and datagram[12:16] in (b"lose", b"\0\0\0\0"):
            lost.append(datagram)
            return False
        return True

    link = bad_link(passes)
    producer = make_producer()
    process = start_recording(ctl, daemon, "/tmp/v.h264", options=link.options)
    first, key, last = PARAMETER_SET + content(500), content(1300), OTHER_SLICE + content(100)
    for frame in (b"lose before", first, b"lose one", key, b"lose two", last):
        producer.publish(frame)
    expected = first + key + last
    target = board.path("/tmp/v.h264")
    wait_until(lambda: target.exists() and target.stat().st_size == len(expected), "the recording")
    summary = end_recording(process)
    assert target.read_bytes() == expected and len(lost) == 3
    assert summary.endswith(" 3 packets, 2 lost\n")


def test_audio_and_data(board, ctl, daemon):
    source = board.socket(bind=("127.0.0.1", 0))
    audio = start_recording(ctl, daemon, "/tmp/a", "--type", "audio")
    data = start_recording(ctl, daemon, "-", "--type", "data")
    for number in range(5):
        source.sendto(content(200 + number), ("127.0.0.1", 5003))
        source.sendto(b"battery %d" % number, ("127.0.0.1", 5000))
        expected = b"".join(content(200 + i) for i in range(number + 1))
        wait_until(lambda: board.path("/tmp/a").exists()  # noqa: B023
                   and board.path("/tmp/a").read_bytes() == expected, "the audio")  # noqa: B023
        assert read_line(data.stdout) == f"battery {number}\n"
    assert " 5 packets, 0 lost\n" in end_recording(audio, signal.SIGTERM)
    assert "-: 50 bytes of data in " in end_recording(data)
    assert data.stdout.read() == b""


def test_nobody_reads_any_more(ctl, daemon, make_producer):
    process = start_recording(ctl, daemon, "-")
    make_producer().publish(PARAMETER_SET + b"\n" + content(1000))
    assert read_line(process.stdout)[-2:] == "e\n"  # the header's last byte is "e"
    process.stdout.close()  # and nothing more comes to be written
    assert process.wait(20.0) == 0
    daemon.wait_error(" removed\n")


def test_nothing_to_record(board, ctl, daemon):
    board.write("/tmp/v.h264", "older")
    done = ctl("record", "/tmp/v.h264", "--seconds", "0.5")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("beaconctl: nothing recorded: no video: the camera's program sends "
                           "none\n")
    assert board.path("/tmp/v.h264").read_text() == "older"
    done = ctl("record", "/tmp/c.h264", "--seconds", "0.5", "--type", "camera")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: nothing recorded: no camera has come: is internal_camera_enabled set on the "
           "board?\n")


def test_a_file_that_cannot_be_written_is_told_at_once(board, ctl, daemon):
    board.write("/tmp/file", "older")
    for file, reason in (("/nowhere/v", "No such file or directory"), ("/tmp", "Is a directory"),
                         ("/tmp/file/v", "Not a directory"), ("", "No such file or directory")):
        done = ctl("record", file, "--type", "audio")  # would go on for ever
        assert (done.returncode, done.stderr) == (1, f"beaconctl: cannot write {file}: {reason}\n")


def test_recording_at_a_terminal(board, ctl, daemon, make_producer):
    terminal = ctl.at_terminal("record", "-")
    assert terminal.end() == (2, "beaconctl: standard output is a terminal: write to a file or a "
                                 "pipe\r\n")
    terminal = ctl.at_terminal("record", "/tmp/v.h264")
    terminal.expect("no video: the camera's program sends none\x1b[K")
    make_producer().publish(PARAMETER_SET + content(1000))
    terminal.expect(f"\r{len(PARAMETER_SET) + 1000} bytes of video in ")
    terminal.interrupt()
    assert terminal.end()[0] == 0


# Downloads.

def requested_offsets(daemon, path):
    return [int(line.split(" offset ")[1].split()[0]) for line in daemon.errors().splitlines()
            if line.startswith(f"File {path} download request")]


def test_files_of_all_sizes(board, ctl, daemon):
    for size in (0, 1, PIECE, PIECE + 1, 3 * PIECE + 5):
        board.write("/media/clip.mp4", content(size))
        done = ctl("download", "/media/clip.mp4", "/run/copy")
        assert (done.returncode, done.stdout) == (0, ""), done.stderr
        assert done.stderr.startswith(f"/run/copy: {size} bytes, in ")
        assert board.path("/run/copy").read_bytes() == content(size)
    assert ctl("download", "/media/clip.mp4", "/tmp").returncode == 0
    assert board.path("/tmp/clip.mp4").read_bytes() == content(3 * PIECE + 5)
    assert not list(board.path("/run").glob("*.part"))


def test_a_missing_file_leaves_nothing_behind(board, ctl, daemon):
    board.write("/tmp/here", "older")
    done = ctl("download", "/media/nope", "/tmp/here")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "beaconctl: /media/nope: the board has no such file\n"
    assert board.path("/tmp/here").read_text() == "older"
    assert not board.path("/tmp/here.part").exists()
    board.write("/media/a", "x")
    done = ctl("download", "/media/a", "/nowhere/a")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: /nowhere/a.part: No such file or directory\n")


@pytest.mark.parametrize("kind", ["device", "link to it", "fifo", "folder"])
def test_what_is_no_file_is_not_replaced(board, ctl, daemon, kind):
    board.write("/media/a", "x")
    there = board.path("/tmp/here")
    if kind == "device":
        os.mknod(there, 0o600 | stat.S_IFCHR, os.makedev(1, 3))
    elif kind == "link to it":
        there.symlink_to("/dev/null")
    elif kind == "fifo":
        os.mkfifo(there)
    else:
        board.path("/tmp/here/a").mkdir(parents=True)
    name = "/tmp/here/a" if kind == "folder" else "/tmp/here"
    mode = board.path(name).lstat().st_mode
    done = ctl("download", "/media/a", "/tmp/here")
    assert (done.returncode, done.stderr) == (
        1, f"beaconctl: {name} is there already, and is no file\n")
    assert board.path(name).lstat().st_mode == mode
    assert not list(there.parent.rglob("*.part"))


def test_a_link_that_loses_every_tenth_piece(board, ctl, daemon, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, number, datagram: number % (10 if to_client else 7) != 0)
    data = content(20 * PIECE + 123)
    board.write("/media/clip.mp4", data)
    done = ctl(*link.options, "download", "/media/clip.mp4", "/tmp/copy")
    assert done.returncode == 0, done.stderr
    assert board.path("/tmp/copy").read_bytes() == data
    assert link.lost >= 4


def test_going_on_after_the_link_has_broken(board, ctl, daemon, bad_link):  # noqa: F811
    # Two requests before the file, then three pieces.
    link = bad_link(lambda to_client, number, datagram: number <= 5)
    data = content(6 * PIECE)
    board.write("/media/clip.mp4", data)
    words = ("download", "/media/clip.mp4", "/tmp/copy")
    done = ctl(*link.options, "--timeout", "0.4", *words)
    assert done.returncode == 3
    assert done.stderr.endswith(
        "What has come is in /tmp/copy.part; --resume goes on from there.\n")
    assert not board.path("/tmp/copy").exists()
    assert board.path("/tmp/copy.part").read_bytes() == data[:3 * PIECE]
    before = len(requested_offsets(daemon, "/media/clip.mp4"))
    done = ctl(*words, "--resume")
    assert done.returncode == 0, done.stderr
    assert board.path("/tmp/copy").read_bytes() == data
    assert not board.path("/tmp/copy.part").exists()
    offsets = requested_offsets(daemon, "/media/clip.mp4")[before:]
    assert 3 * PIECE - 4096 <= min(offsets)
    # Without anything to go on from it begins anew; what is no beginning is not gone on from.
    assert ctl(*words, "--resume").returncode == 0
    for wrong in (data[:PIECE] + b"x", data + b"x"):
        board.write("/tmp/copy.part", wrong)
        done = ctl(*words, "--resume")
        assert done.returncode == 1
        assert done.stderr.endswith(": remove it, or download without --resume\n")
        assert board.path("/tmp/copy.part").read_bytes() == wrong
    board.write("/tmp/copy.part", data)
    assert ctl(*words, "--resume").returncode == 0
    assert board.path("/tmp/copy").read_bytes() == data


def test_a_size_that_the_daemon_remembers_from_an_earlier_transfer(board, ctl, daemon, make_client):
    client = make_client()
    board.write("/media/clip.mp4", content(2 * PIECE))
    client.send(b'{"cmd":"file","param":"get","value":"/media/clip.mp4","value2":"0"}')
    assert client.receive_type(4)[2][6:10] == (2 * PIECE).to_bytes(4, "little")
    board.write("/media/clip.mp4", content(3 * PIECE, 2))
    assert ctl("download", "/media/clip.mp4", "/tmp/copy").returncode == 0
    assert board.path("/tmp/copy").read_bytes() == content(3 * PIECE, 2)


def test_progress_at_a_terminal_and_ctrl_c(board, ctl, daemon, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, number, datagram: number <= 7)
    board.write("/media/clip.mp4", content(10 * PIECE))
    terminal = ctl.at_terminal(*link.options, "download", "/media/clip.mp4", "/tmp/copy")
    bar = "[" + "#" * 12 + " " * 12 + "]"
    terminal.expect(bar + "  50 %  299.9 kB of 599.9 kB  ")
    terminal.interrupt()
    status, shown = terminal.end()
    assert status == 1 and "beaconctl: interrupted\r\nWhat has come is in /tmp/copy.part" in shown
    assert board.path("/tmp/copy.part").stat().st_size == 5 * PIECE
