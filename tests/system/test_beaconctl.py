"""beaconctl: what it shows and changes, how it fails, and what it leaves the daemon unharmed by."""

import json
import re
import subprocess

import pytest

from beaconctl import Ctl, read_line, send_signal
from beaconctl import bad_link  # noqa: F401 - a fixture
from commands import BOOT_FILE, parse_settings
from conftest import REPOSITORY, wait_until

QUIET = "recording_place=2\n"
TEMPERATURE = "/sys/class/thermal/thermal_zone0/temp"
NOBODY = "beaconctl: nothing listens at 127.0.0.1:5252: is the daemon running there?\n"
COMMANDS = ["watch", "get", "set", "record", "download", "scan", "rc", "gimbal", "shot", "restart",
            "reboot", "raw"]


@pytest.fixture
def ctl(board):
    return Ctl(board)


@pytest.fixture
def daemon(start):
    return start(QUIET + 'device_name="Roof camera"\n')


def words_of(lines):
    """A table's rows by their names."""
    return dict(re.split("  +", line, maxsplit=1) for line in lines if "  " in line)


# Sections.

def test_every_section_is_valid_json(ctl, daemon):
    sections = ctl("get").stdout.split()
    assert len(sections) == 13
    for section in sections:
        done = ctl("get", section, "--json")
        assert (done.returncode, done.stderr) == (0, ""), section
        assert len(json.loads(done.stdout)) >= 2, section
    assert json.loads(ctl("get", "info", "--json").stdout) == {
        "board_model": "", "app_type": 0, "app_version": "0.8.19", "device_name": "Roof camera"}


def test_texts_that_no_json_could_hold_as_they_come(board, ctl, start):
    start(QUIET + 'wifi_psk="back\\nslash"\nwifi_ssid=a "b" c\n')
    board.prepare_output("zerotier-cli", 'first "quoted", line\n\tsecond\n')
    wifi = json.loads(ctl("get", "wifi", "--json").stdout)
    assert wifi["wifi_psk"] == "back\\nslash"
    answer = json.loads(ctl("get", "zerotier", "--json").stdout)
    assert answer["info"] == answer["networks"] == 'first "quoted", line\n\tsecond\n'
    assert ctl("get", "zerotier").stdout == (
        "enabled   0\nautojoin  0\nnetid\n"
        'info      first "quoted", line\n          ?second\n'
        'networks  first "quoted", line\n          ?second\n')


def test_a_wrong_section(ctl, daemon):
    done = ctl("get", "nope", "--json")
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith('beaconctl: there is no section "nope"; there are: info ethernet')


# Settings.

def example_values(fields, number):
    """A value for each field of a usage line, unlike those of other fields."""
    return ["1" if field.endswith(":0|1") else str(100 + number + i)
            for i, field in enumerate(fields)]


def test_every_value_becomes_the_setting_that_the_list_names(board, ctl, daemon):
    expected = {}
    for number, line in enumerate(ctl("set").stdout.splitlines()):
        words = line.split()
        fields = [word.strip("<>") for word in words if word[0] == "<"]
        if words[0] in ("cvbs", "hdmi", "app_type", "rec") or not fields \
                or fields[0] in ("step", "running:0|1", "network"):
            continue
        values = example_values(fields, number)
        if words[0] == "recording":
            values[0] = "0"  # a trigger pin that is not low ends a recording
        done = ctl("set", *(word for word in words if word[0] != "<"), *values)
        assert (done.returncode, done.stderr) == (0, ""), line
        keys = [field.removesuffix(":0|1") for field in fields]
        assert [row.split() for row in done.stdout.splitlines()] == \
            [list(pair) for pair in zip(keys, values)]
        expected.update(zip(keys, values))
    assert len(expected) == 77
    saved = parse_settings(board.path(BOOT_FILE).read_bytes())
    assert {key: saved[key].strip('"') for key in expected} == expected


def test_values_by_name_leave_the_others(board, ctl, start):
    start(QUIET + 'ap_ssid="Beacon"\nap_psk="with \\ and 50%;"\nap_channel=6\n')
    done = ctl("set", "wlan", "ap_channel=11", "sys_country=DE")
    assert (done.returncode, done.stdout) == (0, "ap_channel      11\nsystem_country  DE\n")
    saved = parse_settings(board.path(BOOT_FILE).read_bytes())
    assert saved["ap_channel"] == "11" and saved["system_country"] == "DE"
    assert saved["ap_ssid"] == '"Beacon"' and saved["ap_psk"] == '"with \\ and 50%;"'


