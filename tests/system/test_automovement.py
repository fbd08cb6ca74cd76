"""Automatic movement: its start, its list, direct and smooth playing, and what tells of it.

A data source notes the commands of direct mode; a gimbal that follows the published speeds is
steered by smooth mode.
"""

import os
import socket
import struct
import threading
import time

import pytest

from commands import Console
from conftest import CONFIG, is_status, wait_until

# Nothing to mount and nothing to say about storage.
QUIET = "recording_place=2\n"
RUN = "/run/quillorbeacon"
STATE_FILE = f"{RUN}/automovements_state"
APP_FILE = f"{RUN}/smooth_ptd_app_values"
CAMERA_STATE = "/dev/shm/shared_camstate"
RC_BLOCK = "/dev/shm/shared_rc_raw"
FUNCTION_VALUES_AT = 1040
STILL = "0.000000,0.000000,0.000000"
SO_TIMESTAMPNS = 35  # not in the socket module
KEEP_ALIVE = b'!{"cmd":"set","name":"movement"'

EV_ONLY = ",,,,{},,,{},0,"  # exposure, delay


def settings(movements, on=0, smooth=0, speed=0):
    return QUIET + (f'automove_list="{movements}"\nautomove_enabled={on}\n'
                    f"automove_smooth={smooth}\nautomove_smooth_speed={speed}\n")


def at(pan, tilt, roll, delay=0):
    """A movement that is a position only."""
    return f"{pan},{tilt},{roll},,,,,{delay},0,"


def command(cmd, param="", value="", value2="", value3=""):
    return (f'!{{"cmd":"{cmd}","name":"","param":"{param}","value":"{value}",'
            f'"value2":"{value2}","value3":"{value3}"}}').encode()


class Source:
    """A data source that speaks five times a second until it is silenced."""

    def __init__(self, board):
        self.socket = board.socket(bind=("127.0.0.3", 0), timeout=20.0)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.silenced = threading.Event()
        self.thread = threading.Thread(target=self._speak)
        self.thread.start()

    def _speak(self):
        while True:
            self.socket.sendto(b".", ("127.0.0.1", 5000))
            if self.silenced.wait(0.2):
                return

    def silence(self):
        self.silenced.set()
        self.thread.join()

    def receive_timed(self):
        """The next command that is no keep-alive, and when it came: in seconds, by the kernel."""
        while True:
            datagram, [(_, _, stamp)], _, _ = self.socket.recvmsg(65535, 64)
            if not datagram.startswith(KEEP_ALIVE):
                seconds, nanoseconds = struct.unpack("qq", stamp)
                return datagram, seconds + 1e-9 * nanoseconds

    def receive(self):
        return self.receive_timed()[0]

    def received(self):
        """The commands that have come so far, without waiting."""
        found = []
        self.socket.setblocking(False)
        try:
            while True:
                found.append(self.socket.recv(65535))
        except BlockingIOError:
            self.socket.settimeout(20.0)
            return [datagram for datagram in found if not datagram.startswith(KEEP_ALIVE)]


@pytest.fixture
def make_source(board):
    """make_source(daemon): a data source that the daemon has found."""
    made = []

    def make(daemon):
        made.append(Source(board))
        daemon.wait_error("Data found\n", len(made))
        return made[-1]

    yield make
    for source in made:
        source.silence()


class Viewer:
    """The display process, which gets a copy of each status record."""

    def __init__(self, client):
        self.client = client

    def _read(self):
        while True:
            packet = self.client.receive_any()
            if is_status(packet):
                return tuple(packet[2][35:39])

    def watch(self, count):
        """(running, index, count, nearest) of so many records that are made from now on."""
        self.client.socket.setblocking(False)
        try:
            while True:
                self.client.socket.recv(65535)
        except BlockingIOError:
            pass
        self._read()  # it may have been on its way
        for _ in range(count):
            yield self._read()

    def status(self):
        return next(self.watch(1))

    def wait_status(self, *expected):
        """Waits for a status record of these numbers; None is any."""
        def is_expected():
            return all(want in (None, got) for want, got in zip(expected, self._read()))

        wait_until(is_expected, f"movement status {expected}")


