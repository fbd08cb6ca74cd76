"""The demo: a board with the daemon and a simulated camera, and a client that receives it all.

Shows a live line while it runs. Then it compares what was received with what was published,
decodes it, saves a picture of it and prints a summary. The exit status is 0 when every byte arrived
and the video decodes. Needs root; script/demo builds the daemon first.
"""

import argparse
import os
import signal
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPOSITORY / "sandbox"))

from board import Board, Daemon, require_root, wait_until  # noqa: E402
from checks import (CheckFailed, FrameTimes, check_whole, decode,  # noqa: E402
                    read_record, save_picture)
from client import AUDIO, INFO, STATUS, VIDEO, Client, VideoFile  # noqa: E402
from shell import run_shell  # noqa: E402
from stage import MODEL, prepare  # noqa: E402

PLAY = b'{"cmd":"updateconfig","param":"automovement","value":"setstate","value2":"1"}'
CLIENT_HOST = "127.0.0.10"
RATE = 30  # frames per second
STICK_SECONDS = 4.0  # of beacon-sim's circling stick
RECORD = "/tmp/camera"  # on the board
KEEP = 1 << 28  # bytes of video kept, as in beacon-sim: nine minutes; --stay may run longer
SHOW_INTERVAL = 0.5
DRAIN_TIMEOUT = 3.0


def child_of(process):
    """The process id of the program that Board.popen() started."""
    children = Path(f"/proc/{process.pid}/task/{process.pid}/children")
    return int(wait_until(lambda: children.read_text().split(), "the program's process")[0])


class Viewer:
    """The client and what it has seen so far."""

    def __init__(self, board, video_path):
        self.video = VideoFile(video_path, KEEP)
        self.telemetry = 0
        self.commands = 0  # received by the camera, according to its telemetry
        self.name = ""
        self.status = None  # the daemon's last status record
        self.client = Client(board.socket(bind=(CLIENT_HOST, 0)), self.video.add, self._take_data)
        self.camera_state = board.path("/dev/shm/shared_camstate")
        self.times = FrameTimes(board.path(RECORD) / "frames.bin", self.video.arrivals)
        self.started = None

    def _take_data(self, payload):
        if payload.startswith(b"A1 "):  # the camera's answer to a command
            self.telemetry += 1
        elif payload.startswith(b"T1 "):
            self.telemetry += 1
            self.commands = int(payload.rpartition(b"commands=")[2])
        elif len(payload) == 44 and payload[0] == INFO:
            self.name = payload[4:44].decode(errors="replace").strip()
        elif len(payload) == 41 and payload[0] == STATUS:
            self.status = payload

    @property
    def audio(self):
        return self.client.packets[AUDIO]

    def describe_status(self):
        if self.status is None:
            return f'"{self.name}" answers' if self.name else "no answer yet"
        pan, tilt = struct.unpack_from("<2h", self.camera_state.read_bytes())
        playing = f"pose {min(self.status[36] + 1, self.status[37])}/{self.status[37]}" if self.status[35] else "stick"
        return (f"data {'on' if self.status[39] else 'off'}  "
                f"video {'on' if self.status[40] else 'off'}  "
                f"gimbal {pan / 10:+.0f} {tilt / 10:+.0f} ({playing})")


class LiveLine:
    """One line that is rewritten on a terminal; elsewhere one line per second."""

    def __init__(self, viewer):
        self.viewer = viewer
        self.terminal = sys.stdout.isatty()
        self._calls = 0
        self._last = self._state()

    def _state(self):
        viewer = self.viewer
        viewer.times.update()
        return (time.monotonic(), viewer.video.length, viewer.telemetry, viewer.audio,
                viewer.times.frames)

    def show(self):
        self._calls += 1
        if not self.terminal and self._calls % round(1 / SHOW_INTERVAL) != 0:
            return
        viewer, now = self.viewer, self._state()
        passed = now[0] - self._last[0]
        rates = [(new - old) / passed for new, old in zip(now[1:], self._last[1:])]
        recent = viewer.times.latencies[self._last[4]:]
        latency = f"{statistics.median(recent):.1f} ms" if recent else "-"
        self._last = now
        line = (f"{now[0] - viewer.started:5.1f} s  {viewer.times.frames:5} frames  "
                f"{rates[0] * 8e-6:5.2f} Mbit/s  lost {viewer.client.lost}  latency {latency:>7}  "
                f"telemetry {rates[1]:.0f}/s  audio {rates[2]:.0f}/s  "
                f"{viewer.describe_status()}")
        if self.terminal:
            line = line[:os.get_terminal_size().columns - 1]
            print(f"\r{line}\x1b[K", end="", flush=True)
        else:
            print(line, flush=True)

    def close(self):
        if self.terminal:
            print()


