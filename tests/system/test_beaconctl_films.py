"""`beaconctl record` and the names of files: films by ffmpeg, and what comes as it is."""

import functools
import os
import random
import signal
import subprocess

import pytest

from beaconctl import (LIMIT, PARAMETER_SET, Ctl, StandInCtl, bad_link,  # noqa: F401 - a fixture
                       send_signal, start_recording)
from conftest import wait_until
from h264_streams import FAST, PICTURES, encode, unit_type, units

QUIET = "recording_place=2\n"


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET)


def end_recording(process):
    send_signal(process)
    code = process.wait(LIMIT)
    return code, process.stderr.read().decode()


UNKNOWN = ("beaconctl: /tmp/{0}: there is no {1} here: .mp4, .mov and .mkv are films, .h264 is the "
           "camera's stream as it comes; --raw writes that under any name\n")


def test_an_ending_that_is_not_known_is_refused(ctl, daemon):
    for name, ending in (("x.avi", ".avi"), ("a.b/x.TS", ".ts"), ("x.h265", ".h265")):
        for words in ([], ["--type", "camera"]):
            done = ctl("record", f"/tmp/{name}", "--seconds", "0.1", *words)
            assert (done.returncode, done.stdout, done.stderr) == (
                2, "", UNKNOWN.format(name, ending)), name
    assert "New client" not in daemon.errors()


CONTENT = random.Random(1).randbytes(3000)


def test_what_comes_is_written_as_it_is(board, ctl, daemon, make_producer):
    producer = make_producer()
    board.path("/tmp/a.b").mkdir()
    os.mkfifo(board.path("/tmp/x.fifo"))
    reader = board.popen("/usr/bin/cat", "/tmp/x.fifo", stdout=subprocess.PIPE)
    films = [start_recording(ctl, daemon, *words) for words in (
        ["/tmp/x.avi", "--raw"], ["/tmp/x.mp4", "--raw"], ["/tmp/x.264"], ["/tmp/x.H264"],
        ["/tmp/.hidden"], ["/tmp/a.b/x"], ["/tmp/x.fifo"])]
    producer.publish(PARAMETER_SET + CONTENT)
    names = ["x.avi", "x.mp4", "x.264", "x.H264", ".hidden", "a.b/x"]
    for name in names:
        target = board.path(f"/tmp/{name}")
        wait_until(lambda: target.exists()  # noqa: B023
                   and target.read_bytes() == PARAMETER_SET + CONTENT, name)  # noqa: B023
    for film in films:
        assert end_recording(film)[0] == 0
    assert reader.communicate(timeout=LIMIT)[0] == PARAMETER_SET + CONTENT


def test_a_film_that_cannot_be_written_is_told_at_once(ctl, daemon):
    done = ctl("record", "/nowhere/x.mp4")  # would wait for video
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: cannot write /nowhere/x.mp4: No such file or directory\n")


@functools.cache
def stream():
    return encode([*FAST, "-x264-params", "sliced-threads=0"])  # one slice a picture


def play(producer, pictures=PICTURES):
    """Publishes pictures, with the parameter sets before them; returns the number of bytes."""
    part, size, count = b"", 0, 0
    for unit in units(stream()):
        part += b"\0\0\0\1" + unit
        if unit_type(unit) in (1, 5) and count < pictures:
            producer.publish(part)
            part, size, count = b"", size + len(part), count + 1
    return size


def frames_in(film):
    done = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-show_entries",
                           "stream=nb_read_frames", "-of", "csv=p=0", film],
                          stdout=subprocess.PIPE, check=True, text=True)
    return int(done.stdout)


def record_at_terminal(ctl, daemon, *words):
    terminal = ctl.at_terminal(*words, columns=200)  # a pause of the machine makes the line longer
    daemon.wait_error("New client connected")
    return terminal


def wait_for(terminal, size):
    terminal.expect(f"\r{size} bytes of video in ", LIMIT)


def stop_at(terminal, size):
    """Ends the recording when it has so many bytes; returns the exit status and the last words."""
    wait_for(terminal, size)
    terminal.interrupt()
    return terminal.end()


@pytest.mark.parametrize("name", ["x.mp4", "x.MOV", "x.mkv"])
def test_a_film(board, ctl, daemon, make_producer, name):
    terminal = record_at_terminal(ctl, daemon, "record", f"/tmp/{name}")
    size = play(make_producer())
    code, told = stop_at(terminal, size)
    assert code == 0 and f"/tmp/{name}: {size} bytes of video in " in told
    assert frames_in(board.path(f"/tmp/{name}")) == PICTURES
    assert not list(board.path("/tmp").glob("*.part"))


def test_a_film_that_is_not_whole_is_still_a_film(
        board, ctl, daemon, make_producer, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, _number, datagram:
                    not (to_client and datagram[12:] == b"lose"))
    terminal = record_at_terminal(ctl, daemon, *link.options, "record", "/tmp/x.mp4", "--strict")
    producer = make_producer()
    few = 10  # that the link's sockets hold
    size = play(producer, few)
    wait_for(terminal, size)
    producer.publish(b"lose")
    code, told = stop_at(terminal, size + play(producer, few))
    assert code == 1 and told.endswith("the recording is not whole, and --strict was given\r\n")
    assert link.lost == 1 and frames_in(board.path("/tmp/x.mp4")) == 2 * few
    assert not list(board.path("/tmp").glob("*.part"))


def test_a_film_whose_end_cannot_be_written_is_kept(
        board, daemon, make_producer, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, _number, datagram:
                    not (to_client and datagram[12:] == b"lose"))
    first, second = PARAMETER_SET + CONTENT[:500], PARAMETER_SET + CONTENT[500:1000]
    ctl = StandInCtl(board)
    ctl.add("ffmpeg", f"""for last; do :; done
head -c {len(first) + 1} > "${{last#file:}}"
exit 1
""")
    process = start_recording(ctl, daemon, "/tmp/x.mkv", "--strict", options=link.options)
    producer = make_producer()
    for frame in (first, b"lose", second):
        producer.publish(frame)
    assert process.wait(LIMIT) == 1
    assert process.stderr.read().endswith(
        b"beaconctl: ffmpeg could not write /tmp/x.mkv.part: it ended with status 1\n")
    assert board.path("/tmp/x.mkv.part").read_bytes() == first + second[:1]


def test_without_video_an_older_film_stays(board, ctl, daemon):
    board.write("/tmp/x.mp4", "older")
    done = ctl("record", "/tmp/x.mp4", "--seconds", "0.3")
    assert done.returncode == 1 and done.stderr.startswith("beaconctl: nothing recorded: no video")
    assert board.path("/tmp/x.mp4").read_text() == "older"
    assert not board.path("/tmp/x.mp4.part").exists()
    board.write("/tmp/x.mp4.part", "what ffmpeg could not finish")
    assert ctl("record", "/tmp/x.mp4", "--seconds", "0.3").returncode == 1
    assert board.path("/tmp/x.mp4.part").read_text() == "what ffmpeg could not finish"