@pytest.fixture
def viewer(make_client):
    return Viewer(make_client("127.0.0.1", 5253))


def wait_state_file(board, path, text):
    wait_until(lambda: board.path(path).exists() and board.path(path).read_text() == text,
               f"{text!r} in {path}")


def set_camera(board, pan, tilt, roll):
    """The camera-side process says where the camera looks, in degrees."""
    with open(board.path(CAMERA_STATE), "r+b", buffering=0) as state:
        os.pwrite(state.fileno(), struct.pack("<hhh", *(round(10 * a) for a in (pan, tilt, roll))),
                  0)


def automove_lines(daemon):
    """Standard error between the servers and the GPIO functions, line by line."""
    text = daemon.errors().partition("File transfer init done\n")[2].partition("Failed to init")[0]
    return [line for line in text.split("\n") if not line.startswith("TCP server: ")][:-1]


# Start-up


@pytest.mark.parametrize("on, said", [(0, "stop"), (1, "start"), (5, "start"), (-1, "start")])
def test_startup_messages_and_state_file(board, start, on, said):
    daemon = start(settings(at(1, 2, 3) + ";", on))
    assert automove_lines(daemon) == [
        "Auto movement init", "Creating new shared cam state",
        "Auto movement set list " + at(1, 2, 3) + ";", "Added 1 movements:",
        "\tnumber 0 pan 1.0 tilt 2.0 roll 3.0 zoom -1.0 ev -1000.0 afx -1.000000 afy -1.000000"
        " mf -1 delay 0 shot 0 hold 0", "", f"Auto movement {said}"]
    assert board.path(STATE_FILE).read_text() == str(on)


def test_startup_without_a_list(board, start):
    daemon = start(model="Raspberry Pi Zero")  # a slow board has it all the same
    assert automove_lines(daemon) == [
        "Auto movement init", "Creating new shared cam state", "Auto movement set list ",
        "Added 0 movements:", "", "Auto movement stop"]
    assert board.path(STATE_FILE).read_text() == "0"


def test_the_camera_state_is_created_once(board, start):
    start(QUIET)
    block = board.path(CAMERA_STATE)
    assert block.read_bytes() == bytes(6)
    assert block.stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("content, kept", [
    (b"\x01\x02\x03\x04\x05\x06", b"\x01\x02\x03\x04\x05\x06"), (b"\x07", b"\x07" + bytes(5)),
    (b"12345678", b"123456")])
def test_an_existing_camera_state_keeps_its_contents(board, start, content, kept):
    board.write(CAMERA_STATE, content)
    daemon = start(QUIET)
    assert automove_lines(daemon)[:2] == ["Auto movement init", "Shared cam state mem opened"]
    assert board.path(CAMERA_STATE).read_bytes() == kept


def test_a_camera_state_that_cannot_be_mapped(board, start, make_source, viewer):
    """The camera looks straight ahead then."""
    board.path(CAMERA_STATE).mkdir()
    daemon = start(settings(at(90, 0, 0) + ";" + at(-10, 0, 0), on=1, smooth=1, speed=6))
    assert automove_lines(daemon)[:3] == [
        "Auto movement init", "Creating new shared cam state",
        "Shared memory /shared_camstate: shm_open failed: Invalid argument"]
    viewer.wait_status(1, 0, 2, 1)
    make_source(daemon)
    wait_state_file(board, APP_FILE, "-0.500000,0.000000,0.000000")


# Direct mode