def start_camera(board, simulator, errors):
    """Starts the simulated camera on the board, with its output in a file."""
    with open(errors, "wb") as stream:
        return board.popen(simulator, "--rate", RATE, "--sticks", "circle", "--record", RECORD,
                           stdin=subprocess.DEVNULL, stdout=stream, stderr=stream)


def stop_camera(camera):
    """Makes the camera end its stream; returns when all of it has been taken from the ring."""
    if camera.poll() is None:
        os.kill(child_of(camera), signal.SIGTERM)
        try:
            camera.wait(20)
        except subprocess.TimeoutExpired:
            raise CheckFailed("the simulated camera does not stop") from None


def watch(viewer, daemon, camera, seconds, interrupted):
    """Shows the live line until the time is over, Ctrl-C, or one of the two programs ends."""
    wait_until(lambda: viewer.video.length or interrupted.is_set() or not daemon.alive()
               or camera.poll() is not None, "the first piece of video", 30.0)
    viewer.started = time.monotonic()
    line = LiveLine(viewer)
    playing = False
    while daemon.alive() and camera.poll() is None:
        left = viewer.started + seconds - time.monotonic()
        if not playing and time.monotonic() - viewer.started > STICK_SECONDS:
            viewer.client.send(PLAY)
            playing = True
        if left <= 0 or interrupted.wait(min(left, SHOW_INTERVAL)):
            break
        line.show()
    line.close()


def wait_rest(viewer, length):
    """Waits for what is still in flight, as long as something arrives."""
    seen, end = -1, time.monotonic() + DRAIN_TIMEOUT
    while viewer.video.length < length and time.monotonic() < end:
        if viewer.video.length != seen:
            seen, end = viewer.video.length, time.monotonic() + DRAIN_TIMEOUT
        time.sleep(0.05)
    time.sleep(0.2)  # the last telemetry and audio, and anything that should not come


def give_to_user(*paths):
    """Under sudo, gives the files to the user who called it."""
    if "SUDO_UID" in os.environ:
        for path in paths:
            if path.exists():
                os.chown(path, int(os.environ["SUDO_UID"]), int(os.environ["SUDO_GID"]))


def report(viewer, record, pictures, size, poses, stream, picture):
    """Prints a summary of what was seen."""
    times = sorted(viewer.times.latencies)
    packets = viewer.client.packets[VIDEO]
    part = "" if record["kept"] == record["bytes"] else f", the first {record['kept']} bytes of it"
    print(f"""
What was seen: a daemon on a stand-in board ({MODEL}), in a sandbox of its own.
A simulated camera encoded a test picture and handed the daemon {record['frames']} frames of H.264,
{record['frames'] / RATE:.1f} seconds of {size[0]}x{size[1]} video. A client at {CLIENT_HOST} \
registered over UDP and received:
  video       {viewer.times.frames} frames, {viewer.video.length} bytes in {packets} packets, \
byte for byte what the camera published
  lost        {viewer.client.lost} packets
  latency     {statistics.median(times):.1f} ms from the camera to the client (median); \
99 % of frames within {times[len(times) * 99 // 100]:.1f} ms
  telemetry   {viewer.telemetry} of {record['telemetry']} messages; the camera got \
{record['commands']} keep-alive commands back
  audio       {viewer.audio} of {record['audio']} packets
  gimbal      turned by a stick up to {record['turned']:.0f} degrees, then driven to {poses} poses \
of a movement list
ffmpeg decodes what was received without an error: {pictures} pictures.
  {stream}   the video as received{part}
  {picture}    a picture from the middle of it""")


def check_gimbal(record, poses, seconds):
    """Checks that the gimbal followed the stick and then the movement list."""
    if seconds > STICK_SECONDS and record["turned"] < 10:
        raise CheckFailed(f"the stick turned the gimbal by {record['turned']:.1f} degrees only")
    if seconds > STICK_SECONDS + 5 and poses == 0:
        raise CheckFailed("the gimbal reached no pose of the movement list")