def test_a_value_that_is_not_taken_as_it_was_given(ctl, daemon):
    done = ctl("set", "internal_camera", "enabled=0", "camera_params=" + "x" * 120)
    assert (done.returncode, done.stdout) == (1, "internal_camera_enabled  0\n")
    assert done.stderr == ("beaconctl: not taken as given: internal_camera_params is \""
                           + "x" * 99 + '"\n')


UNCLEAR = [
    (["nope", "1"], 'there is no param "nope"'),
    (["display"], '"display" is used like this:\n  beaconctl set display enabled'),
    (["display", "hflip"], "0 values given where 1 are taken"),
    (["display", "hflip", "2"], 'display_hflip takes 0 or 1, not "2"'),
    (["streaming", "srt", "enabled=1"],
     '"enabled=1" is no NAME=VALUE of this param; its names: stream_srt_enabled (srt_enabled), '),
    (["wlan", "a", "b"], "2 values given where 16 are taken (or NAME=VALUE for some)"),
    (["cvbs", "test", "aspect=4:3"], "standard is missing"),
]


def test_a_set_that_cannot_be_meant_is_not_sent(ctl, daemon):
    for words, said in UNCLEAR:
        done = ctl("set", *words)
        assert done.returncode == 2 and done.stderr.startswith("beaconctl: " + said), done.stderr
    assert "config_update" not in daemon.errors()


def test_what_the_board_does_not_tell(ctl, daemon):
    done = ctl("set", "automovement", "setstate", "on")
    assert (done.returncode, done.stdout) == (
        0, "Sent; the daemon does not say what becomes of it.\n")
    daemon.wait_error("Auto movement start\n")
    done = ctl("set", "app_type", "app_type=9")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "Sent. The daemon stores it, ends and is started anew with it.\n", "")
    assert daemon.wait_exit() == 1


# Status.

def test_watch_once(board, ctl, daemon):
    board.write(TEMPERATURE, "48312\n")
    wait_until(lambda: "48 °C" in ctl("watch", "--once").stdout, "the temperature")
    done = ctl("watch", "--once")
    title, *lines = done.stdout.splitlines()
    assert done.returncode == 0 and title == '127.0.0.1:5252 "Roof camera"'
    rows = words_of(lines)
    assert rows["Storage"] == "external, no free space or no drive"
    assert rows["Temperature"] == "48 °C" and rows["RC"] == "no receiver"
    assert rows["Sources"] == "none" and rows["Services"] == "all off"


def test_watch_into_a_pipe_writes_a_line_for_each_change(board, ctl, start):
    daemon = start(QUIET)
    board.write(TEMPERATURE, "48000")
    process = ctl.start("watch")

    def next_line(text):
        wait_until(lambda: text in read_line(process.stdout), text, 20.0)

    next_line("; 48 °C; ")
    board.write(TEMPERATURE, "49000")
    next_line("; 49 °C; ")
    daemon.kill()
    next_line(" the daemon is silent\n")
    start(QUIET)
    next_line("; 49 °C; ")
    send_signal(process)
    assert process.wait(20.0) == 0
    assert process.stderr.read() == b""


def test_watch_ends_when_nobody_reads(ctl, daemon):
    process = ctl.start("watch")
    # We are counted within a second or two; then nothing changes any more.
    wait_until(lambda: "clients: 1" in read_line(process.stdout), "the last change", 20.0)
    process.stdout.close()
    assert process.wait(20.0) == 0
    daemon.wait_error(" removed\n")


def test_watch_at_a_terminal_writes_one_screen_anew(board, ctl, daemon):
    board.write(TEMPERATURE, "48000")
    terminal = ctl.at_terminal("watch", columns=30)
    terminal.expect("48 °C")
    board.write(TEMPERATURE, "49000")
    shown = terminal.expect("49 °C") + terminal.expect("\x1b[J")
    assert "\x1b[11A" in shown
    terminal.expect("\x1b[J")
    lines = re.sub("\x1b\\[[0-9]*[AJK]|\r", "", shown).splitlines()
    assert max(map(len, lines)) == 29
    terminal.interrupt()
    assert terminal.end()[0] == 0


