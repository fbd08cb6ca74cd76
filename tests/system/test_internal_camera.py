"""The board's own camera: when and how its program is run, and what clients get of its stream.

raspivid is a script of the test that delivers a stream encoded by ffmpeg.
"""

import ctypes
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from board import promised
from conftest import is_status, wait_until
from test_hung_commands import runs
from test_status import next_record

LIBC = ctypes.CDLL(None)
CAMERA = 3
SO_RCVBUFFORCE = 33  # ignores the usual limit; not in Python's socket module
PIECE = 60000
STACK = 8 << 20  # of a thread
ON = "recording_place=2\ninternal_camera_enabled=1\n"
OFF = "recording_place=2\ninternal_camera_enabled=0\n"
DEFAULT_PARAMS = "-w 1280 -h 720 -fps 48 --bitrate 2000000 --preview 100,100,320,200"
START = "int cam thread start\n"
STARTED = "Internal cam thread started\n"
ENDED = "int cam thread ended\n"
STREAM = "/sys/board/camera.h264"
PIDS = "/sys/board/camera.pids"
RASPIVID = "/sys/board/bin/raspivid"

# What the camera's program may do.
DELIVER_AND_STAY = f"cat {STREAM}; exec sleep 1000"
STAY_SILENT = "exec sleep 1000"
FAIL = "exit 1"


@pytest.fixture(scope="session")
def stream(tmp_path_factory):
    """Three seconds of H.264 as a camera delivers it: some ten pieces and a remainder."""
    if shutil.which("ffmpeg") is None:
        pytest.skip("ffmpeg is not installed")
    path = tmp_path_factory.mktemp("camera") / "stream.h264"
    subprocess.run(
        ["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi",
         "-i", "testsrc=size=640x480:rate=30:duration=3,noise=alls=12:allf=t", "-c:v", "libx264",
         "-preset", "ultrafast", "-b:v", "1800k", "-f", "h264", str(path)], check=True)
    data = path.read_bytes()
    assert data.startswith(b"\0\0\0\1") and len(data) > 5 * PIECE and len(data) % PIECE != 0
    return data


@pytest.fixture
def camera(board, stream):
    """camera(SCRIPT): sets what raspivid does on the board from its next start on."""

    def install(script):
        board.write(STREAM, stream)
        fresh = board.write(RASPIVID + ".new", (
            "#!/sys/board/sh\n"
            'printf "%s\\n" "$0" "$@" >> /sys/board/camera.arguments\n'
            f"echo $$ >> {PIDS}\n{script}\n"))
        fresh.chmod(0o755)
        fresh.replace(board.path(RASPIVID))

    return install


def pids(board):
    path = board.path(PIDS)
    return path.read_text().split() if path.exists() else []


def commands(board):
    """The camera commands that the shell was given."""
    lines = [line for line in board.log() if line.startswith("sh -c raspivid")]
    return [line[len("sh -c "):] for line in lines]


def wait_said(daemon, *lines):
    """Waits for the lines on standard error, in this order; others may appear in between."""
    def is_said():
        rest = iter(daemon.errors().splitlines())
        return all(line in rest for line in lines)

    wait_until(is_said, f"{lines} on standard error")


def viewer(registered_client, daemon, **options):
    """A client with buffer space for the whole stream."""
    client = registered_client(daemon, **options)
    client.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 26)
    return client


def receive_stream(client, length):
    """That many bytes of the stream, as the list of pieces in which they arrived."""
    pieces = []
    while sum(map(len, pieces)) < length:
        pieces.append(client.receive_type(CAMERA)[2])
    return pieces


def switch(client, value, params=None):
    value2 = "" if params is None else f',"value2":"{params}"'
    client.send(f'{{"cmd":"updateconfig","param":"internal_camera","value":"{value}"{value2}}}'
                .encode())


def watch_records(client, count):
    """Waits for that many status records, ten a second; returns the other packets."""
    others = []
    while count > 0:
        packet = client.receive_any()
        if is_status(packet):
            count -= 1
        else:
            others.append(packet)
    return others


