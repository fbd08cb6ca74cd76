"""beaconctl: what it shows and changes, how it fails, and that it does the daemon no harm."""

import json
import re
import signal
import subprocess

import pytest

from beaconctl import COMMANDS, PROGRAM, Ctl, read_line, send_signal
from commands import BOOT_FILE, parse_settings
from conftest import REPOSITORY, SANITIZERS, wait_until

QUIET = "recording_place=2\n"
TEMPERATURE = "/sys/class/thermal/thermal_zone0/temp"
NOBODY = "beaconctl: nothing listens at 127.0.0.1:5252: is the daemon running there?\n"


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
    """A different value for each field of a usage line."""
    return ["1" if field.endswith(":0|1") else str(100 + number + i)
            for i, field in enumerate(fields)]


def test_every_value_becomes_the_setting_that_the_list_names(board, ctl, daemon):
    # Most of these values are not allowed.
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
        done = ctl("set", "--yes", "--force", *(word for word in words if word[0] != "<"), *values)
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
    done = ctl("set", "wlan", "ap_channel=11", "sys_country=DE", "--yes")
    assert (done.returncode, done.stdout) == (0, "ap_channel      11\nsystem_country  DE\n")
    saved = parse_settings(board.path(BOOT_FILE).read_bytes())
    assert saved["ap_channel"] == "11" and saved["system_country"] == "DE"
    assert saved["ap_ssid"] == '"Beacon"' and saved["ap_psk"] == '"with \\ and 50%;"'


def test_a_value_that_is_not_taken_as_it_was_given(ctl, daemon):
    done = ctl("set", "internal_camera", "enabled=0", "camera_params=" + "x" * 120, "--force")
    assert (done.returncode, done.stdout) == (1, "internal_camera_enabled  0\n")
    assert done.stderr == ("beaconctl: not taken as given: internal_camera_params is \""
                           + "x" * 99 + '"\n')


UNCLEAR = [
    (["nope", "1"], 'there is no param "nope"'),
    (["display"], '"display" is used like this:\n  beaconctl set display enabled'),
    (["display", "hflip"], "0 values given instead of 1"),
    (["display", "hflip", "2"], 'display_hflip takes 0 or 1, not "2"'),
    (["streaming", "srt", "enabled=1"],
     '"enabled=1" is not a NAME=VALUE of this param, did you mean "stream_srt_enabled"? its names: '),
    (["wlan", "a", "b"], "2 values given instead of 16 (or NAME=VALUE for some)"),
    (["cvbs", "test", "aspect=4:3"], "standard is missing"),
    (["streaming", "udp", "udp_blocksize=65508"],
     'stream_udp_blocksize takes a number from 0 to 65507, not "65508"; --force sends it'),
    (["recording", "place=usb"],
     'recording_place takes 0 (auto), 1 (internal) or 2 (external), not "usb"'),
    (["wlan", "ap_mode=2.4ghz", "ap_channel=36"],
     "ap_channel 36 is not a channel of 2.4 GHz (1 to 14); --force sends it"),
    (["set", "--list"], 'there is no param "set"'),
]


def test_a_set_that_cannot_be_meant_is_not_sent(ctl, daemon):
    for words, said in UNCLEAR:
        done = ctl("set", *words)
        assert done.returncode == 2 and done.stderr.startswith("beaconctl: " + said), done.stderr
    assert "config_update" not in daemon.errors()


def test_choices_have_names_and_the_list_tells_them(board, ctl, daemon):
    done = ctl("set", "recording", "place=external")
    assert (done.returncode, done.stdout) == (0, "recording_place  2\n")
    assert parse_settings(board.path(BOOT_FILE).read_bytes())["recording_place"] == "2"
    done = ctl("set", "--list", "make_preview")
    assert (done.returncode, done.stdout) == (
        0, "make_preview\n  make_preview: 0 or 1\n      Make preview pictures of recordings.\n")
    listed = json.loads(ctl("set", "--list", "recording", "--json").stdout)
    assert [choice["name"] for choice in listed[1]["choices"]] == ["auto", "internal", "external"]
    lines = ctl("set", "--list").stdout.splitlines()
    assert sum(line.endswith(": 0 or 1") for line in lines) == \
        sum(":0|1" in word for word in ctl("set").stdout.split())


def test_what_the_board_does_not_tell(ctl, daemon):
    done = ctl("set", "automovement", "setstate", "on")
    assert (done.returncode, done.stdout) == (
        0, "Sent; the daemon does not say what becomes of it.\n")
    daemon.wait_error("Auto movement start\n")
    done = ctl("set", "app_type", "app_type=9", "--yes")
    assert (done.returncode, done.stdout, done.stderr) == (
        0, "Sent. The daemon stores it, ends, and is started again with it.\n", "")
    assert daemon.wait_exit() == 1