def test_a_low_terminal_shows_as_much_as_it_can(ctl, daemon):
    terminal = ctl.at_terminal("watch", rows=5)
    terminal.expect("(there is more: make the window taller)")
    terminal.expect("\x1b[4A")
    terminal.interrupt()
    assert terminal.end()[0] == 0


# No answer, and usage.

def test_no_daemon(board, ctl):
    calls = [["get", "info"], ["set", "display", "hflip", "1"], ["set", "wlan", "ap_ssid=a"],
             ["watch"], ["record", "x"], ["download", "/a", "x"], ["scan"], ["rc"],
             ["rc", "calibrate"], ["gimbal", "0", "0", "0"], ["shot"], ["raw", '{"cmd":"x"}'],
             ["restart"], ["reboot", "--yes"]]
    for words in calls:
        done = ctl(*words)
        assert (done.returncode, done.stdout, done.stderr) == (3, "", NOBODY), words
    board.socket(bind=("127.0.0.1", 6000))  # somebody is there, but says nothing
    for words in (["get", "info"], ["download", "/a", "x"]):
        done = ctl("--port", "6000", "--timeout", "0.3", *words)
        assert (done.returncode, done.stderr) == (
            3, "beaconctl: no answer from 127.0.0.1:6000 within 0.3 s\n")
    assert not board.path("/tmp/x").exists() and not board.path("/tmp/x.part").exists()


def test_hosts_may_have_names(ctl, daemon):
    assert ctl("--host", "localhost", "get", "info").returncode == 0
    done = ctl("get", "info", "--host", "nowhere.invalid")
    assert done.returncode == 3
    assert done.stderr.startswith("beaconctl: cannot find the host nowhere.invalid: ")


USELESS = [
    [], ["nope"], ["get", "info", "more"], ["record"], ["gimbal", "0", "0", "1.1"],
    ["download", "/" + "x" * 255, "x"], ["download", "", "x"], ["record", "x", "--type", "y"],
    ["gimbal", "nan", "0", "0"], ["gimbal", "0", "inf", "0"], ["gimbal", "0", "0", "-.5x"],
    ["record", "x", "--seconds", "1e12"], ["record", "x", "--seconds", "nan"],
    ["record", "x", "--seconds", "-1"], ["--timeout", "nan", "get"], ["--timeout", "0", "get"],
    ["raw", "{}", "--seconds", "inf"],
    ["--port", "0", "get"], ["rc", "calibrate", "3"], ["reboot"],
]


def test_wrong_usage(ctl):
    for words in USELESS:
        done = ctl(*words)
        assert done.returncode == 2 and done.stdout == "", words
        assert done.stderr.startswith("beaconctl: "), words
    assert ctl("nope", "get").stderr.startswith('beaconctl: ')
    assert ctl("--port", "1", "nope").stderr.startswith('beaconctl: no command "nope"\n')
    assert ctl("get", "--timeout", "1e7").stderr.startswith(
        'beaconctl: --timeout: "1e7" is no number from 0.05 to 1000000\n')


def test_a_full_house(ctl, daemon, registered_client):
    for number in range(10):
        registered_client(daemon, f"127.0.1.{number}")
    told = "beaconctl: the daemon has ten clients already, and takes no more\n"
    wait_until(lambda: ctl("--timeout", "0.3", "watch", "--once").stderr == told, "the message")


# Single requests.

def test_raw(ctl, daemon):
    done = ctl("raw", '{"cmd":"config_request","param":"automovement"}', "--seconds", "0.3")
    assert done.stdout == ('{"cmd":"config_answer","enabled":0,"smooth":0,"smooth_speed":0,'
                           '"list":"",}\n')
    done = ctl("raw", '{"cmd":"nothing"}', "--seconds", "0.1")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == "Sent; nothing came back within 0.1 s.\n"


FATAL = [
    "", "{", "[]", "{}", '{"cmd":1}', '{"cmd":"rc"}', '{"cmd":"file","param":0}',
    '{"cmd":"updateconfig"}', '{"cmd":"wlan","param":"scan"}',
    '{"cmd":"rc\\u0000"}', '{"cmd":"x","y":' + "[" * 2000 + "]" * 2000 + "}",
]