def test_direct_commands_in_order_and_around_again(start, make_source):
    movements = "12.3,-5,0,2.5,-0.5,0.5,0.25,2,1,40,1;-1000,5,0,2.3,3,,,0,0,,1"
    daemon = start(settings(movements, on=1))
    source = make_source(daemon)
    round_trip = [
        command("position", "abs", "123.0", "-50.0", "0.0"),
        command("position", "hold", "123.0", "-50.0", "0.0"),
        command("ev", "-0.5"), command("dzoom", "set", "250"), command("focus", "type", "af"),
        command("focus", "point", "0.500000", "0.250000"), command("focus", "type", "mf"),
        command("focus", "manual", "41"), command("shot"),
        command("ev", "3.0"), command("dzoom", "set", "229"),
    ]
    times = []
    for expected in round_trip:
        datagram, came = source.receive_timed()
        assert datagram == expected
        times.append(came)
    # Waits: after the position, after each setting, before the shot its delay, then the delay.
    for first, last, seconds in [(0, 1, 1), (2, 3, 0.1), (3, 4, 0.1), (4, 5, 1), (5, 6, 0.1),
                                 (6, 7, 1), (7, 8, 2.1), (8, 9, 2), (9, 10, 0.1)]:
        assert times[last] - times[first] > 0.9 * seconds, round_trip[last]
    # Nothing is added to the manual focus by playing it.
    assert [source.receive() for _ in round_trip[:8]] == round_trip[:8]
    said = daemon.errors().partition("Data found\n")[2]
    first = ("Starting auto movement number 1/2\n"
             "\tMoving to pan 12.3 tilt -5.0 roll 0.0\n\tSet EV -0.5\n\tSet zoom 2.5\n"
             "\tSet AF point 0.500000, 0.250000\n\tSet MF 41\n\tWaiting 2 seconds\n"
             "\tMaking shot\n\tWaiting 2 seconds\n")
    second = ("Starting auto movement number 2/2\n\tSet EV 3.0\n\tSet zoom 2.3\n"
              "\tWaiting 1 seconds\n")
    assert said.startswith(first + second + first[:first.index("\tWaiting")])


@pytest.mark.parametrize("delay, seconds", [(0, 1), (-3, 1), (2, 2)])
def test_direct_delay_is_at_least_a_second(start, make_source, delay, seconds):
    daemon = start(settings(EV_ONLY.format("1", delay) + ";" + EV_ONLY.format("2", delay), on=1))
    source = make_source(daemon)
    times = []
    for i in range(4):
        datagram, came = source.receive_timed()
        assert datagram == command("ev", f"{1 + i % 2}.0")
        times.append(came)
    between = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(between) > seconds
    assert min(between) < seconds + 0.7
    assert f"\tSet EV 1.0\n\tWaiting {seconds} seconds\n" in daemon.errors()


def test_nothing_is_played_without_a_data_source(start, make_source, viewer):
    daemon = start(settings(EV_ONLY.format("1", 0), on=1))
    for status in viewer.watch(25):
        assert status == (1, 0, 1, 0)
    assert "Starting auto movement" not in daemon.errors()
    assert make_source(daemon).receive() == command("ev", "1.0")


def test_playing_ends_with_the_data_source(start, make_source, viewer):
    daemon = start(settings(EV_ONLY.format("1", 0), on=1))
    source = make_source(daemon)
    source.receive()
    source.silence()
    daemon.wait_error("Data lost\n")
    played = daemon.errors().count("Starting auto movement")
    for _ in viewer.watch(25):
        pass
    # One may have begun just before the loss.
    assert daemon.errors().count("Starting auto movement") <= played + 1


def test_direct_playing_stops_and_starts(board, start, make_source, make_client, viewer):
    daemon = start(settings(EV_ONLY.format("1", 0) + ";" + EV_ONLY.format("2", 0)))
    console = Console(board, daemon, make_client())
    source = make_source(daemon)
    for _ in viewer.watch(15):
        pass
    assert source.received() == []
    console.update("automovement", "setstate", "1")
    assert source.receive() == command("ev", "1.0")
    console.update("automovement", "setstate", "0")
    viewer.wait_status(0, 1, 2, None)  # the movement that was on is played to its end
    for status in viewer.watch(25):
        assert status[:3] == (0, 1, 2)
    assert source.received() == []
    console.update("automovement", "setstate", "1")
    assert source.receive() == command("ev", "2.0")


# Updates


@pytest.fixture
def console(board, daemon, make_client):
    return Console(board, daemon, make_client())


THREE = ";".join(EV_ONLY.format(ev, 0) for ev in (1, 2, 3))


def played(console):
    """The numbers of the movements that the last update played."""
    return [line.removeprefix("Starting auto movement number ") for line in console.errors
            if line.startswith("Starting")]


