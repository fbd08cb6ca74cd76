"""beacon-sim, the simulated camera, gimbal and radio control, with the real daemon."""

import fcntl
import json
import os
import re
import signal
import struct
import subprocess
import termios
import time
from pathlib import Path

import pytest

from conftest import BUILD, REPOSITORY, SANITIZERS, wait_until
from test_shared_memory_full import empty, fill
from viewer import Program

SIMULATOR = BUILD / "beacon-sim"
BLOCK = "/dev/shm/shared_rc_raw"
CAMERA = "/dev/shm/shared_camstate"
QUIET = "recording_place=2\n"
STICKS = QUIET + 'rc1_channels=%s\n' % json.dumps(
    [{"ch": n, "min": 1000, "c": 1500, "max": 2000, "f": n + 1} for n in (1, 2, 3)])
SMALL = ["--size", "320x180", "--bitrate", "1000"]
BARE = ["--no-video", "--no-audio"]


class Simulator(Program):
    """beacon-sim on a board."""

    def __init__(self, board, folder, options, **started):
        super().__init__(board, folder, SIMULATOR, *options, name="sim",
                         env={**SANITIZERS, **started.pop("env", {})}, **started)

    def says(self, text, count=1):
        wait_until(lambda: self.out.read_text().count(text) >= count, f"{text!r} on stdout")


@pytest.fixture
def simulate(board, tmp_path):
    """simulate(option, ...): beacon-sim, running on the board."""
    return lambda *options, **started: Simulator(board, tmp_path, options, **started)


def telemetry(viewer):
    return [line for line in viewer.payloads[0] if line.startswith(b"T1 ")]


def frames_told(viewer):
    """The number of published frames, according to the telemetry."""
    lines = telemetry(viewer)
    return int(re.search(rb"frames=(\d+)", lines[-1])[1]) if lines else 0


def camera_angles(board):
    return [tenths / 10 for tenths in struct.unpack("<3h", board.path(CAMERA).read_bytes())]


def decoded_frames(stream):
    """The number of pictures that ffmpeg decodes, and its error messages."""
    result = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-f", "h264", "-i", "-",
                             "-fps_mode", "passthrough", "-f", "framemd5", "-"],
                            input=stream, capture_output=True, check=False, timeout=60)
    return sum(not line.startswith(b"#") for line in result.stdout.splitlines()), result.stderr


@pytest.fixture
def film(board):
    """A one-second file on the board: 25 frames, and sound at another rate."""
    board.run("/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
              "testsrc2=size=160x120:rate=25:duration=1", "-f", "lavfi", "-i",
              "sine=frequency=1000:sample_rate=44100:duration=1", "-c:v", "libx264", "-preset",
              "ultrafast", "-c:a", "aac", "/tmp/film.mp4")
    return "/tmp/film.mp4"


def test_everything_arrives(board, start, watch, simulate):
    daemon = start(QUIET + "audio_enabled=1\n")
    viewer = watch(daemon)
    simulator = simulate(*SMALL, "--record", "/tmp/record")
    wait_until(lambda: frames_told(viewer) > 30, "a second of video", 20.0)
    assert simulator.end() == 0
    record = json.loads(board.path("/tmp/record/record.json").read_text())
    published = board.path("/tmp/record/published.h264").read_bytes()
    wait_until(lambda: len(viewer.video()) >= len(published), "the rest of the video")
    wait_until(lambda: len(viewer.payloads[2]) >= record["audio"], "the rest of the sound")
    assert viewer.video() == published and len(published) == record["bytes"]
    assert decoded_frames(published) == (record["frames"], b"")
    assert len(telemetry(viewer)) == record["telemetry"]
    assert [int(re.match(rb"T1 number=(\d+) ", line)[1]) for line in telemetry(viewer)] == list(
        range(record["telemetry"]))
    # A tone without gaps: the sign of the samples changes 880 times a second.
    sound = b"".join(viewer.payloads[2])
    assert len(sound) == 640 * record["audio"] > 0
    samples = [value for value, in struct.iter_unpack("<h", sound)]
    changes = sum((a < 0) != (b < 0) for a, b in zip(samples, samples[1:]))
    assert abs(changes - 880 * len(samples) / 16000) <= 2 and max(samples) == 8000
    for line in (rf"video +{record['frames']} frames, {record['bytes']} bytes",
                 rf"telemetry +{record['telemetry']} datagrams; {record['commands']} commands"):
        assert re.search(line, simulator.out.read_text())
    assert simulator.err.read_text() == ""
    assert "Data found" in daemon.errors() and "Video found" in daemon.errors()