def test_raw_refuses_what_the_daemon_would_end_on(ctl, daemon):
    for command in FATAL:
        done = ctl("raw", command)
        assert (done.returncode, done.stdout) == (2, ""), command
        assert done.stderr.startswith("beaconctl: not sent, for the daemon would end on it: ")
    assert "parse_packet" not in daemon.errors() and daemon.alive()


def test_the_longest_command(ctl, daemon):
    command = '{"cmd":"nothing","value":"%s"}' % ("z" * (29988 - 28))
    assert len(command) == 29988
    assert ctl("raw", command, "--seconds", "0.1").returncode == 0
    daemon.wait_error("parse_packet json " + command + "\n")
    done = ctl("raw", command.replace("z", "zz", 1))
    assert (done.returncode, done.stderr) == (
        2, "beaconctl: not sent: it is too long: the daemon reads 29988 bytes at most\n")


def test_scan(board, ctl, daemon):
    board.prepare_output("iwlist", '  ESSID:"Harbour"\n  ESSID:""\n  ESSID:"Caf\\xC3\\xA9"\n')
    assert ctl("scan").stdout == "Harbour\n(hidden)\nCafé\n"
    assert json.loads(ctl("scan", "ext", "--json").stdout) == {
        "interface": "ext", "networks": ["Harbour", "", "Café"]}
    done = ctl("scan", "cam")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: camera_iface is not set on the board: scan int or ext\n")
    board.prepare_output("iwlist", "")
    assert ctl("scan").stdout == "no network found\n"


def test_shot(board, ctl, daemon):
    done = ctl("shot")
    assert (done.returncode, done.stdout) == (1, "")
    source = board.socket(bind=("127.0.0.1", 0))
    source.sendto(b"here I am", ("127.0.0.1", 5000))
    daemon.wait_error("Data found\n")
    done = ctl("shot")
    assert done.returncode == 0 and done.stdout.startswith("Sent to the camera")
    wait_until(lambda: source.recv(2000) == b'!{"cmd":"shot","param":""}', "the command")


def test_gimbal(board, ctl, daemon):
    def values():
        file = board.path("/run/quillorbeacon/smooth_ptd_app_values")
        text = file.read_text() if file.exists() else ""
        return [round(float(value), 3) for value in text.split(",")] if text else []

    assert ctl("gimbal", "0.5", "-1", "0.25").returncode == 0
    wait_until(lambda: values() == [0.5, -1.0, 0.25], "the values")
    assert ctl("gimbal", "-.5", "0", "-1e-1").returncode == 0
    wait_until(lambda: values() == [-0.5, 0.0, -0.1], "the values")
    assert ctl("gimbal", "0", "0", "0").stdout == "Sent: pan 0, tilt 0, roll 0.\n"
    wait_until(lambda: values() == [0.0, 0.0, 0.0], "the values")


def test_restart(ctl, daemon):
    done = ctl("restart")
    assert (done.returncode, done.stdout) == (
        0, "The daemon has ended; its supervisor starts it again.\n")
    assert daemon.wait_exit() == 2


def test_a_restart_of_which_datagrams_get_lost(
        ctl, daemon, bad_link, make_client, start):  # noqa: F811
    client = make_client()
    for _ in range(500):  # the old count of packets gets far beyond that of a new daemon
        client.send(b"\0")
        client.receive_any()
    # Behind the first question: the command and the question after it are lost, and the command
    # again.
    link = bad_link(lambda to_client, number, _datagram: to_client or number not in (2, 3, 5))
    process = ctl.start(*link.options, "--timeout", "60", "restart", text=True)
    assert daemon.wait_exit(30.0) == 2
    start(QUIET)
    assert process.wait(60.0) == 0
    assert process.stdout.read() == "The daemon has ended; its supervisor starts it again.\n"
    assert link.lost == 3


def test_a_restart_after_which_nothing_is_heard(ctl, daemon, bad_link):  # noqa: F811
    link = bad_link(lambda to_client, number, _datagram: number == 1)
    done = ctl(*link.options, "--timeout", "1", "restart")
    assert (done.returncode, done.stdout, done.stderr) == (
        3, "", "beaconctl: sent, and it no longer answers\n")
    assert daemon.alive()
    link = bad_link(lambda to_client, _number, datagram: b"restart" not in datagram)
    done = ctl(*link.options, "restart")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: the daemon goes on without a restart\n")