def test_get_and_set_take_the_same_names(ctl, daemon):
    assert ctl("set", "display", "daspect", "on").stdout == "display_keep_aspect  1\n"
    assert ctl("set", "display", "osd=1", "hflip=1", "--json").stdout == (
        '{"osd_enabled":1,"display_hflip":1}\n')
    assert ctl("set", "audio_volume=7", "resize_width", "--list").returncode == 2
    assert ctl("set", "audio_volume=7", "resize_width=8").stdout == (
        "audio_volume  7\nresize_width  8\n")
    assert ctl("set", "camera", "enabled=0").stdout == "internal_camera_enabled  0\n"
    for words in (["display", "hflip"], ["display", "display_hflip"], ["display_hflip"],
                  ["osd", "enabled"], ["display", "aspect_ratio"]):
        done = ctl("get", *words)
        assert (done.returncode, done.stdout, done.stderr) == (0, "1\n", ""), words
    assert ctl("get", "osd").stdout == "osd          1\nosd_borders  0\n"
    assert ctl("get", "wlan", "--json").stdout == ctl("get", "wifi", "--json").stdout
    assert json.loads(ctl("get", "streaming", "rtsp", "srt_url", "--json").stdout) == {
        "rtsp_enabled": 0, "srt_url": ""}
    assert ctl("get", "streaming", "srt").stdout == "srt_enabled  0\nsrt_url\n"


MISTYPED = [
    (["set", "display", "hflp", "on"],
     'there is no "hflp" in display, did you mean "hflip"?', 2),
    (["set", "displya", "hflip", "on"], 'there is no param "displya", did you mean "display"?', 2),
    (["get", "display", "hflp"], 'there is no "hflp" in display, did you mean "hflip"?', 1),
    (["set", "hflip=on"], 'there is no setting "hflip", did you mean "display_hflip"?', 2),
    (["get", "displya"], 'there is no section "displya", did you mean "display"? there are: ', 1),
    (["get", "wifi", "ap_iq"], 'there is no "ap_iq" in wifi, did you mean "ap_ip"?', 1),
    (["--versoin"], 'there is no option "--versoin", did you mean "--version"?\n', 2),
    (["set", "display", "hflip", "1", "--frce"], 'there is no option "--frce", did you', 2),
    (["wtach"], 'no command "wtach", did you mean "watch"?\n', 2),
]


def test_a_wrong_word_is_named_with_the_nearest_right_one(ctl, daemon):
    for words, said, code in MISTYPED:
        done = ctl(*words)
        assert (done.returncode, done.stdout) == (code, ""), words
        assert done.stderr.startswith("beaconctl: " + said), done.stderr
    assert "config_update" not in daemon.errors()


def test_a_backup_restores_a_board(board, ctl, start):
    start(QUIET + 'ap_ssid="Beacon"\ndevice_name="Roof"\nstream_udp_blocksize=1400\n')
    saved = ctl("get", "--all", "--json").stdout
    assert list(json.loads(saved)) == ctl("get").stdout.split()
    board.write("/tmp/backup.json", saved)
    assert ctl("set", "--from", "/tmp/backup.json").stdout == (
        "The board has these settings already.\n")
    ctl("set", "wlan", "ap_ssid=Other", "ap_channel=11", "--yes")
    ctl("set", "display_hflip=1")
    differences = ('display_hflip  "1" -> "0"\nap_ssid        "Other" -> "Beacon"\n'
                   'ap_channel     "11" -> "0"\n')
    shown = ctl("set", "--from", "/tmp/backup.json")
    assert (shown.returncode, sorted(shown.stdout.splitlines())) == (
        2, sorted(differences.splitlines()))
    assert json.loads(ctl("get", "wifi", "--json").stdout)["ap_ssid"] == "Other"
    done = ctl("set", "--from", "-", "--yes", "--json", input=saved)
    assert (done.returncode, done.stderr) == (0, "")
    assert json.loads(done.stdout) == {"display_hflip": 0, "ap_ssid": "Beacon", "ap_channel": 0}
    # An update fills in an empty mask.
    restored = ctl("get", "--all", "--json").stdout
    assert restored.replace('"wifi_s_mask":"255.255.255.0"', '"wifi_s_mask":""') == saved
    assert ctl("set", "--from", "-", input="[]").returncode == 1