def test_params_are_parsed_then_saved_then_applied(board, console):
    console.update("automovement", "params", "0", at(1, 2, 3), "1", "4")
    assert console.errors == [
        "Auto movement set list " + at(1, 2, 3), "Added 1 movements:",
        "\tnumber 0 pan 1.0 tilt 2.0 roll 3.0 zoom -1.0 ev -1000.0 afx -1.000000 afy -1.000000"
        " mf -1 delay 0 shot 0 hold 0", "", "Saving config", "Auto movement stop"]
    assert board.path(STATE_FILE).read_text() == "0"
    assert f'automove_list="{at(1, 2, 3)}"' in board.path(CONFIG).read_text()
    console.update("automovement", "params", "5", "", "0", "0")
    assert console.errors == ["Auto movement set list ", "Added 0 movements:", "",
                              "Saving config", "Auto movement start"]
    assert board.path(STATE_FILE).read_text() == "5"


def test_params_start_what_they_list(console, make_source, viewer):
    source = make_source(console.daemon)
    console.update("automovement", "params", "1", THREE, "0", "0")
    assert source.receive() == command("ev", "1.0")
    assert viewer.status()[0] == 1


@pytest.mark.parametrize("value, said", [("1", "start"), ("0", "stop"), ("7", "start"),
                                         ("-1", "start")])
def test_setstate(board, console, value, said):
    console.update("automovement", "setstate", value)
    assert console.errors == [f"Auto movement {said}"]
    assert board.path(STATE_FILE).read_text() == value
    assert "Saving config" not in console.daemon.errors()


@pytest.mark.parametrize("value", ["", "x", None])
def test_setstate_of_no_number_stops(board, console, value):
    console.update("automovement", "setstate", "1")
    console.update("automovement", "setstate", value)
    assert console.errors == ["Auto movement stop"]
    assert board.path(STATE_FILE).read_text() == "0"


def test_move_plays_one_movement(console, viewer):
    console.update("automovement", "params", "0", THREE, "0", "0")
    console.update("automovement", "move", "2")
    assert console.errors == ["Starting auto movement number 3/3", "\tSet EV 3.0"]
    assert viewer.status()[:3] == (0, 2, 3)
    console.update("automovement", "move", "0")
    assert console.errors == ["Starting auto movement number 1/3", "\tSet EV 1.0"]
    assert viewer.status()[:3] == (0, 0, 3)


@pytest.mark.parametrize("value", ["3", "4", "20", "-1", "99999999999", "-99999999999"])
def test_a_move_out_of_range_does_nothing(console, make_source, viewer, value):
    console.update("automovement", "params", "0", THREE, "0", "0")
    console.update("automovement", "move", "1")
    source = make_source(console.daemon)
    console.update("automovement", "move", value)
    assert console.errors == [] and source.received() == []
    assert viewer.status()[:3] == (0, 1, 3)


def test_next_and_previous_go_around(console):
    console.update("automovement", "params", "0", THREE, "0", "0")
    for sub_command, number in [("movenext", 2), ("movenext", 3), ("movenext", 1),
                                ("moveprev", 3), ("moveprev", 2), ("moveprev", 1),
                                ("moveprev", 3), ("movenext", 1)]:
        console.update("automovement", sub_command)
        assert played(console) == [f"{number}/3"]


def test_previous_from_the_first_is_the_last(console):
    console.update("automovement", "params", "0", THREE, "0", "0")
    console.update("automovement", "moveprev")
    assert played(console) == ["3/3"]


@pytest.mark.parametrize("values", [("move", "0"), ("movenext",), ("moveprev",)])
@pytest.mark.parametrize("smooth", ["0", "1"])
def test_there_is_nothing_to_move_to_in_an_empty_list(console, values, smooth):
    console.update("automovement", "params", "0", "", smooth, "0")
    console.update("automovement", *values)
    assert console.errors == [] and console.daemon.alive()


def test_a_direct_move_sends_its_commands_and_ends_by_itself(console, make_source, viewer):
    console.update("automovement", "params", "0", "1,2,3,,,,,9,0,,1;" + THREE, "0", "0")
    source = make_source(console.daemon)
    console.update("automovement", "move", "0")
    assert source.received() == [command("position", "abs", "10.0", "20.0", "30.0"),
                                 command("position", "hold", "10.0", "20.0", "30.0")]
    for status in viewer.watch(15):
        assert status[:3] == (0, 0, 4)
    assert source.received() == []


