"""beaconctl's recordings and downloads, byte for byte, over good and bad links."""

import fcntl
import hashlib
import os
import random
import re
import signal
import stat
import struct
import termios
import time

import pytest

from beaconctl import (PARAMETER_SET, Ctl, bad_link, pieces_before,  # noqa: F401 - a fixture
                       read_line, send_signal, start_recording)
from conftest import wait_until

QUIET = "recording_place=2\n"
PIECE = 59990
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
    """Slices, then a keyframe with its parameter set as the third, then slices again."""
    return [(PARAMETER_SET if number == 2 else OTHER_SLICE) + content(size, number)
            for number, size in enumerate(sizes)]


def end_recording(process, number=signal.SIGINT):
    send_signal(process, number)
    assert process.wait(60) == 0
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


def publish_between(board, producer, *others):
    """Publishes each of these and a frame of a recording behind it; waits for the recording."""
    wanted = PARAMETER_SET + content(500), content(1300), OTHER_SLICE + content(100)
    for other, frame in zip(others, wanted):
        producer.publish(other)
        producer.publish(frame)
    recording = board.path("/tmp/v.h264")
    size = len(b"".join(wanted))
    wait_until(lambda: recording.exists() and recording.stat().st_size == size, "the recording")
    assert recording.read_bytes() == b"".join(wanted)


def end_with_two_lost(process):
    send_signal(process, signal.SIGINT)
    assert process.wait(60) == 1
    summary, strict = process.stderr.read().decode().splitlines()
    assert summary.endswith(" 3 packets, 2 lost")
    assert strict == "beaconctl: the recording is not whole, and --strict was given"


def test_lost_packets_are_counted_and_left_out(board, ctl, daemon, make_producer, bad_link):  # noqa: F811
    lost = []

    def passes(to_client, _number, datagram):
        # Of the video: one packet before the recording can begin, and two of the recording.
        if to_client and datagram[1:2] == b"\1" and datagram[12:16] in (b"lose", b"\0\0\0\0"):
            lost.append(datagram)
            return False
        return True

    link = bad_link(passes)
    producer = make_producer()
    process = start_recording(ctl, daemon, "/tmp/v.h264", "--strict", options=link.options)
    publish_between(board, producer, b"lose before", b"lose one", b"lose two")
    end_with_two_lost(process)
    assert len(lost) == 3


def test_packets_that_come_late_are_left_out_and_told(
        board, ctl, daemon, make_producer, bad_link):  # noqa: F811
    held = []

    def passes(to_client, _number, datagram):
        if not to_client or datagram[1:2] != b"\1" or datagram[12:16] == b"lose":
            return datagram[12:16] != b"lose"
        if datagram[12:16] == b"late":
            held.append(datagram)
            return False
        link.front.sendto(datagram, link.client)
        for each in held:
            link.front.sendto(each, link.client)
        held.clear()
        return False

    link = bad_link(passes)
    producer = make_producer()
    process = start_recording(ctl, daemon, "/tmp/v.h264", "--strict", options=link.options)
    wait_until(lambda: link.counts[True] > 3, "numbers that are counted")
    publish_between(board, producer, b"late, before the recording", b"late", b"lose")
    end_with_two_lost(process)


def test_a_late_answer_is_no_telemetry(board, ctl, daemon, bad_link):  # noqa: F811
    questions, answers, repeated = [], [], []

    def passes(to_client, _number, datagram):
        if to_client:
            answers.append(datagram)
        elif datagram != (questions or [datagram])[0] and not repeated:  # it registers
            repeated.append(link.front.sendto(answers[0], link.client))
        else:
            questions.append(datagram)
        return True

    link = bad_link(passes)
    source = board.socket(bind=("127.0.0.1", 0))
    process = start_recording(ctl, daemon, "-", "--type", "data", options=link.options)
    source.sendto(b"battery", ("127.0.0.1", 5000))
    assert read_line(process.stdout) == "battery\n" and repeated
    assert "-: 8 bytes of data in " in end_recording(process)


def test_a_gap_is_told(board, ctl, start):
    daemon = start(QUIET + "audio_enabled=1\n")
    source = board.socket(bind=("127.0.0.1", 0))
    process = start_recording(ctl, daemon, "/tmp/a", "--type", "audio")
    source.sendto(b"before", ("127.0.0.1", 5003))
    target = board.path("/tmp/a")
    wait_until(lambda: target.exists() and target.read_bytes() == b"before", "the sound")
    daemon.kill()
    time.sleep(2.1)
    daemon = start(QUIET + "audio_enabled=1\n")
    daemon.wait_error("New client connected")

    def is_heard():
        source.sendto(b", after", ("127.0.0.1", 5003))  # the daemon may not listen there yet
        return target.read_bytes().startswith(b"before, after")

    wait_until(is_heard, "the sound", interval=0.2)
    assert ", 1 gap, the longest " in end_recording(process)