def test_what_a_backup_has_and_the_board_does_not_is_told(board, ctl, start):
    start(QUIET)
    board.write("/tmp/backup.json", '{"display":{"hflp":1,"hflip":1},"sound":{},"displai":{}}')
    done = ctl("set", "--from", "/tmp/backup.json", "--yes")
    assert (done.returncode, done.stdout) == (0, 'display_hflip  "0" -> "1"\ndisplay_hflip  1\n')
    assert done.stderr.splitlines() == [
        'beaconctl: left out: there is no section "sound"',
        'beaconctl: left out: there is no section "displai", did you mean "display"?',
        'beaconctl: left out: there is no "hflp" in display, did you mean "hflip"?']


def test_a_backup_with_values_that_do_not_go_together_is_refused(board, ctl, start):
    start(QUIET + "ap_mode=5\nap_channel=36\n")
    mode = ctl("get", "wifi", "ap_mode").stdout
    board.write("/tmp/backup.json", '{"wifi":{"ap_mode":2}}')
    done = ctl("set", "--from", "/tmp/backup.json", "--yes")
    assert (done.returncode, done.stderr) == (
        2, "beaconctl: ap_channel 36 is not a channel of 2.4 GHz (1 to 14); --force sends it "
           "all the same\n")
    assert ctl("get", "wifi", "ap_mode").stdout == mode
    assert ctl("set", "--from", "/tmp/backup.json", "--yes", "--force").returncode == 0
    assert ctl("get", "wifi", "ap_mode").stdout != mode


def test_what_may_cut_the_link_asks_first(ctl, daemon):
    done = ctl("set", "ethernet", "mask=255.255.0.0")
    assert (done.returncode, done.stdout, done.stderr) == (
        2, "", "beaconctl: set ethernet asks first, and standard input is no terminal: add --yes\n")
    terminal = ctl.at_terminal("set", "wlan", "ap_ssid=a")
    terminal.expect("This may cut the link to 127.0.0.1:5252. Change it? [y/N] ")
    terminal.type("n\n")
    code, shown = terminal.end()
    assert code == 1 and "not changed" in shown
    assert "config_update" not in daemon.errors()


def test_values_that_nobody_confirms_are_taken_back(ctl, daemon):
    question = "Keep this? Type y within 60 s, or it is taken back: "
    words = ["set", "wlan", "ap_ssid=New", "--yes", "--revert-after"]
    terminal = ctl.at_terminal(*words, "60")
    terminal.expect(question)
    assert ctl("get", "ap_ssid").stdout == "New\n"
    send_signal(terminal.process, signal.SIGHUP)
    code, shown = terminal.end()
    assert code == 1 and "not confirmed: the old values are back" in shown
    assert ctl("get", "ap_ssid").stdout == "\n"
    done = ctl(*words, "0.1")
    assert (done.returncode, done.stderr) == (
        1, "beaconctl: not confirmed: the old values are back\n")
    assert ctl("get", "ap_ssid").stdout == "\n"
    terminal = ctl.at_terminal(*words, "60")
    terminal.expect(question)
    terminal.type("y\n")
    assert terminal.end()[0] == 0
    assert ctl("get", "ap_ssid").stdout == "New\n"


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
    assert process.wait(60) == 0
    assert process.stderr.read() == b""


def test_watch_ends_when_nobody_reads(ctl, daemon):
    process = ctl.start("watch")
    # We are counted within a second or two; after that nothing changes.
    wait_until(lambda: "clients: 1" in read_line(process.stdout), "the last change", 20.0)
    process.stdout.close()
    assert process.wait(60) == 0
    daemon.wait_error(" removed\n")


def test_watch_at_a_terminal_writes_one_screen_anew(board, ctl, daemon):
    board.write(TEMPERATURE, "48000")
    terminal = ctl.at_terminal("watch", columns=30)
    terminal.expect("48 °C")
    board.write(TEMPERATURE, "49000")
    shown = terminal.expect("49 °C") + terminal.expect("\x1b[J")
    assert "\x1b[14A" in shown
    terminal.expect("\x1b[J")
    lines = re.sub("\x1b\\[[0-9]*[AJK]|\r", "", shown).splitlines()
    assert max(map(len, lines)) == 29
    terminal.type("q")
    assert terminal.end()[0] == 0


def test_watch_as_json_is_a_stream(ctl, daemon):
    process = ctl.start("watch", "--json")
    first, second = (json.loads(read_line(process.stdout)) for _ in range(2))
    assert first["version"] == second["version"] == "0.8.19"
    assert re.fullmatch(r"20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ", first["time"])
    assert first["time"] != second["time"]
    send_signal(process)
    assert process.wait(60) == 0
    assert json.loads(ctl("watch", "--once", "--json").stdout)["version"] == "0.8.19"


