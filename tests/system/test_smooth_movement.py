"""Smooth movement: the speeds that steer the gimbal, changes of mode, and a simulated gimbal that
follows the published speeds."""

import os
import struct
import threading
import time

import pytest

from commands import Console
from conftest import wait_until
from movement import (APP_FILE, CAMERA_STATE, at, make_source,  # noqa: F401 - fixtures
                      set_camera, settings, viewer, wait_state_file)

RC_BLOCK = "/dev/shm/shared_rc_raw"
FUNCTION_VALUES_AT = 1040
STILL = "0.000000,0.000000,0.000000"


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
    # Each pass takes 200 ms, in which the publisher checks the values twice.
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
    # From now on, what a client asks for is left alone.
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
        assert 1.9 < later - earlier < 8.0


def test_a_stop_zeroes_what_a_client_wants_and_again_without_a_source(board, start, make_client):
    daemon = start(settings(at(90, 0, 0), smooth=1, speed=6))  # stopped at the start
    client = make_client()
    console = Console(board, daemon, client)
    send_app_values(client, 1, -1, 1)
    wait_state_file(board, APP_FILE, "1.000000,-1.000000,1.000000")
    console.update("automovement", "setstate", "1")  # without a source, the values are zeroed
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
    # It is played to its end, including its delay; then the gimbal is steered to the second one.
    wait_state_file(board, APP_FILE, "-0.500000,0.000000,0.000000")
    assert daemon.errors().count("\tWaiting 3 seconds\n") == 2
    for status in viewer.watch(5):
        assert status[:3] == (1, 1, 3)


class Gimbal:
    """A gimbal that turns with the published speeds and reports where it points.

    Pan and roll turn opposite to the sign of their speed, tilt with it.
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
            # If the simulation was delayed, the gimbal must not jump.
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
# The gimbal turns a little further between its arrival and the end of the speeds.
OVERSHOOT = 3.0


def test_a_gimbal_is_driven_through_the_list_and_around_again(start, make_source, make_gimbal):
    targets = [(20, 10, 0), (-15, -8, 6), (4, 25, -9)]
    daemon = start(settings(";".join(at(*t, delay=1) for t in targets), on=1, smooth=1, speed=6))
    gimbal = make_gimbal()
    make_source(daemon)
    for arrival in range(1, 6):
        daemon.wait_error("\tWaiting 1 seconds\n", arrival, timeout=40.0)
        # It stays there for the delay.
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
    for _ in viewer.watch(20):  # the speeds of its first pass are published during this time
        pass
    assert board.path(APP_FILE).read_text() == STILL
    assert daemon.alive() and "finished" not in daemon.errors()
