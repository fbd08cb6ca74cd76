"""Stopping and signalling real processes, and setting the frame rings up again."""

import os

import pytest

from commands import Console, install, log_lines, release, running, spawn
from conftest import Producer, wait_until

RTMP = ("streaming", "rtmp", "1")
SRT = ("streaming", "srt", "1")
TRANSCODING = ("transcoding", "1")
AUDIO = ("audio", "1")
DISPLAY = ("display", "enabled", "1")
TFT = ("tft_display", "model", "1")


@pytest.fixture
def console(board, daemon, make_client):
    return Console(board, daemon, make_client())


@pytest.mark.parametrize("name, update", [
    ("rtmp-restreamer", RTMP), ("gst-rtmp", RTMP), ("rtsp-server-manager", ("streaming", "rtsp")),
    ("srt-restreamer", SRT), ("srt-live-transmit", SRT), ("gst-srt", SRT),
    ("transcoder", TRANSCODING), ("srt-restreamer", TRANSCODING),
    ("srt-live-transmit", TRANSCODING), ("gst-srt", TRANSCODING),
    ("rtsp-server-manager", TRANSCODING), ("gst-audio-src", AUDIO), ("gst-rtmp", AUDIO),
    ("rtsp-server-manager", AUDIO), ("display", DISPLAY), ("osd", DISPLAY),
    ("tft-display-waveshare20", TFT), ("tft-display-waveshare35a", TFT),
    ("tft-display-waveshare35b", ("tft_display", "enabled", "1")),
    ("raspivid", ("internal_camera", "0")), ("rc", ("rc", "1")),
    ("display", ("cvbs", "testandsave", "PAL", "4:3", "")), ("osd", ("hdmi", "test", "CEA", "4")),
])
def test_a_running_process_is_killed(board, console, name, update):
    process = spawn(board, name)
    other = spawn(board, name + "-x")
    [pid] = running(board, name)
    console.update(*update)
    assert process.wait(10) == -9
    assert f"kill {name} (PID {pid})" in console.errors
    at = console.commands.index(f"pidof {name}")
    assert console.commands[at + 1] == f"kill -9 {pid}"
    assert sum(command.startswith("kill ") for command in console.commands) == 1
    assert f"can't kill {name} (PID not found)" not in console.errors
    assert other.poll() is None
    console.update(*update)
    assert f"can't kill {name} (PID not found)" in console.errors


@pytest.mark.parametrize("update", [("recording", "0"), ("rec", "0"), ("rec", "1")])
def test_the_recorder_is_signalled(board, console, update):
    process = spawn(board, "recorder")
    [pid] = running(board, "recorder")
    console.update(*update)
    assert process.wait(10) == -10
    assert f"send signal 10 to process recorder (PID {pid})" in console.errors
    at = console.commands.index("pidof recorder")
    assert console.commands[at + 1] == f"kill -10 {pid}"


def test_app_type_kills_the_tft_displays(board, console):
    processes = [spawn(board, f"tft-display-waveshare{kind}") for kind in ("20", "35a", "35b")]
    console.send("app_type", "1")
    assert console.daemon.wait_exit() == 1
    assert [process.wait(10) for process in processes] == [-9] * 3


def test_of_two_processes_the_first_that_pidof_prints_is_killed(board, console):
    for count in (1, 2):
        spawn(board, "rtsp-server-manager", count)
    first, second = running(board, "rtsp-server-manager")
    console.update("streaming", "rtsp", "1")
    assert console.commands[-1] == f"kill -9 {first}"
    wait_until(lambda: running(board, "rtsp-server-manager") == [second], "one process killed")
    console.update("streaming", "rtsp", "1")
    assert console.commands[-1] == f"kill -9 {second}"
    wait_until(lambda: running(board, "rtsp-server-manager") == [], "the other killed")


def messages(console):
    """The lines about processes, without the shell's own messages about a wrong PID."""
    return [line for line in console.errors if "PID" in line]


@pytest.mark.parametrize("printed, pid", [
    ("77777", "77777"), ("77777 1\n", "77777"), ("77777\n88888\n", "77777"),
    ("1234567890\n", "123456789"), ("99999999999999999999\n", "999999999"),
    ("  7777777777\n", "7777777"), ("77777x\n", "77777"), ("", None), ("\n77777\n", None),
    ("none\n", None), ("x 77777\n", None), ("0\n", None), ("-5\n", None),
])
def test_what_pidof_prints(board, console, printed, pid):
    board.prepare_output("pidof", printed)
    install(board, "/sys/board/bin/pidof", board.path("/sys/board/stand-in").read_bytes())
    console.update("streaming", "rtsp", "1")
    name = "rtsp-server-manager"
    assert console.commands[4:] == [f"pidof {name}"] + ([f"kill -9 {pid}"] if pid else [])
    assert messages(console) == [
        f"kill {name} (PID {pid})" if pid else f"can't kill {name} (PID not found)"]
    console.update("rec", "0")
    assert console.commands[:-1] == ["pidof recorder"] + ([f"kill -10 {pid}"] if pid else [])
    assert messages(console) == [
        f"send signal 10 to process recorder (PID {pid})" if pid else
        "can't send signal 10 to process recorder (PID not found)"]