def test_a_low_terminal_shows_as_much_as_it_can(ctl, daemon):
    terminal = ctl.at_terminal("watch", rows=5)
    terminal.expect("(there is more: make the window taller)")
    terminal.expect("\x1b[4A")
    terminal.interrupt()
    assert terminal.end()[0] == 0


# No answer, and usage.

def test_no_daemon(board, ctl):
    calls = [["get", "info"], ["set", "display", "hflip", "1"], ["set", "wlan", "ap_ssid=a", "--yes"],
             ["watch"], ["view"], ["record", "x"], ["download", "/a", "x"], ["scan"], ["rc"],
             ["rc", "calibrate"], ["gimbal", "0", "0", "0"], ["shot"], ["raw", '{"cmd":"x"}'],
             ["restart"], ["reboot", "--yes"]]
    for words in calls:
        done = ctl(*words)
        assert (done.returncode, done.stdout, done.stderr) == (3, "", NOBODY), words
    board.socket(bind=("127.0.0.1", 6000))  # a socket that never answers
    done = ctl("discover", "--timeout", "0.1")
    assert (done.returncode, done.stderr) == (
        3, "beaconctl: no board answers in the networks of this machine\n")
    for words in (["get", "info"], ["download", "/a", "x"]):
        done = ctl("--port", "6000", "--timeout", "0.3", *words)
        assert (done.returncode, done.stderr) == (
            3, "beaconctl: no answer from 127.0.0.1:6000 within 0.3 s\n")
    assert not board.path("/tmp/x").exists() and not board.path("/tmp/x.part").exists()


def test_hosts_may_have_names(ctl, daemon):
    assert ctl("--host", "localhost", "get", "info").returncode == 0
    assert ctl("get", "info", "--port", "6000", "--host", "localhost:5252").returncode == 3
    assert ctl("get", "info", "--port", "5252", "--host", "localhost:6000").returncode == 0
    assert ctl("--host", "localhost:5252", "get", "info").returncode == 0
    done = ctl("get", "info", "--host", "localhost:x")
    assert (done.returncode, done.stderr.splitlines()[0]) == (
        2, 'beaconctl: --host: "localhost:x" has no port after the colon')
    done = ctl("get", "info", "--host", "nowhere.invalid")
    assert done.returncode == 3
    assert done.stderr.startswith("beaconctl: cannot find the host nowhere.invalid: ")


def wait_for(run):
    """The result of the first run that succeeds: a busy board may not answer in so short a time."""
    def result():
        done = run()
        return done if done.returncode == 0 else None

    return wait_until(result, "an answer")


def test_the_boards_of_the_network_are_found(ctl, daemon):
    done = wait_for(lambda: ctl("discover", "--timeout", "0.3"))
    assert ('127.0.0.1', '"Roof camera", DJI Osmo/Osmo+/Osmo Pro/Osmo RAW wireless, clients: 0') in \
        words_of(done.stdout.splitlines()).items()
    found = json.loads(wait_for(lambda: ctl("discover", "--json", "--timeout", "0.3")).stdout)
    assert {board["name"] for board in found} == {"Roof camera"}


def test_the_usual_board_needs_no_option(board, ctl, daemon):
    def run(*words, **variables):
        command = board.command(PROGRAM, *words, env={**SANITIZERS, **variables}, cwd="/tmp")
        return subprocess.run(command, capture_output=True, text=True, check=False, timeout=60)

    board.write("/tmp/config/beaconctl", "host = localhost\nport = 6000 # nobody\n")
    told = "beaconctl: nothing listens at localhost:6000: is the daemon running there?\n"
    assert run("get", "info", XDG_CONFIG_HOME="/tmp/config").stderr == told
    assert run("get", "info", "--port", "5252", XDG_CONFIG_HOME="/tmp/config").returncode == 0
    assert run("get", "info", BEACONCTL_HOST="127.0.0.1:5252",
               XDG_CONFIG_HOME="/tmp/config").returncode == 0
    board.write("/tmp/config/beaconctl", "127.0.0.1\n")
    assert run("get", "info", XDG_CONFIG_HOME="/tmp/config").returncode == 0
    board.write("/tmp/config/beaconctl", "localhost:6000\n")
    assert run("get", "info", XDG_CONFIG_HOME="/tmp/config").stderr == told
    done = run("get", "info", BEACONCTL_HOST="a:b")
    assert (done.returncode, done.stderr) == (
        2, 'beaconctl: BEACONCTL_HOST: "a:b" has no port after the colon\n')


