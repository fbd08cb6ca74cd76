"""The GPIO inputs: recording trigger, recording button, shot button; and the recorder's signal."""

import errno
import os
import time
from pathlib import Path

import pytest

from commands import install
from conftest import CONFIG, wait_until

TRIGGER, BUTTON, SHOT = 4, 17, 22
# Recordings go to a missing external disk, for which the poller runs no commands.
QUIET = "recording_place=2\n"
TRIGGER_USED, BUTTON_USED, SHOT_USED = (
    QUIET + "recording_gpio=4\n", QUIET + "recording_btn_gpio=17\n", QUIET + "shot_btn_gpio=22\n")
RECORDING = "recording_enabled=1\n"
UPDATE = ('config_update: {"cmd":"updateconfig","param":"rec",'
          '"value":"%d","value2":"","value3":""}\n')
START, STOP = UPDATE % 1, UPDATE % 0
NO_RECORDER = "can't send signal 10 to process recorder (PID not found)\n"
SHOT_LINE = "MAKE A SHOT\n"
SHOT_COMMAND = b'!{"cmd":"shot","param":""}'
START_COMMANDS = ["pidof recorder", "touch /run/quillorbeacon/recorder-enabled",
                  "cd ../cams ; ./kill-cams.sh ; cd .."]
STOP_COMMANDS = ["pidof recorder", "rm -f /run/quillorbeacon/recorder-enabled"]
LOW, HIGH = "0", "1"


def set_level(board, pin, level):
    board.write(f"/run/gpio/{pin}", level)


def actions(daemon):
    """What the daemon did because of the inputs, in order."""
    names = {START.strip(): "start", STOP.strip(): "stop", SHOT_LINE.strip(): "shot"}
    return [names[line] for line in daemon.errors().splitlines() if line in names]


def wait_actions(daemon, *expected):
    wait_until(lambda: len(actions(daemon)) >= len(expected), f"{expected} on standard error")
    assert actions(daemon) == list(expected)


def update_lines(daemon):
    """Standard error from the first action on, without the lines that the TCP thread may print."""
    lines = daemon.errors().splitlines(keepends=True)
    first = next(i for i, line in enumerate(lines) if line.startswith("config_update"))
    return [line for line in lines[first:]
            if not line.startswith("TCP server: ") and "hared raw RC" not in line]


def wait_cycles(daemon, count=9):
    """Waits until the poller has slept `count` times: nine cycles examine an input twice."""
    status = Path(f"/proc/{daemon.pid}/status")

    def sleeps():
        return int(status.read_text().split("\nvoluntary_ctxt_switches:")[1].split()[0])

    end = sleeps() + count
    wait_until(lambda: sleeps() >= end, f"{count} cycles of the poller")


def input_commands(board):
    """The shell commands that were run after start-up."""
    lines = [line[len("sh -c "):] for line in board.log() if line.startswith("sh -c ")]
    return lines[lines.index("dhcpcd --rebind eth0") + 1:]


def wait_commands(board, *expected):
    wait_until(lambda: len(input_commands(board)) >= len(expected), f"the commands {expected}")
    assert input_commands(board) == list(expected)


class PacedInput:
    """An input whose level the daemon must wait for each time it reads it."""

    def __init__(self, board, pin):
        self.path = board.path(f"/run/gpio/{pin}")
        self.path.parent.mkdir(exist_ok=True)
        os.mkfifo(self.path)

    def _begin(self):
        """The pipe from which the daemon is reading the level; its next read gets a new one."""
        try:
            opened = os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            assert error.errno == errno.ENXIO  # the daemon is not reading
            return None
        fresh = self.path.with_name("fresh")
        os.mkfifo(fresh)
        fresh.rename(self.path)
        return opened

    @staticmethod
    def _end(opened, level):
        os.write(opened, level.encode())
        os.close(opened)

    def feed_if_read(self, level):
        opened = self._begin()
        if opened is not None:
            self._end(opened, level)

    def feed(self, level, after=0.0):
        """Answers the next read, `after` seconds after it began; returns when it was seen."""
        opened = wait_until(self._begin, "the input read")
        seen = time.monotonic()
        time.sleep(after)
        self._end(opened, level)
        return seen