def test_reboot_asks_first(board, ctl, daemon):
    terminal = ctl.at_terminal("reboot")
    terminal.expect("Reboot the board 127.0.0.1:5252? [y/N] ")
    terminal.type("\n")
    assert terminal.end()[0] == 1
    assert "reboot" not in board.log()
    terminal = ctl.at_terminal("reboot")
    terminal.expect("[y/N] ")
    terminal.type("y\n")
    assert terminal.end()[0] == 0
    wait_until(lambda: "reboot" in board.log(), "the reboot")


# Help, manual page and completion tell the same.

def options_of(text):
    return set(re.findall(r"--[a-z]+", text.split("Exit status")[0].split("Examples")[0]))


def test_version_and_help(ctl):
    assert ctl("--version").stdout == "beaconctl 0.8.19\n"
    done = ctl("--help")
    assert done.returncode == 0
    assert ctl("set").stdout in ctl("set", "--help").stdout.replace("\n  ", "\n") + "\n"
    listed = re.search("Subcommands:\n(.*?)\n\n", done.stdout, re.DOTALL)[1]
    assert [line.split()[0] for line in listed.splitlines()] == COMMANDS


def test_the_manual_page_has_all_commands_and_options(ctl):
    page = (REPOSITORY / "docs/man/beaconctl.1").read_text().replace("\\-", "-")
    assert '"Quillorbeacon 0.8.19"' in page.splitlines()[0]
    headings = re.findall(r"^\.SS (\w+)", page, re.MULTILINE)
    assert list(dict.fromkeys(headings)) == COMMANDS
    options = set().union(*(options_of(ctl(*words, "--help").stdout)
                            for words in [[]] + [[command] for command in COMMANDS]))
    assert options <= options_of(page), options - options_of(page)
    for key in re.findall(r"(\w+)=", page.replace("NAME =", "")):
        assert key in ctl("set").stdout or key in ("enabled", "camera_params", "list"), key


def completions(line):
    """What bash offers behind the line, whose last word is being typed."""
    script = """
        source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _beaconctl
        printf '%s\\n' "${COMPREPLY[@]}"
    """
    file = REPOSITORY / "tools/beaconctl/beaconctl.bash"
    found = subprocess.run(["/bin/bash", "-c", script, "bash", str(file), *line], check=True,
                           stdout=subprocess.PIPE, text=True, cwd=REPOSITORY / "sandbox").stdout
    return found.split()


def test_completion_offers_what_there_is(ctl):
    assert completions(["beaconctl", ""]) == COMMANDS
    assert completions(["beaconctl", "get", ""]) == ctl("get").stdout.split()
    subs = {}
    for line in ctl("set").stdout.splitlines():
        param, *rest = [word for word in line.split() if word[0] not in "<["]
        subs.setdefault(param, []).extend(rest)
    assert completions(["beaconctl", "set", ""]) == list(subs)
    for param, names in subs.items():
        assert completions(["beaconctl", "set", param, ""]) == names
    for command in COMMANDS:
        offered = completions(["beaconctl", command, "-"])
        assert set(offered) == options_of(ctl(command, "--help").stdout) | {
            "--host", "--port", "--timeout"}
    assert set(completions(["beaconctl", "-"])) == options_of(ctl("--help").stdout)


def test_completion_knows_where_it_is():
    assert completions(["beaconctl", "wa"]) == ["watch"]
    assert completions(["beaconctl", "--host", "board", "g"]) == ["get", "gimbal"]
    assert completions(["beaconctl", "record", "--type", "a"]) == ["audio"]
    assert completions(["beaconctl", "record", "se"]) == ["setup.sh"]
    assert completions(["beaconctl", "download", "/media/x", "bo"]) == ["board.py"]
    assert completions(["beaconctl", "rc", "calibrate", ""]) == ["1", "2"]
    # The shell takes "=" for a word of its own.
    assert completions(["beaconctl", "--host", "=", "board", "g"]) == ["get", "gimbal"]
    assert completions(["beaconctl", "--host", "=", "10.0.0.1", "get", "wi"]) == ["wifi"]
    assert completions(["beaconctl", "record", "--type", "=", "a"]) == ["audio"]
    assert completions(["beaconctl", "record", "--type", "="]) == [
        "video", "audio", "camera", "data"]
    assert completions(["beaconctl", "record", "--type=audio", "se"]) == ["setup.sh"]