def test_one_answer_does_not_stand_for_the_next(board, console):
    install(board, "/sys/board/bin/pidof",
            "#!/sys/board/sh\n[ $1 != rtmp-restreamer ] || echo 77777\n")
    console.update("streaming", "rtmp", "1")
    assert messages(console) == ["kill rtmp-restreamer (PID 77777)",
                                 "can't kill gst-rtmp (PID not found)"]


def test_without_pidof_nothing_is_killed(board, console):
    install(board, "/sys/board/bin/pidof", "#!/nowhere\n")
    console.update("streaming", "rtsp", "1")
    assert messages(console) == ["can't kill rtsp-server-manager (PID not found)"]


def test_the_message_comes_before_the_command(board, console):
    """The shell of this board delays every `kill`."""
    board.write("/tmp/hold/kill", "")
    board.write("/sys/board/pidof.out", "77777\n")
    install(board, "/sys/board/bin/pidof", board.path("/sys/board/stand-in").read_bytes())
    shell = board.path("/sys/board/logging-sh")
    script = shell.read_text().replace(
        "exec ", "case $text in kill*) while [ -e /tmp/hold/kill ]; do sleep 0.02; done;; esac\n"
        "exec ")
    with open(shell, "r+", encoding="utf-8") as kept:  # the file itself is mounted
        kept.write(script)
    for update, message, command in [
            (("streaming", "rtsp"), "kill rtsp-server-manager (PID 77777)\n", "kill -9 77777"),
            (("rec", "0"), "send signal 10 to process recorder (PID 77777)\n", "kill -10 77777")]:
        board.write("/tmp/hold/kill", "")
        console.send(*update)
        wait_until(lambda text=f"sh -c {command}": text in log_lines(board), command)
        assert message in console.daemon.errors()
        release(board, "kill")
        console.finish()


def test_lookups_leave_no_descriptor_open(console):
    def count():
        return len(os.listdir(f"/proc/{console.daemon.pid}/fd"))

    console.update("transcoding", "0")
    before = count()
    for _ in range(5):
        console.update("transcoding", "0")
        console.update("rec", "0")
        console.update("hdmi", "testandsave", "CEA", "4")
    # Other threads open files for a moment.
    wait_until(lambda: count() <= before, "no more descriptors than before")


# The frame rings.

MAIN = "quillorbeacon_framebuffer"
SECOND = "quillorbeacon_framebuffer_transcoding"


def mappings(daemon):
    with open(f"/proc/{daemon.pid}/maps", encoding="utf-8") as maps:
        names = [line.split()[5] for line in maps if "/dev/shm/" in line]
    return sorted(name for name in names if "framebuffer" in name)


def test_transcoding_sets_the_rings_up_again_and_keeps_what_is_in_them(board, console):
    rings = [Producer(board, MAIN), Producer(board, SECOND)]
    for ring in rings:
        ring.memory[0:24] = bytes([7, 8, 9, 10, 11, 12, 30, 0]) + bytes(range(16))
        ring.fill(190, b"left here", 5, ready=0)
        ring.memory[ring.slot_at(190) + 7:ring.slot_at(190) + 9] = b"pr"
    before = [bytes(ring.memory) for ring in rings]
    console.update("transcoding", "0")
    for ring, old in zip(rings, before):
        assert ring.memory[0:2] == b"\1\0"
        assert ring.memory[2:] == old[2:]


def test_transcoding_makes_rings_that_are_gone(board, console, registered_client):
    receiver = registered_client(console.daemon, "127.0.0.7")
    for name in (MAIN, SECOND):
        board.path(f"/dev/shm/{name}").unlink()
    console.update("transcoding", "0")
    for name, size in ((MAIN, 60003624), (SECOND, 13003624)):
        assert board.path(f"/dev/shm/{name}").stat().st_size == size
        assert board.path(f"/dev/shm/{name}").read_bytes()[:2] == b"\1\0"
    Producer(board, MAIN).publish(b"in the new ring")
    assert receiver.receive_type(1)[2] == b"in the new ring"
    console.update("transcoding", "1")
    second = Producer(board, SECOND)
    second.identifier = 50  # one that was not seen yet
    second.publish(b"transcoded")
    assert receiver.receive_type(1)[2] == b"transcoded"


def test_each_ring_is_mapped_once_however_often_it_is_set_up(console):
    assert mappings(console.daemon) == [f"/dev/shm/{MAIN}", f"/dev/shm/{SECOND}"]
    for number in range(20):
        console.send("transcoding", str(number % 2))
    console.finish()
    console.update("transcoding", "0")
    assert mappings(console.daemon) == [f"/dev/shm/{MAIN}", f"/dev/shm/{SECOND}"]
    assert console.daemon.errors().count("Init frame buffer 60003624 bytes\n") == 22
    assert console.daemon.errors().count(
        "Init frame buffer for transcoding 13003624 bytes\n") == 22