def check_and_report(viewer, board, daemon, stream, picture):
    """Checks everything that was received and prints the summary; raises CheckFailed."""
    record = read_record(board.path(RECORD))
    wait_rest(viewer, record["bytes"])
    viewer.client.stop()
    viewer.video.close()
    viewer.times.update()
    os.truncate(stream, min(record["kept"], viewer.video.length))
    check_whole(record, board.path(RECORD) / "published.h264", stream, viewer.video.length,
                viewer.video.digest.hexdigest())
    pictures = decode(stream)
    if record["kept"] == record["bytes"] and pictures != record["frames"]:
        raise CheckFailed(f"{record['frames']} frames were published, {pictures} decode")
    poses = daemon.errors().count("Start new movement ID")
    check_gimbal(record, poses, record["frames"] / RATE)
    size = save_picture(stream, pictures // 2, picture)
    report(viewer, record, pictures, size, poses, stream, picture)


def run(arguments, scratch):
    """Runs the demo; returns the exit status."""
    binary = Path(arguments.binary).resolve()
    stream, picture = (Path(arguments.output).resolve() / name
                       for name in ("demo.h264", "demo.png"))
    for path in (stream, picture):
        path.unlink(missing_ok=True)
    errors = {"daemon": scratch / "daemon", "camera": scratch / "camera"}

    # Ctrl-C reaches every process of the terminal; all but this one must ignore it.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    with Board(binary.parent) as board:
        prepare(board)
        print("Starting the daemon, a client and a camera ..."
              + (" (Ctrl-C ends it)" if arguments.stay else ""), flush=True)
        daemon = Daemon(board, binary, errors["daemon"])
        try:
            daemon.wait_ready()
            viewer = Viewer(board, stream)
            viewer.client.start()
            # The client registers before the camera starts, so it sees the stream from the start.
            daemon.wait_error("New client connected")
            camera = start_camera(board, binary.with_name("beacon-sim"), errors["camera"])
            interrupted = threading.Event()
            for number in (signal.SIGINT, signal.SIGTERM):
                signal.signal(number, lambda *_: interrupted.set())
            watch(viewer, daemon, camera, arguments.seconds, interrupted)
            signal.signal(signal.SIGINT, signal.default_int_handler)  # from now it ends this, too
            ended_early = camera.poll() is not None
            died = not daemon.alive()
            stop_camera(camera)
            if died or not daemon.alive():
                raise CheckFailed(f"the daemon ended with status {daemon.wait_exit()}")
            if ended_early or camera.returncode != 0:
                raise CheckFailed("the simulated camera failed")
            check_and_report(viewer, board, daemon, stream, picture)
            if not daemon.alive():
                raise CheckFailed(f"the daemon ended with status {daemon.wait_exit()}")
            failed = False
        except (CheckFailed, AssertionError) as error:
            print(f"\nThe demo failed: {error}", file=sys.stderr)
            failed = True
        finally:
            give_to_user(stream, picture)
    if failed or arguments.verbose:
        for name, path in errors.items():
            text = path.read_text(errors="replace") if path.exists() else ""
            print(f"\nThe {name} said:\n{text or '(nothing)'}", file=sys.stderr)
    return 1 if failed else 0


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    length = parser.add_mutually_exclusive_group()
    length.add_argument("--seconds", type=float, default=10.0, help="how long (%(default)s)")
    length.add_argument("--stay", action="store_true",
                        help="until Ctrl-C; then, at a terminal, as with --shell")
    length.add_argument("--shell", action="store_true",
                        help="only a shell on the board; without a terminal it runs the commands "
                        "on standard input")
    parser.add_argument("--binary", default=REPOSITORY / "build/release/quillorbeacon",
                        help="the daemon; beaconctl and beacon-sim are beside it (%(default)s)")
    parser.add_argument("--output", default=REPOSITORY,
                        help="folder for demo.h264 and demo.png (%(default)s)")
    parser.add_argument("--verbose", action="store_true",
                        help="show what the daemon and the camera said")
    arguments = parser.parse_args()
    if arguments.stay:
        arguments.seconds = float("inf")
    if not Path(arguments.output).is_dir():
        parser.error(f"{arguments.output} is not a folder")
    return arguments


def main():
    arguments = parse_arguments()
    require_root()
    binary = Path(arguments.binary).resolve()
    try:
        if arguments.shell:
            return run_shell(binary)
        with tempfile.TemporaryDirectory(prefix="quillorbeacon-demo-") as scratch:
            status = run(arguments, Path(scratch))
        if arguments.stay and sys.stdin.isatty():
            print()
            run_shell(binary)
        return status
    except KeyboardInterrupt:
        return 130
    except AssertionError as error:
        print(f"The demo failed: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