# What the status record tells


def test_status_follows_the_list(console, viewer):
    assert viewer.status() == (0, 0, 0, 0)
    console.update("automovement", "params", "0", ";".join([THREE] * 7), "0", "0")
    assert viewer.status()[:3] == (0, 0, 20)
    console.update("automovement", "move", "19")
    assert viewer.status()[:3] == (0, 19, 20)
    console.update("automovement", "params", "1", THREE, "0", "0")
    viewer.wait_status(1, 0, 3, None)  # an index beyond the list comes back to the first


def test_status_runs_with_any_number_but_zero(console, viewer):
    for value, running in (("6", 1), ("0", 0), ("-2", 1), ("256", 1)):
        console.update("automovement", "setstate", value)
        assert viewer.status()[0] == running, value


def test_nearest_movement(board, start, viewer):
    start(settings(";".join([at(10, 0, 0), at(0, 20, 0), at(0, 0, -30), at(0, 0, -30)])))
    # Each pose changes the number; of movements equally near the first counts.
    for pose, nearest in [((0, 20, 0), 1), ((0, 0, -30), 2), ((9.9, 0, 0), 0), ((0, 5.1, 0), 1),
                          ((0, 5, 0), 0), ((-7, -10, -32), 2), ((3, 4, 0), 0)]:
        set_camera(board, *pose)
        viewer.wait_status(0, 0, 4, nearest)


def test_no_movement_within_reach_changes_nothing(board, start, viewer):
    start(settings(";".join([at(9999, 0, 0), at(0, 9999, 0), at(0, 9999, 0)])))
    set_camera(board, 0, 10, 0)
    viewer.wait_status(0, 0, 3, 1)
    for pose in ((0, -1, 0), (-10, -10, 0)):  # 10000 from all, and farther
        set_camera(board, *pose)
        for status in viewer.watch(15):
            assert status == (0, 0, 3, 1)


def test_movements_out_of_all_reach(start, viewer):
    start(settings(";".join([at(0, 10000, 0), at("inf", 0, 0), at("nan", 0, 0),
                             at(0, 9999.5, 0)])))
    viewer.wait_status(0, 0, 4, 3)


# Smooth mode


def test_speeds_follow_the_errors(board, start, make_source):
    daemon = start(settings(at(10, 5, 0), on=1, smooth=1, speed=4))
    wait_state_file(board, APP_FILE, STILL)
    make_source(daemon)
    for pose, speeds in [
            ((0, 0, 0), "-0.100000,0.050000,0.000000"),
            ((0, 0.1, 0), "-0.100000,0.000000,0.000000"),
            ((20, 0, 0), "0.100000,0.050000,0.000000"),
            ((20, 30, 0), "0.100000,-0.100000,0.000000"),
            ((30, 5, -10), "0.100000,0.000000,-0.050000"),
            ((-30, 5, 10), "-0.100000,0.000000,0.025000"),
            ((-90, 13, 10), "-0.100000,-0.020000,0.020000")]:
        set_camera(board, *pose)
        wait_state_file(board, APP_FILE, speeds)
    assert "Starting auto movement" not in daemon.errors()


def test_an_error_of_the_threshold_moves_and_has_arrived(board, start, make_source):
    daemon = start(settings(at(5, -5, 0) + ";" + at(5, -5, 0), on=1, smooth=1, speed=4))
    make_source(daemon)
    wait_state_file(board, APP_FILE, "-0.100000,0.000000,0.000000")
    daemon.wait_error("Start new movement ID 2\n", 2)


def test_a_single_move_that_ends_at_the_threshold_leaves_the_gimbal_still(board, start,
                                                                          make_client):
    daemon = start(settings(at(10, 0, 0), on=0, smooth=1, speed=4))
    set_camera(board, 5, 0, 0)
    console = Console(board, daemon, make_client())
    wait_state_file(board, APP_FILE, STILL)
    # Each pass takes 200 ms, in which the publisher looks at the values twice.
    for _ in range(3):
        console.update("automovement", "move", "0")
        assert "Movement ID 0 finished" in console.errors
        assert board.path(APP_FILE).read_text() == STILL


