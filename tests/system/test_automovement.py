"""Automatic movement: start-up, the list, direct mode, the commands, and the status record.

A data source logs the commands of direct mode.
"""

import pytest

from commands import Console, update_text
from conftest import CONFIG
from movement import (APP_FILE, CAMERA_STATE, EV_ONLY, QUIET, STATE_FILE,  # noqa: F401 - fixtures
                      at, command, make_source, set_camera, settings, viewer, wait_state_file)


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
    daemon = start(model="Raspberry Pi Zero")  # a slow board has it too
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
    """The camera then points straight ahead."""
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
    # Waits: after the position, after each setting, the delay before the shot, then the delay.
    for first, last, seconds in [(0, 1, 1), (2, 3, 0.1), (3, 4, 0.1), (4, 5, 1), (5, 6, 0.1),
                                 (6, 7, 1), (7, 8, 2.1), (8, 9, 2), (9, 10, 0.1)]:
        assert times[last] - times[first] > 0.9 * seconds, round_trip[last]
    # Playing does not change the manual focus.
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
    viewer.wait_status(0, 1, 2, None)  # the current movement is played to its end
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


# Delays end early

LONG = 2147483647  # 68 years
# A movement with a photo after its delay, and one without.
TWO = f",,,,1,,,{LONG},1,;" + EV_ONLY.format("2", LONG)


def test_a_move_with_a_long_delay_holds_nobody_up(console, make_source, viewer):
    console.update("automovement", "params", "0", TWO, "0", "0")
    source = make_source(console.daemon)
    console.update("automovement", "move", "0")
    console.daemon.wait_error(f"\tWaiting {LONG} seconds\n")
    assert source.receive() == command("ev", "1.0")
    console.update("automovement", "setstate", "0")
    assert console.errors == ["Auto movement stop"]
    console.update("automovement", "move", "1")
    assert source.receive() == command("ev", "2.0")
    assert viewer.status()[:3] == (0, 1, 2)
    assert "Making shot" not in console.daemon.errors()


def test_the_data_source_moves_and_goes_on(board, console, make_source):
    console.update("automovement", "params", "0", TWO, "0", "0")
    source = make_source(console.daemon)
    for number in range(2):
        source.socket.sendto(update_text("automovement", "move", str(number)),
                             ("127.0.0.1", 5000))
        assert source.receive() == command("ev", f"{number + 1}.0")


def test_a_photo_is_taken_after_the_delay_of_a_move(console, make_source):
    console.update("automovement", "params", "0", ",,,,1,,,2,1,", "0", "0")
    source = make_source(console.daemon)
    console.update("automovement", "move", "0")
    (first, came), (last, ended) = source.receive_timed(), source.receive_timed()
    assert (first, last) == (command("ev", "1.0"), command("shot"))
    assert ended - came > 2
    said = console.daemon.errors().partition("Starting")[2]
    assert "\tSet EV 1.0\n" in said and "\tWaiting 2 seconds\n" in said
    assert said.endswith("\tMaking shot\n")


@pytest.fixture
def long_playing(console, make_source):
    """A list is played whose first movement's delay has begun."""
    source = make_source(console.daemon)
    console.update("automovement", "params", "1", TWO, "0", "0")
    assert source.receive() == command("ev", "1.0")
    console.daemon.wait_error(f"\tWaiting {LONG} seconds\n")
    return source


def test_stopping_ends_the_delay(console, viewer, long_playing):
    console.update("automovement", "setstate", "0")
    viewer.wait_status(0, 1, 2, None)
    console.update("automovement", "setstate", "1")
    assert long_playing.receive() == command("ev", "2.0")


def test_another_list_ends_the_delay(console, long_playing):
    console.update("automovement", "params", "1", THREE, "0", "0")
    assert long_playing.receive() == command("ev", "2.0")
    assert long_playing.receive() == command("ev", "3.0")


def test_the_same_list_again_does_not(console, viewer, long_playing):
    console.update("automovement", "params", "1", TWO, "0", "0")
    for status in viewer.watch(25):
        assert status[:3] == (1, 0, 2)
    assert long_playing.received() == []


def test_a_move_ends_the_delay_and_playing_goes_on_from_there(console, viewer, long_playing):
    console.update("automovement", "params", "1", f"{TWO};{EV_ONLY.format('3', 1)}", "0", "0")
    assert long_playing.receive() == command("ev", "2.0")
    console.daemon.wait_error(f"\tWaiting {LONG} seconds\n", 2)
    console.update("automovement", "movenext")
    assert long_playing.receive() == command("ev", "3.0")
    assert long_playing.receive() == command("ev", "1.0")
    assert viewer.status()[:3] == (1, 0, 3)


def test_a_smooth_move_ends_the_delay_of_a_smooth_one(board, start, make_client, make_source,
                                                      viewer):
    daemon = start(settings(at(0, 0, 0, LONG) + ";" + at(90, 0, 0), on=1, smooth=1, speed=6))
    make_source(daemon)
    daemon.wait_error(f"\tWaiting {LONG} seconds\n")
    console = Console(board, daemon, make_client())
    console.update("automovement", "move", "0")  # reached at once: waits again
    daemon.wait_error(f"\tWaiting {LONG} seconds\n", 2)
    console.update("automovement", "move", "1")
    wait_state_file(board, APP_FILE, "-0.500000,0.000000,0.000000")
    viewer.wait_status(1, 1, 2, None)


# The status record


def test_status_follows_the_list(console, viewer):
    assert viewer.status() == (0, 0, 0, 0)
    console.update("automovement", "params", "0", ";".join([THREE] * 7), "0", "0")
    assert viewer.status()[:3] == (0, 0, 20)
    console.update("automovement", "move", "19")
    assert viewer.status()[:3] == (0, 19, 20)
    console.update("automovement", "params", "1", THREE, "0", "0")
    viewer.wait_status(1, 0, 3, None)  # an index beyond the list returns to the first


def test_status_runs_with_any_number_but_zero(console, viewer):
    for value, running in (("6", 1), ("0", 0), ("-2", 1), ("256", 1)):
        console.update("automovement", "setstate", value)
        assert viewer.status()[0] == running, value


def test_nearest_movement(board, start, viewer):
    start(settings(";".join([at(10, 0, 0), at(0, 20, 0), at(0, 0, -30), at(0, 0, -30)])))
    # Each pose changes the number; among equally near movements the first one wins.
    for pose, nearest in [((0, 20, 0), 1), ((0, 0, -30), 2), ((9.9, 0, 0), 0), ((0, 5.1, 0), 1),
                          ((0, 5, 0), 0), ((-7, -10, -32), 2), ((3, 4, 0), 0)]:
        set_camera(board, *pose)
        viewer.wait_status(0, 0, 4, nearest)


def test_no_movement_within_reach_changes_nothing(board, start, viewer):
    start(settings(";".join([at(9999, 0, 0), at(0, 9999, 0), at(0, 9999, 0)])))
    set_camera(board, 0, 10, 0)
    viewer.wait_status(0, 0, 3, 1)
    for pose in ((0, -1, 0), (-10, -10, 0)):  # 10000 away from all, and farther
        set_camera(board, *pose)
        for status in viewer.watch(15):
            assert status == (0, 0, 3, 1)


def test_movements_out_of_all_reach(start, viewer):
    start(settings(";".join([at(0, 10000, 0), at("inf", 0, 0), at("nan", 0, 0),
                             at(0, 9999.5, 0)])))
    viewer.wait_status(0, 0, 4, 3)