class DataSource:
    def __init__(self, board):
        self.socket = board.socket(bind=("127.0.0.1", 0))
        self.display = board.socket(bind=("127.0.0.1", 5253))
        self.told = 0

    def tell(self):
        """Sends telemetry and waits until the daemon has handled it: then it knows the sender."""
        self.told += 1
        telemetry = b"telemetry %d" % self.told
        self.socket.sendto(telemetry, ("127.0.0.1", 5000))
        while self.display.recv(65535)[12:] != telemetry:
            pass

    def wait_status(self):
        """Waits for the next status record, which ends a cycle of the poller."""
        while len(self.display.recv(65535)) != 12 + 41:
            pass

    def commands(self, until):
        """The commands received up to the command `until`, without keep-alives."""
        received, end = [], time.monotonic() + 8
        while not received or received[-1] != until:
            assert time.monotonic() < end, f"no {until} after {received}"
            datagram = self.socket.recv(65535)
            if b'"movement"' in datagram:
                self.tell()
            else:
                received.append(datagram)
        return received


@pytest.fixture
def data_source(board):
    return DataSource(board)


def test_a_low_trigger_starts_recording_and_a_high_one_stops_it(board, start):
    daemon = start(TRIGGER_USED, gpio=True)
    wait_cycles(daemon)
    assert actions(daemon) == []
    set_level(board, TRIGGER, LOW)
    wait_commands(board, *START_COMMANDS)
    marker = board.path("/run/quillorbeacon/recorder-enabled")
    wait_until(lambda: "kill-cams.sh" in board.log(), "the camera processes stopped")
    assert marker.exists()
    wait_cycles(daemon)
    wait_actions(daemon, "start")
    set_level(board, TRIGGER, HIGH)
    wait_commands(board, *START_COMMANDS, *STOP_COMMANDS)
    wait_until(lambda: not marker.exists(), "the marker removed")
    wait_cycles(daemon)
    assert actions(daemon) == ["start", "stop"]
    assert update_lines(daemon) == [START, NO_RECORDER, STOP, NO_RECORDER]


def test_recording_is_not_written_to_the_configuration_file(board, start):
    daemon = start(TRIGGER_USED, gpio=True)
    set_level(board, TRIGGER, LOW)
    wait_commands(board, *START_COMMANDS)
    wait_cycles(daemon)
    assert board.path(CONFIG).read_text() == TRIGGER_USED


@pytest.mark.parametrize("level, config, expected", [
    (LOW, "", ["start"]), (LOW, RECORDING, []), (LOW, "recording_enabled=-3\n", []),
    (HIGH, "", []), (HIGH, RECORDING, ["stop"]), (HIGH, "recording_enabled=256\n", ["stop"])])
def test_the_trigger_acts_only_where_recording_must_change(board, start, level, config, expected):
    set_level(board, TRIGGER, level)
    daemon = start(TRIGGER_USED + config, gpio=True)
    wait_actions(daemon, *expected)
    wait_cycles(daemon)
    assert actions(daemon) == expected


def test_without_a_gpio_library_the_trigger_counts_as_high(start):
    daemon = start(TRIGGER_USED + RECORDING)
    wait_actions(daemon, "stop")
    wait_cycles(daemon)
    assert actions(daemon) == ["stop"]


@pytest.mark.parametrize("config", [BUTTON_USED, BUTTON_USED + RECORDING, SHOT_USED])
def test_without_a_gpio_library_no_button_is_pressed(start, config):
    daemon = start(config)
    wait_cycles(daemon)
    assert actions(daemon) == []