@pytest.mark.parametrize("speed, step", [(1, "0.005000"), (2, "0.010000"), (3, "0.050000"),
                                         (5, "0.200000"), (6, "0.500000"), (0, "0.001000"),
                                         (9, "0.001000")])
def test_speed_settings(board, start, make_source, speed, step):
    daemon = start(settings(at(90, 90, 90), on=1, smooth=1, speed=speed))
    make_source(daemon)
    wait_state_file(board, APP_FILE, f"-{step},{step},-{step}")


def test_no_number_reaches_the_gimbal_that_is_none(board, start, make_source):
    daemon = start(settings(at("nan", 0, "-inf"), on=1, smooth=1, speed=6))
    make_source(daemon)
    wait_state_file(board, APP_FILE, "0.000000,0.000000,0.500000")


def test_a_stop_leaves_the_gimbal_still(board, start, make_source, make_client, viewer):
    daemon = start(settings(at(90, 90, 90), on=1, smooth=1, speed=6))
    console = Console(board, daemon, make_client())
    make_source(daemon)
    moving = "-0.500000,0.500000,-0.500000"
    wait_state_file(board, APP_FILE, moving)
    console.update("automovement", "setstate", "0")
    wait_state_file(board, APP_FILE, STILL)
    for status in viewer.watch(25):
        assert status[0] == 0
        assert board.path(APP_FILE).read_text() == STILL
    console.update("automovement", "setstate", "1")
    wait_state_file(board, APP_FILE, moving)


def send_app_values(client, pan, tilt, roll):
    client.send(b"\5\0" + struct.pack("<hhh", *(round(32767 * v) for v in (pan, tilt, roll))))


def test_a_lost_data_source_leaves_the_gimbal_still_once(board, start, make_source, make_client,
                                                         viewer):
    daemon = start(settings(at(90, 90, 90), on=1, smooth=1, speed=6))
    source = make_source(daemon)
    wait_state_file(board, APP_FILE, "-0.500000,0.500000,-0.500000")
    source.silence()
    daemon.wait_error("Data lost\n")
    wait_state_file(board, APP_FILE, STILL)
    # What a client asks for from now on is its own affair.
    send_app_values(make_client(), 1, -1, 1)
    wanted = "1.000000,-1.000000,1.000000"
    wait_state_file(board, APP_FILE, wanted)
    for _ in viewer.watch(25):
        assert board.path(APP_FILE).read_text() == wanted


def test_unchanged_speeds_are_sent_again_now_and_then(board, start, make_source, make_client):
    daemon = start(settings(at(90, 90, 90), on=1, smooth=1, speed=6))
    make_source(daemon)
    moving = "-0.500000,0.500000,-0.500000"
    wait_state_file(board, APP_FILE, moving)
    client = make_client()
    between = []
    for _ in range(3):
        send_app_values(client, 1, 1, 1)
        wait_state_file(board, APP_FILE, "1.000000,1.000000,1.000000")
        wait_state_file(board, APP_FILE, moving)
        between.append(time.monotonic())
    for earlier, later in zip(between, between[1:]):
        assert 1.9 < later - earlier < 4.0


def test_a_stop_zeroes_what_a_client_wants_and_again_without_a_source(board, start, make_client):
    daemon = start(settings(at(90, 0, 0), smooth=1, speed=6))  # stopped at the start
    client = make_client()
    console = Console(board, daemon, client)
    send_app_values(client, 1, -1, 1)
    wait_state_file(board, APP_FILE, "1.000000,-1.000000,1.000000")
    console.update("automovement", "setstate", "1")  # no source is there: the zeroing is due
    wait_state_file(board, APP_FILE, STILL)
    send_app_values(client, 1, -1, 1)
    wait_state_file(board, APP_FILE, "1.000000,-1.000000,1.000000")
    console.update("automovement", "setstate", "0")
    wait_state_file(board, APP_FILE, STILL)


# A change of the mode while a movement is played


def first_line(daemon, start):
    return next(line for line in daemon.errors().splitlines() if line.startswith(start))