def test_a_file_of_the_usual_board_that_is_wrong_stops_only_who_needs_it(board, ctl, daemon):
    def run(*words):
        command = board.command(PROGRAM, *words, env={**SANITIZERS, "XDG_CONFIG_HOME": "/tmp/c"})
        return subprocess.run(command, capture_output=True, text=True, check=False, timeout=60)

    board.write("/tmp/c/beaconctl", "hots = localhost\n")
    done = run("get", "info")
    assert (done.returncode, done.stdout, done.stderr) == (
        2, "", 'beaconctl: /tmp/c/beaconctl: "hots = localhost" is none of NAME, NAME:PORT, '
               "host = NAME, port = NUMBER\n")
    for words in (["get", "info", "--host", "127.0.0.1"], ["--help"], ["record", "--help"]):
        assert run(*words).returncode == 0, words
    board.path("/tmp/c/beaconctl").unlink()
    board.path("/tmp/c/beaconctl").mkdir()
    done = run("get", "info")
    assert (done.returncode, done.stderr) == (
        2, "beaconctl: /tmp/c/beaconctl: Is a directory\n")
    wait_for(lambda: run("discover", "--timeout", "0.3"))


def test_an_edited_settings_file_is_checked(board, ctl):
    settings = (REPOSITORY / "packaging/quillorbeacon.conf").read_text()
    board.write("/tmp/a.conf", settings)
    assert (ctl("check", "a.conf").returncode, ctl("check", "a.conf").stdout) == (
        0, "a.conf: read as it stands\n")
    board.write("/tmp/a.conf", settings.replace("ap_channel=0", "ap_chanel=six"))
    done = ctl("check", "a.conf")
    number = 1 + settings[:settings.index("ap_channel=0")].count("\n")
    assert (done.returncode, done.stdout) == (
        1, f'a.conf:{number}: there is no setting "ap_chanel", did you mean "ap_channel"?\n'
        "a.conf: not set, so 0 or empty: ap_channel\n")
    for name, reason in (("nope", "No such file or directory"), ("/tmp", "Is a directory")):
        assert ctl("check", name).stderr == f"beaconctl: {name}: {reason}\n"


USELESS = [
    [], ["nope"], ["get", "info", "--more"], ["record"], ["gimbal", "0", "0", "1.1"],
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
        'beaconctl: --timeout: "1e7" is not a number from 0.05 to 1000000\n')


def test_without_a_word_the_commands_are_shown(ctl):
    done = ctl()
    assert (done.returncode, done.stdout) == (2, "")
    assert [line.split()[0] for line in done.stderr.splitlines()[1:-1]] == COMMANDS


def test_a_full_house(ctl, daemon, registered_client):
    for number in range(10):
        registered_client(daemon, f"127.0.1.{number}")
    told = "beaconctl: the daemon already has ten clients, and takes no more\n"
    wait_until(lambda: ctl("--timeout", "0.3", "watch", "--once").stderr == told, "the message")


# Single requests.

def test_raw(ctl, daemon):
    process = ctl.start("raw", '{"cmd":"config_request","param":"automovement"}',
                        "--seconds", "60")
    assert read_line(process.stdout) == (
        '{"cmd":"config_answer","enabled":0,"smooth":0,"smooth_speed":0,"list":"",}\n')
    send_signal(process)
    assert process.wait(60) == 0
    done = ctl("raw", '{"cmd":"nothing"}', "--seconds", "0.1")
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr == ("Sent; nothing came back within 0.1 s. What the daemon does: "
                           "it ignores it: it knows no command \"nothing\".\n")
    nested = '{"cmd":"x","y":' + "[" * 999 + "]" * 999 + "}"
    assert ctl("raw", nested, "--seconds", "0.1").returncode == 0
    daemon.wait_error("parse_packet json " + nested + "\n")
    assert daemon.alive()
    for ignored in ["", "[]", "hello"]:
        assert ctl("raw", ignored).stderr == (
            "beaconctl: not sent, because the daemon would ignore it: it is neither a JSON object "
            'nor a "!" and a text\n')


FATAL = [
    "{", "{}", '{"cmd":null}', '{"cmd":"rc"}', '{"cmd":"file","param":[0]}',
    '{"cmd":"updateconfig"}', '{"cmd":"wlan","param":"scan"}',
    '{"cmd":"rc\\u0000"}', '{"cmd":"x","y":' + "[" * 2000 + "]" * 2000 + "}",
]


def test_raw_refuses_what_the_daemon_would_end_on(ctl, daemon):
    for command in FATAL:
        done = ctl("raw", command)
        assert (done.returncode, done.stdout) == (2, ""), command
        assert done.stderr.startswith("beaconctl: not sent, because the daemon would end on it: ")
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