def test_audio_and_data(board, ctl, daemon):
    source = board.socket(bind=("127.0.0.1", 0))
    audio = start_recording(ctl, daemon, "/tmp/a", "--type", "audio")
    data = start_recording(ctl, daemon, "-", "--type", "data")
    timed = start_recording(ctl, daemon, "-", "--type", "data", "--timestamps")
    for number in range(5):
        source.sendto(content(200 + number), ("127.0.0.1", 5003))
        source.sendto(b"battery %d" % number, ("127.0.0.1", 5000))
        expected = b"".join(content(200 + i) for i in range(number + 1))
        wait_until(lambda: board.path("/tmp/a").exists()  # noqa: B023
                   and board.path("/tmp/a").read_bytes() == expected, "the audio")  # noqa: B023
        assert read_line(data.stdout) == f"battery {number}\n"
        assert re.fullmatch(rf"20\d\d-\d\d-\d\dT\d\d:\d\d:\d\d\.\d\d\dZ battery {number}\n",
                            read_line(timed.stdout))
    assert " 5 packets, 0 lost\n" in end_recording(audio, signal.SIGTERM)
    assert "-: 50 bytes of data in " in end_recording(data)
    end_recording(timed)
    assert data.stdout.read() == b""


def test_nobody_reads_any_more(ctl, daemon, make_producer):
    process = start_recording(ctl, daemon, "-")
    make_producer().publish(PARAMETER_SET + b"\n" + content(1000))
    assert read_line(process.stdout)[-2:] == "e\n"  # the header's last byte is "e"
    process.stdout.close()  # and nothing more is sent
    assert process.wait(60) == 0
    daemon.wait_error(" removed\n")


def test_nothing_to_record(board, ctl, daemon):
    board.write("/tmp/v.h264", "older")
    done = ctl("record", "/tmp/v.h264", "--seconds", "0.5")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("beaconctl: nothing recorded: no video: the camera's program sends "
                           "none\n")
    assert board.path("/tmp/v.h264").read_text() == "older"
    told = ctl("record", "/tmp/v.h264", "--seconds", "0.3", "--progress").stderr.splitlines()
    assert len(told) == 2 and told[0] == "waiting for video"
    done = ctl("record", "/tmp/c.h264", "--seconds", "0.5", "--type", "camera")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: nothing recorded: nothing from the board's own camera: is "
           "internal_camera_enabled set?\n")


def test_a_file_that_cannot_be_written_is_told_at_once(board, ctl, daemon):
    board.write("/tmp/file", "older")
    for file, reason in (("/nowhere/v", "No such file or directory"), ("/tmp", "Is a directory"),
                         ("/tmp/file/v", "Not a directory"), ("", "No such file or directory")):
        done = ctl("record", file, "--type", "audio")  # would run forever
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


def test_a_narrow_terminal_has_the_numbers_that_matter(ctl, daemon, make_producer):
    terminal = ctl.at_terminal("record", "/tmp/v.h264", columns=26)
    terminal.expect("waiting for video\x1b[K")
    make_producer().publish(PARAMETER_SET + content(100000))
    shown = terminal.expect(" lost\x1b[K").rpartition("\r")[2]
    assert re.fullmatch(r"\d+\.\d kB, \d+ s, \d+", shown)
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
        sum_line = f"SHA-256 {hashlib.sha256(content(size)).hexdigest()}\n"
        assert done.stderr.endswith(" MB/s\n" + sum_line)
        assert board.path("/run/copy").read_bytes() == content(size)
    assert ctl("download", "/media/clip.mp4", "/tmp").returncode == 0
    assert board.path("/tmp/clip.mp4").read_bytes() == content(3 * PIECE + 5)
    assert not list(board.path("/run").glob("*.part"))


def test_a_download_into_a_pipe(board, ctl, daemon):
    text = "line\n" * 30000
    board.write("/media/log", text)
    done = ctl("download", "/media/log", "-")
    assert (done.returncode, done.stdout) == (0, text)
    assert done.stderr.startswith(f"-: {len(text)} bytes, in ")
    assert ctl("download", "/media/log", "-", "--resume").returncode == 2
    hints = {"media/log": "the path is relative to the daemon's own folder: begin it with /",
             "/media/none/": "this is a folder: name a file in it"}
    for path, hint in hints.items():
        assert ctl("download", path, "-").stderr.endswith(f"2 GiB or more; {hint}\n")