def test_from_smooth_to_direct_while_steering(board, start, make_source, make_client):
    movements = ";".join(at(pan, 0, 0) for pan in (70, 50, 100))
    daemon = start(settings(movements, on=1, smooth=1, speed=6))
    console = Console(board, daemon, make_client())
    make_source(daemon)
    wait_state_file(board, APP_FILE, "-0.500000,0.000000,0.000000")
    console.update("automovement", "params", "1", movements, "0", "6")
    daemon.wait_error("Starting auto movement number")
    # The movement that was not reached is played, not skipped.
    assert first_line(daemon, "Starting") == "Starting auto movement number 1/3"
    assert "\tWaiting" not in daemon.errors().partition("Starting")[0]


def test_from_smooth_to_direct_in_the_delay_of_an_arrival(board, start, make_source, make_client):
    movements = ";".join(at(pan, 0, 0, delay=3) for pan in (0, 50, 100))
    daemon = start(settings(movements, on=1, smooth=1, speed=6))
    console = Console(board, daemon, make_client())
    make_source(daemon)
    daemon.wait_error("\tWaiting 3 seconds\n")
    console.update("automovement", "params", "1", movements, "0", "6")
    daemon.wait_error("Starting auto movement number")
    assert first_line(daemon, "Starting") == "Starting auto movement number 2/3"
    assert daemon.errors().partition("Starting")[0].count("\tWaiting") == 1


def test_from_direct_to_smooth_while_a_movement_is_played(board, start, make_source, make_client,
                                                          viewer):
    movements = ";".join(f"{pan},0,0,,,,,3,1,," for pan in (70, 50, 100))
    daemon = start(settings(movements, on=1, speed=6))
    console = Console(board, daemon, make_client())
    make_source(daemon)
    daemon.wait_error("Starting auto movement number 1/3\n")
    console.update("automovement", "params", "1", movements, "1", "6")
    # It is played to its end, with its delay: then the second one is steered to.
    wait_state_file(board, APP_FILE, "-0.500000,0.000000,0.000000")
    assert daemon.errors().count("\tWaiting 3 seconds\n") == 2
    for status in viewer.watch(5):
        assert status[:3] == (1, 1, 3)


class Gimbal:
    """A gimbal that turns with the published speeds, and says where it looks.

    Pan and roll turn against the sign of their speed, tilt with it.
    """

    DEGREES_PER_SECOND = 40  # at full speed

    def __init__(self, board, pose=(0.0, 0.0, 0.0)):
        self.pose = list(pose)
        self.block = open(board.path(RC_BLOCK), "rb", buffering=0)
        self.state = open(board.path(CAMERA_STATE), "r+b", buffering=0)
        self.halted = threading.Event()
        self.thread = threading.Thread(target=self._turn)
        self._tell()
        self.thread.start()

    def speeds(self):
        """The published values of functions 2 to 4."""
        return struct.unpack("<ddd", os.pread(self.block.fileno(), 24, FUNCTION_VALUES_AT + 8 * 2))

    def _tell(self):
        os.pwrite(self.state.fileno(), struct.pack("<hhh", *(round(10 * a) for a in self.pose)), 0)

    def _turn(self):
        last = time.monotonic()
        while not self.halted.wait(0.01):
            now = time.monotonic()
            # A gimbal that was kept from running must not leap.
            passed = min(now - last, 0.05)
            last = now
            for axis, (speed, sign) in enumerate(zip(self.speeds(), (-1, 1, -1))):
                self.pose[axis] += sign * speed * self.DEGREES_PER_SECOND * passed
            self._tell()

    def halt(self):
        self.halted.set()
        self.thread.join()
        self.block.close()
        self.state.close()

    def is_near(self, target, degrees):
        return all(abs(want - got) <= degrees for want, got in zip(target, self.pose))


@pytest.fixture
def make_gimbal(board):
    made = []

    def make(*pose):
        made.append(Gimbal(board, *pose))
        return made[-1]

    yield make
    for gimbal in made:
        gimbal.halt()


THRESHOLD = 5.0  # of speed 6
# A gimbal goes on a little between its arrival and the speeds' end.
OVERSHOOT = 3.0


