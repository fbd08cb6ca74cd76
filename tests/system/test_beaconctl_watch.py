"""What `beaconctl watch` measures while it runs: video, losses, the daemon's restarts."""

import json
import re
import threading

import pytest

from beaconctl import Ctl, bad_link, read_line, send_signal  # noqa: F401 - a fixture
from conftest import wait_until

QUIET = "recording_place=2\n"
KEY_PICTURE = b"\0\0\0\1\x67\x42\xc0\x1f\0\0\0\1\x68\xce\0\0\0\1\x65\x88"
SECOND_SLICE = b"\0\0\0\1\x65\x40"
PICTURE = KEY_PICTURE + bytes([255]) * 2000 + SECOND_SLICE + bytes([255]) * 400


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def video(make_producer):
    """video(): pictures of two slices, 50 a second, until the test ends."""
    stopped = threading.Event()
    threads = []

    def begin():
        producer = make_producer()

        def publish():
            while not stopped.wait(0.02):
                producer.publish(PICTURE)

        threads.append(threading.Thread(target=publish))
        threads[0].start()

    yield begin
    stopped.set()
    for thread in threads:
        thread.join()


def next_object(process, condition, what):
    """The next object of a watch in JSON for which the condition holds."""
    found = []

    def is_there():
        found.append(json.loads(read_line(process.stdout)))
        return condition(found[-1])

    wait_until(is_there, what, 60.0)
    return found[-1]


def test_it_measures_the_video(ctl, start, video):
    start(QUIET)
    video()
    process = ctl.start("watch", "--json")
    first = json.loads(read_line(process.stdout))
    assert first["frames_per_second"] is None and first["lost"] == 0
    measured = next_object(process, lambda it: it["frames_per_second"], "pictures")
    # Whole pictures, however many slices each has, and their size: a loaded machine makes fewer.
    assert 2 < measured["frames_per_second"] <= 51
    assert measured["video_mbits"] == pytest.approx(
        measured["frames_per_second"] * len(PICTURE) * 8e-6, rel=0.05)
    assert measured["restarts"] == 0 and measured["sequence"] > 50
    send_signal(process)
    assert process.wait(60) == 0


def test_it_counts_losses_and_says_so_in_its_log(start, ctl, video, bad_link):  # noqa: F811
    start(QUIET)
    video()
    is_bad = threading.Event()
    link = bad_link(lambda to_client, number, datagram:
                    not (to_client and is_bad.is_set() and datagram[1] == 1 and number % 10 == 0))
    process = ctl.start(*link.options, "watch")
    wait_until(lambda: "lost: 0 packets" in read_line(process.stdout), "a line")
    is_bad.set()
    lines = []

    def has_lost():
        lines.append(read_line(process.stdout, 60.0))
        return re.search(r"; video: \d+\.\d frames/s, \d+\.\d\d Mbit/s; lost: [1-9]\d* packets\n",
                         lines[-1])

    wait_until(has_lost, "losses", 60.0)
    assert re.match(r"20\d\d-\d\d-\d\d \d\d:\d\d:\d\d sources: ", lines[-1])
    send_signal(process)
    assert process.wait(60) == 0


def test_it_notices_a_restart(ctl, start, video):
    daemon = start(QUIET)
    video()
    process = ctl.start("watch", "--json")
    before = next_object(process, lambda it: it.get("sequence", 0) > 300, "packets")
    assert before["restarts"] == 0
    daemon.kill()
    start(QUIET)
    after = next_object(process, lambda it: it.get("restarts") == 1, "the restart")
    assert after["seen_seconds"] < before["seen_seconds"] + 30
    send_signal(process)
    assert process.wait(60) == 0


def test_without_streams_it_spares_the_link(ctl, start, video):
    daemon = start(QUIET)
    video()
    process = ctl.start("watch", "--json", "--no-streams")
    daemon.wait_error("(no video/audio)\n")
    last = [json.loads(read_line(process.stdout)) for _ in range(4)][-1]
    assert last["frames_per_second"] is None and last["lost"] is None and last["sequence"] > 0
    send_signal(process)
    assert process.wait(60) == 0
    terminal = ctl.at_terminal("watch", "--no-streams")
    terminal.expect("Video        -")
    terminal.expect("Lost         -")
    terminal.type("q")
    assert terminal.end()[0] == 0


def test_free_space_without_a_drive_is_not_the_drives(board, ctl, start):
    """While nothing is mounted at /media, its free space is the system's."""
    board.run("/usr/bin/umount", "/media")
    start("")
    wait_until(lambda: "external, no drive mounted: -" in ctl("watch", "--once").stdout, "a dash")
    terminal = ctl.at_terminal("watch")
    terminal.expect("external, no drive mounted: -")
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=80g", "none", "/media")
    terminal.expect("external, 85.9 GB free", 60.0)
    terminal.type("q")
    assert terminal.end()[0] == 0


def test_what_is_switched_on_and_shows_no_sign(board, ctl, start):
    start(QUIET + "recording_enabled=1\nstream_rtmp_enabled=1\nrtsp_server_enabled=1\n")
    wait_until(lambda: "recording (wanted, not running), RTMP (wanted, not running), "
               "RTSP (wanted, no viewer)" in ctl("watch", "--once").stdout, "what is wanted")
    board.write("/run/quillorbeacon/recorder.info", "75")
    wait_until(lambda: "recording (75)" in ctl("watch", "--once").stdout, "the number")