def test_a_download_into_a_pipe_that_nobody_reads_can_be_stopped(board, ctl, daemon):
    board.write("/media/film", content(3 * PIECE))
    process = ctl.start("download", "/media/film", "-")

    def waiting():
        return struct.unpack("i", fcntl.ioctl(process.stdout, termios.FIONREAD, bytes(4)))[0]

    wait_until(lambda: waiting() > PIECE, "a full pipe", 20.0)
    send_signal(process, signal.SIGTERM)
    assert process.wait(60) == 1
    assert process.stderr.read() == b"beaconctl: interrupted\n"


def test_a_missing_file_leaves_nothing_behind(board, ctl, daemon):
    board.write("/tmp/here", "older")
    done = ctl("download", "/media/nope", "/tmp/here")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == "beaconctl: /media/nope: the board has no such file, it is a folder, or it has 2 GiB or more\n"
    assert board.path("/tmp/here").read_text() == "older"
    assert not board.path("/tmp/here.part").exists()
    board.write("/media/a", "x")
    done = ctl("download", "/media/a", "/nowhere/a")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: /nowhere/a.part: No such file or directory\n")


def test_what_does_not_come_is_explained(board, ctl, daemon):
    os.truncate(board.write("/media/long", ""), 2**31)
    for path in ("/media/long", "/media"):
        done = ctl("download", path, "/tmp/here")
        assert (done.returncode, done.stderr) == (
            1, f"beaconctl: {path}: the board has no such file, it is a folder, or it has 2 GiB or "
               "more\n")
    assert not list(board.path("/tmp").glob("here*"))


def test_a_download_goes_on_when_a_full_disk_has_space_again(board, ctl, daemon):
    whole = content(5 * PIECE)
    board.write("/media/clip.mp4", whole)
    board.path("/tmp/small").mkdir()
    disk = ["/usr/bin/mount", "-t", "tmpfs", "-o", "size=128k", "none", "/tmp/small"]
    board.run(*disk)
    done = ctl("download", "/media/clip.mp4", "/tmp/small/copy")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: /tmp/small/copy.part: No space left on device\n"
           "/tmp/small/copy.part has what was received; --resume continues from there.\n")
    board.run(*disk[:4], "remount,size=10m", *disk[5:])
    done = ctl("download", "/media/clip.mp4", "/tmp/small/copy", "--resume")
    assert done.returncode == 0
    assert board.path("/tmp/small/copy").read_bytes() == whole


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
        1, f"beaconctl: {name} already exists, and is not a file\n")
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
    link = bad_link(pieces_before(3 * PIECE))
    data = content(6 * PIECE)
    board.write("/media/clip.mp4", data)
    words = ("download", "/media/clip.mp4", "/tmp/copy")
    done = ctl(*link.options, "--timeout", "2", *words)
    assert done.returncode == 3
    assert done.stderr.endswith(
        "/tmp/copy.part has what was received; --resume continues from there.\n")
    assert not board.path("/tmp/copy").exists()
    assert board.path("/tmp/copy.part").read_bytes() == data[:3 * PIECE]
    before = len(requested_offsets(daemon, "/media/clip.mp4"))
    done = ctl(*words, "--resume")
    assert done.returncode == 0, done.stderr
    assert board.path("/tmp/copy").read_bytes() == data
    assert done.stderr.endswith(f"SHA-256 {hashlib.sha256(data).hexdigest()}\n")
    assert not board.path("/tmp/copy.part").exists()
    offsets = requested_offsets(daemon, "/media/clip.mp4")[before:]
    assert 3 * PIECE - 4096 <= min(offsets)
    # With nothing to resume it starts anew; a file that is not a beginning is not resumed.
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
    link = bad_link(pieces_before(5 * PIECE))
    board.write("/media/clip.mp4", content(10 * PIECE))
    terminal = ctl.at_terminal(*link.options, "download", "/media/clip.mp4", "/tmp/copy")
    bar = "[" + "#" * 12 + " " * 12 + "]"
    terminal.expect(bar + "  50 %  299.9 kB of 599.9 kB  ")
    terminal.interrupt()
    status, shown = terminal.end()
    assert status == 1 and "beaconctl: interrupted\r\n/tmp/copy.part has what was received" in shown
    assert board.path("/tmp/copy.part").stat().st_size == 5 * PIECE