@pytest.mark.parametrize("config", ["", RECORDING])
def test_unused_inputs_are_not_looked_at(board, start, config):
    for pin in (0, TRIGGER, BUTTON, SHOT):
        set_level(board, pin, LOW)
    daemon = start(QUIET + "recording_gpio=0\nrecording_btn_gpio=0\n" + config, gpio=True)
    wait_cycles(daemon)
    assert actions(daemon) == []


@pytest.mark.parametrize("config, first, second", [
    ("", "start", "stop"), (RECORDING, "stop", "start")])
def test_each_press_of_the_button_toggles_recording(board, start, config, first, second):
    set_level(board, BUTTON, HIGH)
    daemon = start(BUTTON_USED + config, gpio=True)
    wait_cycles(daemon)
    assert actions(daemon) == []
    set_level(board, BUTTON, LOW)
    wait_actions(daemon, first)
    wait_cycles(daemon)
    assert actions(daemon) == [first]
    set_level(board, BUTTON, HIGH)
    wait_cycles(daemon)
    assert actions(daemon) == [first]
    set_level(board, BUTTON, LOW)
    wait_actions(daemon, first, second)


@pytest.mark.parametrize("config, pin, used, expected", [
    ("", BUTTON, BUTTON_USED, "start"), (RECORDING, BUTTON, BUTTON_USED, "stop"),
    ("", SHOT, SHOT_USED, "shot")])
def test_a_button_held_at_start_up_counts_as_one_press(board, start, config, pin, used, expected):
    set_level(board, pin, LOW)
    daemon = start(used + config, gpio=True)
    wait_actions(daemon, expected)
    wait_cycles(daemon)
    assert actions(daemon) == [expected]


def test_a_released_button_must_be_seen_released_before_its_first_press(board, start):
    """The level at start-up is the initial state; high there counts as a press already seen."""
    shot = PacedInput(board, SHOT)
    daemon = start(SHOT_USED, gpio=True, ready=False)
    shot.feed(HIGH)
    shot.feed(LOW)
    for _ in range(2):
        shot.feed(LOW, after=0.4)
    shot.feed(HIGH, after=0.4)
    assert actions(daemon) == []
    shot.feed(LOW, after=0.4)
    wait_actions(daemon, "shot")


def test_inputs_are_examined_300_ms_apart(board, start):
    daemon = start(TRIGGER_USED, gpio=True)
    set_level(board, TRIGGER, LOW)
    daemon.wait_error(START)
    began = time.monotonic()
    for number in range(1, 4):
        set_level(board, TRIGGER, HIGH)
        daemon.wait_error(STOP, number)
        set_level(board, TRIGGER, LOW)
        daemon.wait_error(START, number + 1)
    assert 6 * 0.3 <= time.monotonic() - began + 0.1 < 6 * 0.9


def test_a_level_read_within_300_ms_of_an_examination_is_not_used(board, start):
    shot = PacedInput(board, SHOT)
    daemon = start(SHOT_USED, gpio=True, ready=False)
    shot.feed(LOW)
    early = None
    while early is None:
        before = actions(daemon)
        examined = shot.feed(HIGH, after=0.4) + 0.4  # seen released
        shot.feed(LOW, after=0.12)                   # about 220 ms later
        decided = shot.feed(HIGH, after=0.4) - 0.1   # a cycle ends with a pause of 100 ms
        if decided - examined < 0.3:                 # otherwise the daemon was delayed
            early = actions(daemon)
    assert early == before
    shot.feed(LOW, after=0.4)
    wait_actions(daemon, *early, "shot")


def test_a_trigger_in_use_keeps_the_buttons_from_being_examined(board, start):
    """All inputs share the time of the last check."""
    set_level(board, BUTTON, LOW)
    set_level(board, SHOT, LOW)
    trigger = PacedInput(board, TRIGGER)
    daemon = start(TRIGGER_USED + BUTTON_USED + SHOT_USED, gpio=True, ready=False)
    for _ in range(5):
        trigger.feed(HIGH, after=0.4)
    trigger.feed(LOW, after=0.4)
    wait_actions(daemon, "start")