def test_commands_are_printed_and_poses_reached(board, daemon, simulate, make_client):
    simulator = simulate(*BARE)
    daemon.wait_error("Data found")
    client = make_client()
    client.send(b'!{"cmd":"position","name":"","param":"abs","value":"35.0","value2":"-20.0",'
                b'"value3":"12.5"}')
    client.send(b"!\x01\\\n")
    client.send(bytes([5, 1, 0x61, 0]))
    wait_until(lambda: camera_angles(board) == [3.5, -2.0, 1.2] or
               camera_angles(board) == [3.5, -2.0, 1.3], "the pose")
    simulator.says('{"cmd":"set","name":"movement","param":"","value":"rel"')
    simulator.says("\\x05\\x01a\\x00\n")
    assert re.search(r'(?m)^ *\d+\.\d{3}  command  !\{"cmd":"position",.*"value3":"12.5"\}$',
                     simulator.out.read_text())
    assert re.search(r"(?m)^ *\d+\.\d{3}  command  !\\x01\\x5c\\x0a$", simulator.out.read_text())
    assert simulator.end(signal.SIGINT) == 0


def test_commands_are_answered(daemon, simulate, make_client, watch):
    simulator = simulate(*BARE)
    daemon.wait_error("Data found")
    viewer = watch(daemon)
    client = make_client()
    simulator.says('"cmd":"set","name":"movement"')
    client.send(b'!{"cmd":"shot","param":""}')
    client.send(b'!{"cmd":"set","name":"iso","param":"","value":"100"}')
    client.send(b"!zoom")
    client.send(b'!{"param":"x"}')
    client.send(b'!{"cmd":"' + b"\xc3\xa4" * 60 + b'"}')
    simulator.says('"cmd":"set","name":"movement"', 2)
    client.send(b'!{"cmd":"last"}')
    wait_until(lambda: any(line.endswith(b" cmd=last") for line in viewer.payloads[0]), "answers")
    lines = [re.fullmatch(rb"(?s)(?:T1|A1) number=(\d+) (.*)", line)
             for line in viewer.payloads[0] if line[:3] in (b"T1 ", b"A1 ")]
    answers = [line[2].removeprefix(b"cmd=") for line in lines if line[0].startswith(b"A1 ")]
    assert answers == [b"shot", b"set", b"?", b"", b"\\xc3\\xa4" * 5, b"last"]
    # One count for both kinds of lines.
    numbers = [int(line[1]) for line in lines]
    assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))
    assert simulator.end() == 0


def test_the_gimbal_reaches_the_poses_of_a_movement_list(board, start, simulate):
    poses = [(9.0, -8.0, 0.0), (-9.0, 8.0, 0.0)]
    fields = ";".join(",".join(map(str, pose)) + ",,,,,0,0," for pose in poses)
    daemon = start(QUIET + f'automove_list="{fields}"\nautomove_enabled=1\n'
                   "automove_smooth=1\nautomove_smooth_speed=5\n")
    simulate(*BARE)
    for number, pose in enumerate(poses):
        wait_until(lambda p=pose: all(abs(a - b) <= 5.1
                                      for a, b in zip(camera_angles(board), p)), pose, 20.0)
        daemon.wait_error("Start new movement ID", number + 1)


def function_value(board, function):
    with open(board.path(BLOCK), "rb") as block:
        block.seek(1040 + 8 * function)
        return struct.unpack("<d", block.read(8))[0]


def test_a_stick_script_moves_the_gimbal(board, start, simulate):
    daemon = start(STICKS)
    board.write("/tmp/sticks", "0 ch1=1500 ch2=1500 ch17=1700 # both receivers\n"
                               "0.4 ch1=1500\n1.2 ch1=1900\n2 ch1=1900\n2 ch1=1500 ch2=1250\n")
    simulator = simulate(*BARE, "--no-telemetry", "--sticks", "/tmp/sticks",
                         "--record", "/tmp/record")
    seen = set()

    def is_done():
        seen.add(round(function_value(board, 2), 3))
        return function_value(board, 3) == -0.5

    wait_until(is_done, "the last line of the script", interval=0.001)
    assert {0.0, 0.8} <= seen and len(seen) > 6, seen  # a straight line, in steps
    assert "RC1 found" in daemon.errors() and "RC2 found" in daemon.errors()
    wait_until(lambda: camera_angles(board)[0] < -10 and camera_angles(board)[1] < 0, "a turn")
    assert simulator.end() == 0
    daemon.wait_error("RC1 lost")
    assert json.loads(board.path("/tmp/record/record.json").read_text())["turned"] > 5


@pytest.fixture
def terminal():
    """Both ends of a terminal: one to type at, one for a program."""
    ends = os.openpty()
    yield ends
    for end in ends:
        os.close(end)