def test_a_gimbal_is_driven_through_the_list_and_around_again(start, make_source, make_gimbal):
    targets = [(20, 10, 0), (-15, -8, 6), (4, 25, -9)]
    daemon = start(settings(";".join(at(*t, delay=1) for t in targets), on=1, smooth=1, speed=6))
    gimbal = make_gimbal()
    make_source(daemon)
    for arrival in range(1, 6):
        daemon.wait_error("\tWaiting 1 seconds\n", arrival, timeout=40.0)
        # It stands there for the delay.
        wait_until(lambda: gimbal.speeds() == (0.0, 0.0, 0.0), "the gimbal standing")
        assert gimbal.is_near(targets[(arrival - 1) % 3], THRESHOLD + OVERSHOOT), gimbal.pose
        daemon.wait_error("Start new movement ID ", arrival)
    said = [line for line in daemon.errors().splitlines()
            if line.startswith(("Start new", "\tWaiting", "Movement ID"))]
    expected = [line for number in (1, 2, 3, 1, 2)
                for line in ("\tWaiting 1 seconds", f"Start new movement ID {number}")]
    assert said[:10] == expected


def test_movements_without_delay_follow_each_other(start, make_source, make_gimbal):
    daemon = start(settings(at(15, 0, 0) + ";" + at(0, 12, 0), on=1, smooth=1, speed=6))
    make_gimbal()
    make_source(daemon)
    daemon.wait_error("Start new movement ID 1\n", 2, timeout=40.0)
    assert "\tWaiting" not in daemon.errors()
    said = [line for line in daemon.errors().splitlines() if line.startswith("Start new")]
    assert said[:3] == ["Start new movement ID 1", "Start new movement ID 2",
                        "Start new movement ID 1"]


def test_a_single_move_ends_by_itself(board, start, make_client, make_source, make_gimbal, viewer):
    targets = [(20, 10, 0), (-15, -8, 6), (4, 25, -9)]
    daemon = start(settings(";".join(at(*t, delay=3) for t in targets), smooth=1, speed=6))
    console = Console(board, daemon, make_client())
    gimbal = make_gimbal()
    make_source(daemon)
    console.update("automovement", "move", "1")
    assert console.errors == []
    wait_until(lambda: gimbal.speeds() != (0.0, 0.0, 0.0), "the gimbal turning")
    daemon.wait_error("Movement ID 1 finished\n", timeout=40.0)
    wait_until(lambda: gimbal.speeds() == (0.0, 0.0, 0.0), "the gimbal standing")
    assert gimbal.is_near(targets[1], THRESHOLD + OVERSHOOT), gimbal.pose
    pose = list(gimbal.pose)
    viewer.wait_status(0, 1, 3, 1)
    for status in viewer.watch(15):
        assert status == (0, 1, 3, 1)
    assert gimbal.pose == pose
    assert daemon.errors().count("finished") == 1
    assert "Start new movement" not in daemon.errors() and "\tWaiting" not in daemon.errors()
    console.update("automovement", "movenext")
    daemon.wait_error("Movement ID 2 finished\n", timeout=40.0)
    wait_until(lambda: gimbal.speeds() == (0.0, 0.0, 0.0), "the gimbal standing")
    assert gimbal.is_near(targets[2], THRESHOLD + OVERSHOOT), gimbal.pose


def test_a_single_move_is_ended_by_a_stop(board, start, make_client, make_source, viewer):
    daemon = start(settings(at(90, 90, 90), smooth=1, speed=6))
    console = Console(board, daemon, make_client())
    make_source(daemon)
    console.update("automovement", "move", "0")
    wait_state_file(board, APP_FILE, "-0.500000,0.500000,-0.500000")
    console.update("automovement", "setstate", "0")
    wait_state_file(board, APP_FILE, STILL)
    for status in viewer.watch(15):
        assert status[0] == 0
        assert board.path(APP_FILE).read_text() == STILL
    assert "finished" not in daemon.errors()


def test_a_single_move_without_data_source_stands_still_again(board, start, make_client, viewer):
    daemon = start(settings(at(90, 90, 90), smooth=1, speed=6))
    console = Console(board, daemon, make_client())
    console.update("automovement", "move", "0")
    for _ in viewer.watch(20):  # the speeds of its first pass have been published meanwhile
        pass
    assert board.path(APP_FILE).read_text() == STILL
    assert daemon.alive() and "finished" not in daemon.errors()