def test_the_time_of_an_examination_is_that_after_its_command(board, start, data_source):
    """However long the command takes, the button is not examined in the same cycle."""
    install(board, "/sys/board/app/cams/kill-cams.sh", "#!/sys/board/sh\nsleep 0.6\n")
    set_level(board, TRIGGER, LOW)
    set_level(board, BUTTON, LOW)
    daemon = start(TRIGGER_USED + BUTTON_USED, gpio=True)
    data_source.wait_status()
    assert actions(daemon) == ["start"]


def test_a_press_makes_one_shot(board, start, data_source):
    set_level(board, SHOT, HIGH)
    daemon = start(SHOT_USED, gpio=True)
    wait_cycles(daemon)
    for number in (1, 2):
        data_source.tell()
        set_level(board, SHOT, LOW)
        assert data_source.commands(until=SHOT_COMMAND) == [SHOT_COMMAND]
        wait_cycles(daemon)
        assert actions(daemon) == ["shot"] * number
        set_level(board, SHOT, HIGH)
        wait_cycles(daemon)
        assert actions(daemon) == ["shot"] * number


def test_a_shot_without_a_data_source_is_only_told(board, start, data_source, make_client):
    set_level(board, SHOT, LOW)
    daemon = start(SHOT_USED, gpio=True)
    wait_actions(daemon, "shot")
    data_source.tell()
    make_client().send(b"!marker")
    assert data_source.commands(until=b"!marker") == [b"!marker"]


def test_no_shot_is_made_while_recording(board, start):
    set_level(board, SHOT, LOW)
    daemon = start(SHOT_USED + RECORDING, gpio=True)
    wait_cycles(daemon)
    assert actions(daemon) == []


def test_a_shot_button_held_while_recording_fires_once_recording_stops(board, start):
    set_level(board, BUTTON, HIGH)
    shot = PacedInput(board, SHOT)
    daemon = start(BUTTON_USED + SHOT_USED, gpio=True, ready=False)
    shot.feed(HIGH)             # the initial state
    shot.feed(HIGH, after=0.4)  # examined: released
    set_level(board, BUTTON, LOW)
    wait_until(lambda: shot.feed_if_read(HIGH) or actions(daemon), "recording started")
    wait_commands(board, *START_COMMANDS)
    set_level(board, BUTTON, HIGH)
    wait_cycles(daemon)
    set_level(board, BUTTON, LOW)
    for _ in range(3):
        shot.feed(LOW, after=0.4)
    assert actions(daemon) == ["start", "stop", "shot"]


@pytest.mark.parametrize("level, config, order", [
    (LOW, "", ["touch", "cd"]), (HIGH, RECORDING, ["rm"])])
def test_the_recorder_gets_signal_10_first(board, start, level, config, order):
    board.write("/sys/board/bin/recorder", board.path("/sys/board/sh").read_bytes()).chmod(0o755)
    board.popen("recorder", "-c", "trap 'echo > /run/signalled' USR1; echo $$ > /run/pid-file; "
                "mv /run/pid-file /run/recorder.pid; while :; do sleep 0.05; done")
    pid_file = board.path("/run/recorder.pid")
    wait_until(pid_file.exists, "the recorder's start")
    pid = int(pid_file.read_text())
    set_level(board, TRIGGER, level)
    daemon = start(TRIGGER_USED + config, gpio=True)
    wait_until(board.path("/run/signalled").exists, "the signal")
    wait_until(lambda: len(input_commands(board)) >= 2 + len(order), "all commands run")
    commands = input_commands(board)
    assert commands[:2] == ["pidof recorder", f"kill -10 {pid}"]
    assert [command.split()[0] for command in commands[2:]] == order
    assert update_lines(daemon) == [
        START if level == LOW else STOP,
        f"send signal 10 to process recorder (PID {pid})\n"]