def test_keys_move_the_sticks(board, start, simulate, terminal):
    start(STICKS)
    outside, inside = terminal
    before = termios.tcgetattr(inside)
    simulator = simulate(*BARE, "--keys", stdin=inside, start_new_session=True,
                         preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
    wait_until(lambda: termios.tcgetattr(inside)[3] & (termios.ICANON | termios.ECHO) == 0, "keys")
    simulator_pid = simulator.pid
    os.write(outside, b"\x1b[C\x1b[Cd" + b"ws\x1b[B" + b"q")
    for function, value in ((2, 0.6), (3, -0.2), (4, -0.2)):
        wait_until(lambda f=function, v=value: abs(function_value(board, f) - v) < 1e-9, function)
    os.write(outside, b" ")
    wait_until(lambda: function_value(board, 2) == 0.0, "the centre")
    os.write(outside, b"1")
    simulator.says("sticks   ch1=1500 ch2=1500 ch3=1500 ch5=2000 ")

    def state():
        return Path(f"/proc/{simulator_pid}/stat").read_text().rpartition(")")[2].split()[0]

    # Ctrl-Z restores the terminal, SIGCONT takes it again, Ctrl-C restores it for good.
    os.write(outside, b"\x1a")
    wait_until(lambda: state() == "T", "stopped")
    assert termios.tcgetattr(inside) == before
    os.kill(simulator_pid, signal.SIGCONT)
    wait_until(lambda: termios.tcgetattr(inside) != before, "keys again")
    os.write(outside, b"\x03")
    simulator.says("Ran for ")
    assert termios.tcgetattr(inside) == before


def test_it_waits_for_the_daemon(board, start, simulate):
    simulator = simulate(*SMALL)
    simulator.complains("beacon-sim: waiting for the daemon: there is no /dev/shm/shared_rc_raw\n")
    first = start(QUIET)
    simulator.complains("beacon-sim: the daemon is running\n")
    first.wait_error("Video found")
    first.kill()
    simulator.complains("beacon-sim: the daemon is gone, waiting for it\n")
    start(QUIET).wait_error("Video found")
    simulator.complains("beacon-sim: the daemon is back\n")
    assert simulator.end() == 0


def test_shared_memory_alone_is_no_daemon(board, start, simulate):
    start(QUIET).kill()
    simulator = simulate()
    simulator.complains("waiting for the daemon: nothing listens on 127.0.0.1\n")
    assert simulator.end() == 1
    assert simulator.err.read_text().endswith(
        "beacon-sim: stopped while waiting for the daemon\n")


def test_a_full_shared_memory_is_waited_for(board, daemon, watch, simulate):
    viewer = watch(daemon)
    fill(board)
    simulator = simulate(*SMALL)
    simulator.complains("beacon-sim: /dev/shm is full, waiting for room\n")
    empty(board)
    simulator.complains("beacon-sim: /dev/shm has room again\n")
    daemon.wait_error("Video found")
    wait_until(lambda: frames_told(viewer) > 5, "video", 20.0)
    assert simulator.end() == 0
    assert simulator.err.read_text().count("\n") == 2


def test_a_second_signal_ends_the_waiting_for_the_last_frames(board, daemon, simulate):
    simulator = simulate(*SMALL)
    daemon.wait_error("Video found")
    os.kill(daemon.pid, signal.SIGSTOP)
    simulator.complains("the daemon takes no frames from this ring, waiting for it\n")
    os.kill(simulator.pid, signal.SIGTERM)
    children = Path(f"/proc/{simulator.pid}/task/{simulator.pid}/children")
    wait_until(lambda: not children.read_text(), "the encoder's end")
    assert simulator.end() == 1
    assert simulator.err.read_text().endswith(
        "beacon-sim: stopped before the daemon had taken every frame\n")


def test_a_daemon_that_is_gone_takes_no_last_frames(board, daemon, simulate):
    simulator = simulate(*SMALL, "--record", "/tmp/record")
    daemon.wait_error("Video found")
    daemon.kill()
    simulator.complains("beacon-sim: the daemon is gone, waiting for it\n")
    frames = board.path("/tmp/record/frames.bin")
    length = frames.stat().st_size
    wait_until(lambda: frames.stat().st_size > length, "a frame that nobody takes")
    assert simulator.end() == 1
    assert simulator.err.read_text().endswith("beacon-sim: the daemon no longer takes frames\n")


def test_a_file_is_played_once(board, start, watch, simulate, film):
    daemon = start(QUIET + "audio_enabled=1\n")
    viewer = watch(daemon)
    simulator = simulate("--video", film, "--once", "--rate", "50", "--size", "128x128",
                         "--record", "/tmp/record")
    assert simulator.process.wait(60) == 0
    record = json.loads(board.path("/tmp/record/record.json").read_text())
    assert record["frames"] == 50 and abs(record["audio"] - 50) <= 3
    wait_until(lambda: len(viewer.payloads[2]) == record["audio"], "the sound")
    samples = [v for v, in struct.iter_unpack("<h", b"".join(viewer.payloads[2]))]
    changes = sum((a < 0) != (b < 0) for a, b in zip(samples, samples[1:]))
    assert abs(changes - 2000) < 100
    assert decoded_frames(viewer.video()) == (50, b"")


def test_a_file_is_played_again_and_again_into_the_transcoding_ring(
        board, start, watch, simulate):
    # A plain stream, which cannot seek.
    board.run("/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
              "testsrc2=size=160x120:rate=25:duration=0.6", "-c:v", "libx264", "/tmp/film.h264")
    daemon = start(QUIET + "transcoding_enabled=1\n")
    viewer = watch(daemon)
    simulator = simulate("--video", "/tmp/film.h264", "--rate", "25", "--size", "128x128",
                         "--ring", "transcoding")
    wait_until(lambda: frames_told(viewer) > 40, "a third round", 60.0)
    assert simulator.end() == 0
    assert simulator.err.read_text() == ""
    frames = int(re.search(r"video +(\d+) frames", simulator.out.read_text())[1])
    assert decoded_frames(viewer.video()) == (frames, b"")


ERRORS = {
    ("--video", "/tmp/none"): (1, "cannot read /tmp/none: No such file or directory"),
    ("--video", "/tmp/text"): (1, "cannot read /tmp/text: not a format that ffmpeg knows"),
    ("--video", "/tmp/sound.wav"): (1, "/tmp/sound.wav has no video"),
    ("--sticks", "/tmp/none"): (1, "cannot read /tmp/none: No such file or directory"),
    ("--sticks", "/tmp"): (1, "cannot read /tmp: Is a directory"),
    ("--sticks", "/tmp/text"): (1, '/tmp/text: line 1: not a time in seconds: "no"'),
    ("--record", "/none/record"): (1, "cannot make /none/record: No such file or directory"),
    ("--keys",): (1, "--keys needs a terminal on standard input"),
    ("--size", "10x10"): (2, None),
    ("--rate", "0"): (2, None),
    ("--once",): (2, None),
    ("--keys", "--sticks", "circle"): (2, None),
    ("--ring", "other"): (2, None),
    ("more",): (2, None),
}


def test_errors_are_one_line(board, simulate):
    board.write("/tmp/text", "no video\n")
    board.run("/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
              "sine=duration=0.1", "/tmp/sound.wav")
    for options, (status, text) in ERRORS.items():
        simulator = simulate(*options)
        assert simulator.process.wait(60) == status, options
        said = simulator.err.read_text()
        assert said == f"beacon-sim: {text}\n" if text else said.startswith("beacon-sim: "), options
        assert said.count("\n") == 1 and simulator.out.read_text() == "", options


def test_without_ffmpeg_or_shared_memory(board, daemon, simulate):
    missing = simulate(env={"PATH": "/none"})
    assert missing.process.wait(60) == 1
    assert missing.err.read_text() == ("beacon-sim: cannot start ffmpeg: No such file or directory "
                                       "(Debian has it in the package ffmpeg)\n")
    board.run("/usr/bin/mount", "-t", "tmpfs", "none", "/dev")
    unusable = simulate(*BARE, stdin=None)
    assert unusable.process.wait(60) == 1
    assert unusable.err.read_text() == (
        "beacon-sim: cannot use /dev/shm: No such file or directory\n")


def test_the_encoder_must_not_end_by_itself(board, daemon, simulate):
    simulator = simulate(*SMALL, "--record", "/tmp/record")
    frames = board.path("/tmp/record/frames.bin")
    wait_until(lambda: frames.exists() and frames.stat().st_size > 0, "a frame")
    children = Path(f"/proc/{simulator.pid}/task/{simulator.pid}/children")
    os.kill(int(children.read_text()), signal.SIGKILL)
    assert simulator.process.wait(60) == 1
    assert simulator.err.read_text() == "beacon-sim: the encoder ended by itself\n"
    assert json.loads(board.path("/tmp/record/record.json").read_text())["frames"] > 0


def test_manual_and_completion_know_every_option():
    text = subprocess.run([SIMULATOR, "--help"], check=True, capture_output=True, text=True).stdout
    options = set(re.findall(r"(?m)^  (?:-h,)?(--[a-z-]+)", text))
    assert len(options) > 10
    manual = (REPOSITORY / "docs/man/beacon-sim.1").read_text().replace("\\-", "-")
    completion = (REPOSITORY / "tools/beacon_sim/beacon-sim.bash").read_text()
    entries = re.findall(r'(?m)^\.TP\n\.B[IR]? (?:-h ", " )?(--[a-z-]+)', manual)
    assert sorted(entries) == sorted(options)
    assert set(re.findall(r"--[a-z-]+", completion)) == options
    subprocess.run(["bash", "-n", REPOSITORY / "tools/beacon_sim/beacon-sim.bash"], check=True)