@pytest.mark.parametrize("program", [
    f"cat {STREAM}",
    # Cut at the reader's size, whatever sizes the camera writes.
    f"dd if={STREAM} bs=7777 status=none",
    f"head -c 100 {STREAM}; sleep 0.3; tail -c +101 {STREAM}",
])
def test_clients_get_the_stream(start, camera, stream, registered_client, program):
    # A start after the stream's end delivers nothing.
    camera(f"mkdir /sys/board/once || exec sleep 1000\n{program}")
    daemon = start(OFF)
    clients = [viewer(registered_client, daemon, host=f"127.0.0.{n}") for n in (2, 3)]
    switch(clients[0], 1, "-w 640")
    for client in clients:
        pieces = receive_stream(client, len(stream))
        assert b"".join(pieces) == stream
        assert all(len(piece) == PIECE for piece in pieces[:-1]) and len(pieces[-1]) <= PIECE
    daemon.wait_error(ENDED)
    others = [packet for client in clients for packet in watch_records(client, 10)]
    assert not [packet for packet in others if packet[0] == CAMERA]


def interrupt_captures(daemon):
    """Interrupts each capture while it waits for data from its pipe."""
    for task in Path(f"/proc/{daemon.pid}/task").iterdir():
        if (task / "comm").read_text().strip() == "camera-capture":
            state = task / "stat"
            wait_until(lambda: state.read_text().rpartition(") ")[2][0] == "S", "the capture waits")
            assert LIBC.tgkill(daemon.pid, int(task.name), signal.SIGPIPE) == 0


def test_a_signal_that_interrupts_the_capture_does_not_end_it(
        board, start, camera, stream, registered_client):
    """The GPIO library handles SIGPIPE without restarting interrupted system calls."""
    camera(f"mkdir /sys/board/once || exec sleep 1000\nhead -c {PIECE} {STREAM}\n"
           "while [ ! -e /sys/board/go ]; do sleep 0.02; done\n"
           f"tail -c +{PIECE + 1} {STREAM}; exec sleep 1000")
    daemon = start(OFF, gpio=True)
    client = viewer(registered_client, daemon)
    switch(client, 1, "")
    assert client.receive_type(CAMERA)[2] == stream[:PIECE]
    for _ in range(3):
        interrupt_captures(daemon)
    board.write("/sys/board/go", "")
    rest = stream[PIECE:len(stream) // PIECE * PIECE]
    pieces = receive_stream(client, len(rest))
    assert b"".join(pieces) == rest and {len(piece) for piece in pieces} == {PIECE}
    assert ENDED not in daemon.errors()


def test_data_only_clients_get_none(start, camera, stream, registered_client):
    camera(DELIVER_AND_STAY)
    daemon = start(OFF)
    client = viewer(registered_client, daemon)
    data_only = viewer(registered_client, daemon, host="127.0.0.3", mode=b"\1")
    switch(client, 1, "")
    receive_stream(client, len(stream) // PIECE * PIECE)
    assert not watch_records(data_only, 15)


@pytest.mark.parametrize("setting, params", [
    ("", DEFAULT_PARAMS),
    ("internal_camera_params=\n", DEFAULT_PARAMS),
    ('internal_camera_params=""\n', DEFAULT_PARAMS),
    ('internal_camera_params="-w 640 -h 480"\n', "-w 640 -h 480"),
    ("internal_camera_params=-w  640  --name 'night view' -x $((1+1)) %s%d\n",
     "-w  640  --name 'night view' -x $((1+1)) %s%d"),
    ("internal_camera_params=" + "-x " * 33 + "\n", ("-x " * 33).strip()),
    ("internal_camera_params=" + "y" * 150 + "\n", "y" * 99),
])
def test_command_line(board, start, camera, setting, params):
    camera(STAY_SILENT)
    daemon = start(ON + setting)
    wait_until(lambda: commands(board), "the camera's start")
    command = f"raspivid -t 0 {params} --flush --inline --spstimings -o -"
    assert commands(board)[0] == command
    wait_said(daemon, START.strip(), STARTED.strip(), command)


def test_the_shell_takes_the_params_as_they_are(board, start, camera):
    camera(STAY_SILENT)
    start(ON + "internal_camera_params=-w  640 --name 'night view' -x $((1+1))\n")
    wait_until(lambda: pids(board), "the camera's start")
    assert board.path("/sys/board/camera.arguments").read_text().splitlines()[1:14] == [
        "-t", "0", "-w", "640", "--name", "night view", "-x", "2", "--flush", "--inline",
        "--spstimings", "-o", "-"]


@pytest.mark.parametrize("params, command", [
    ("-w 640", "raspivid -t 0 -w 640 --flush --inline --spstimings -o -"),
    ("", "raspivid -t 0  --flush --inline --spstimings -o -"),
])
def test_switching_on_starts_the_camera(board, start, camera, make_client, params, command):
    camera(STAY_SILENT)
    daemon = start(OFF)
    client = make_client()
    client.register()
    watch_records(client, 12)
    assert START not in daemon.errors()
    begin = time.monotonic()
    switch(client, 1, params)
    wait_said(daemon, START.strip(), STARTED.strip(), command)
    assert time.monotonic() - begin < promised(3)
    wait_until(lambda: commands(board), "the command")
    assert commands(board)[0] == command


@pytest.mark.parametrize("setting", ["", "internal_camera_enabled=0\n"])
def test_no_camera_when_it_is_off(board, start, camera, registered_client, setting):
    camera(DELIVER_AND_STAY)
    daemon = start("recording_place=2\n" + setting)
    assert not watch_records(registered_client(daemon), 25)
    assert "cam thread" not in daemon.errors()
    assert not commands(board) and not pids(board)


@pytest.mark.parametrize("setting", ["2", "-1"])
def test_any_other_number_is_on(board, start, camera, setting):
    camera(STAY_SILENT)
    daemon = start(f"recording_place=2\ninternal_camera_enabled={setting}\n")
    daemon.wait_error(START)
    wait_until(lambda: pids(board), "the camera's start")


def test_a_slow_board_has_no_camera(board, start, camera, registered_client):
    camera(DELIVER_AND_STAY)
    daemon = start(ON, model="Raspberry Pi Zero")
    assert not watch_records(registered_client(daemon), 25)
    assert "nternal cam" not in daemon.errors() and "int cam" not in daemon.errors()
    assert not commands(board)


def test_a_killed_camera_is_started_again(board, start, camera, stream, registered_client):
    camera(DELIVER_AND_STAY)
    daemon = start(OFF)
    client = viewer(registered_client, daemon)
    switch(client, 1, "")
    whole_pieces = len(stream) // PIECE * PIECE
    for ends in range(1, 4):
        # The remainder of the stream fills no piece; it is sent when the camera has ended.
        assert b"".join(receive_stream(client, whole_pieces)) == stream[:whole_pieces]
        starts = daemon.errors().count(START)
        assert len(pids(board)) == starts
        begin = time.monotonic()
        board.run("/usr/bin/kill", "-KILL", pids(board)[-1])
        daemon.wait_error(ENDED, ends)
        assert client.receive_type(CAMERA)[2] == stream[whole_pieces:]
        daemon.wait_error(START, starts + 1)
        assert time.monotonic() - begin < promised(3)


def test_switching_off_keeps_an_ended_camera_off(board, start, camera, registered_client):
    camera(FAIL)
    daemon = start(ON)
    daemon.wait_error(ENDED, 2)
    client = registered_client(daemon)
    switch(client, 0, "")
    daemon.wait_error("can't kill raspivid (PID not found)\n")
    watch_records(client, 3)
    starts = daemon.errors().count(START)
    watch_records(client, 25)
    assert daemon.errors().count(START) == starts == daemon.errors().count(ENDED)


def test_a_silent_camera_is_replaced_every_second(board, start, camera, stream,
                                                  registered_client):
    camera(f"while [ ! -e /sys/board/go ]; do sleep 0.02; done\n{DELIVER_AND_STAY}")
    daemon = start(OFF)
    client = viewer(registered_client, daemon)
    switch(client, 1, "")
    daemon.wait_error(START)
    begin = time.monotonic()
    daemon.wait_error(START, 4)
    assert 2.5 < time.monotonic() - begin < promised(4)
    said = [line for line in daemon.errors().splitlines(True)
            if line in (START, ENDED)]
    assert said[:7] == [START] + [ENDED, START] * 3
    board.write("/sys/board/go", "")
    # The current one delivers, and no other capture is started.
    wait_until(lambda: client.receive_type(CAMERA), "the first piece")
    starts = daemon.errors().count(START)
    receive_stream(client, len(stream) // PIECE * PIECE - PIECE)
    watch_records(client, 25)
    assert daemon.errors().count(START) == starts


# Neither the program nor its child ends by itself, on a signal or when the pipe is closed.
HANGING = "trap '' TERM HUP INT PIPE\nsleep 1000 &\necho $! >> /sys/board/camera.pids\nwait"


def test_captures_that_hang_do_not_pile_up(board, start, camera):
    camera(HANGING)
    daemon = start(ON)
    process = Path(f"/proc/{daemon.pid}")

    def used():
        return len(list((process / "fd").iterdir())), len(list((process / "task").iterdir()))

    def living():
        return [pid for pid in pids(board) if runs(board, pid)]

    daemon.wait_error(STARTED, 2)
    wait_until(lambda: len(living()) == 2, "a capture and its child")
    files, threads = used()
    # On a busy machine a capture may be killed before it has written its numbers.
    wait_until(lambda: len(pids(board)) >= 12, "six captures", 40.0)
    assert len(living()) <= 2
    assert len(children(daemon.pid)) <= 1
    wait_until(lambda: used() <= (files, threads), "no more descriptors and threads")


def test_a_camera_that_is_slow_to_start_gets_its_time(board, start, camera, stream,
                                                      registered_client):
    camera(f"sleep 2.5\n{DELIVER_AND_STAY}")
    daemon = start(OFF)
    client = viewer(registered_client, daemon)
    switch(client, 1, "")
    assert client.receive_type(CAMERA, timeout=30)[2] == stream[:PIECE]
    assert daemon.errors().count(START) > 4


def test_a_camera_of_few_bytes_is_let_be(board, start, camera, stream, registered_client):
    """A camera that takes more than a second to fill a piece does not hang."""
    camera(f"i=0; while [ $i -lt 8 ]; do tail -c +$((i * 8000 + 1)) {STREAM} | head -c 8000\n"
           "i=$((i + 1)); sleep 0.4; done; exec sleep 1000")
    daemon = start(OFF)
    client = viewer(registered_client, daemon)
    switch(client, 1, "")
    assert client.receive_type(CAMERA, timeout=20)[2] == stream[:PIECE]
    assert daemon.errors().count(START) < 5


def test_the_first_whole_piece_counts_as_delivering(board, start, camera, registered_client):
    camera(f"head -c {PIECE - 1} {STREAM}\n"
           "while [ ! -e /sys/board/go ]; do sleep 0.02; done\nprintf x; exec sleep 1000")
    daemon = start(ON)
    client = viewer(registered_client, daemon)
    daemon.wait_error(START, 3)
    board.write("/sys/board/go", "")
    assert len(client.receive_type(CAMERA, timeout=20)[2]) == PIECE
    starts = daemon.errors().count(START)
    watch_records(client, 25)
    assert daemon.errors().count(START) == starts


def children(pid):
    """The states of the process's children, by their process ids."""
    found = {}
    for folder in Path("/proc").glob("[0-9]*"):
        try:
            state, parent = (folder / "stat").read_text().rpartition(") ")[2].split()[:2]
        except OSError:
            continue  # ended meanwhile
        if int(parent) == pid:
            found[folder.name] = state
    return found


def test_a_camera_that_fails_at_once_uses_nothing_up(start, camera, make_client):
    camera(FAIL)
    daemon = start(ON)
    daemon.wait_error(ENDED, 2)
    process = Path(f"/proc/{daemon.pid}")

    def used():
        return len(list((process / "fd").iterdir())), len(list((process / "task").iterdir()))

    def stacks():
        ranges = [line.split()[0].split("-") for line in open(process / "maps", encoding="utf-8")]
        return sum(int(end, 16) - int(begin, 16) == STACK for begin, end in ranges)

    wait_until(lambda: not children(daemon.pid), "no child")
    files, threads = used()
    threads_stacks = stacks()
    begin = time.monotonic()
    daemon.wait_error(ENDED, 8)
    assert time.monotonic() - begin > 4
    wait_until(lambda: used()[0] <= files and used()[1] <= threads, "nothing left over")
    wait_until(lambda: not children(daemon.pid), "no zombie")
    assert stacks() <= threads_stacks + 2
    client = make_client()
    client.register()
    next_record(client)
