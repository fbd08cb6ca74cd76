"""Values from clients are inert: they run nothing and add no key."""

import pytest

from commands import BOOT_FILE, Console, install, log_lines, parse_settings
from expected_file import file_text

EMPTY = parse_settings(file_text())
APP = "/sys/board/app/daemon"

# Short enough for a static address (19 characters). Each would create a file if it ran.
HOSTILE = [
    "$(touch /tmp/x)", "`touch /tmp/x`", ";touch /tmp/x;", "|touch /tmp/x|", "&touch /tmp/x&",
    "&&touch /tmp/x", "||touch /tmp/x;", '"$(touch /tmp/x)"', "'$(touch /tmp/x)'",
    "';touch /tmp/x;'", '";touch /tmp/x;"', "'`touch /tmp/x`'", "\\;touch /tmp/x", "\\\";touch x;#",
    "\\';touch x;#", ">/tmp/x", ">>/tmp/x", "1 >/tmp/x", "9</dev/null>/tmp/x", "(touch /tmp/x)",
    "{ touch /tmp/x;}", "#", "*", "?", "[a-z]*", "~", "$HOME", "${IFS}", "a b", "a\tb", "!!", "\\",
    "'", '"', '"a b"', "''", "%s%n%1000000d", "-rf", "a\x7fb", "\u2028touch",
]
# Short enough for a country code (4 characters).
SHORT = [";>x", "|>x", "&>x", ">x", "$HOM", "`>x`", "'", '"', "\\", "a b", "*", "#", "~", "%s%n",
         "''''", '""""', "$(>", "x\ty"]

NOTES_ARGUMENTS = b"""#!/sys/board/sh
{ printf '%s' "${0##*/}"; printf '\\001%s' "$@"; printf '\\002'; } >> /sys/board/arguments
"""


def files(board):
    """The files where a command that ran would have created one."""
    return {str(path) for folder in ("/tmp", APP, "/boot", "/run/quillorbeacon")
            for path in board.path(folder).iterdir()
            if path.name not in ("quillorbeacon.conf", "config.txt", "config.conf", "clients.json",
                                 "recorder_place", "automovements_state")
            and not path.name.startswith("smooth_ptd_")}


@pytest.fixture
def console(board, daemon, make_client):
    """Stand-ins log their arguments one by one; nothing else may appear on the board."""
    for tool in ("ifconfig", "iw", "tvservice", "zerotier-cli"):
        install(board, f"/sys/board/bin/{tool}", NOTES_ARGUMENTS)
    made = Console(board, daemon, make_client())
    made.files = files(board)
    yield made
    assert files(board) == made.files
    assert made.daemon.alive()


def calls(board, tool):
    """The argument lists with which the tool was called since the last call of this."""
    notes = board.path("/sys/board/arguments")
    text = notes.read_bytes().decode() if notes.exists() else ""
    board.write("/sys/board/arguments", "")
    found = [call.split("\1") for call in text.split("\2")[:-1]]
    return [call[1:] for call in found if call[0] == tool]



def test_an_ethernet_address_and_mask(board, console):
    for value in HOSTILE:
        console.update("ethernet", "1", value, "m")
        assert calls(board, "ifconfig") == [["eth0", value, "netmask", "m", "up"]]
        assert console.changes(EMPTY) == {"eth_static_ip_enabled": "1", "eth_static_ip": value,
                                          "eth_static_mask": "m"}
        console.update("ethernet", "1", "a", value)
        assert calls(board, "ifconfig") == [["eth0", "a", "netmask", value, "up"]]
        assert console.commands[-1] == "ip route add dev eth0 default"
        assert files(board) == console.files, value


def test_an_ethernet_command_that_is_too_long_is_refused(board, console):
    # Escaped, the two values do not always fit; then the shell refuses the truncated line.
    for value in HOSTILE + ["'" * 30, "';x" * 10, "$(" * 15, "\\'" * 15, '"' * 30, "'\\" * 10]:
        console.update("ethernet", "1", value, value)
        cut = value[:19]
        for call in calls(board, "ifconfig"):
            assert call[:2] == ["eth0", cut], value
            assert f"netmask {cut} up".startswith(" ".join(call[2:]).removesuffix("\\")), value
        assert console.commands[-1] == "ip route add dev eth0 default"
        assert files(board) == console.files, value


@pytest.mark.parametrize("value", HOSTILE[:18:3] + [";touch x; # ;#", "a b ;touch /tmp/x"])
def test_an_address_is_inert_at_the_next_start_too(board, start, console, value):
    console.update("ethernet", "1", value, value)
    console.daemon.kill()
    calls(board, "ifconfig")
    console.daemon = start(None)
    # In the file, text after a blank and ";" is a comment.
    loaded = value.split(" ;")[0]
    assert calls(board, "ifconfig") in ([["eth0", loaded, "netmask", loaded, "up"]], [])
    console.update("make_preview", "0")
    assert console.changes(EMPTY) == {
        "eth_static_ip_enabled": "1", "eth_static_ip": loaded, "eth_static_mask": loaded,
        "wifi_static_mask": "255.255.255.0"}


def test_a_system_country(board, console):
    for value in HOSTILE + SHORT:
        console.update("wlan", value13=value)
        country = value.encode()[:4].decode()
        assert calls(board, "iw") == [["reg", "set", country]], value
        assert console.changes(EMPTY) == {"system_country": country,
                                          "wifi_static_mask": "255.255.255.0"}
        assert files(board) == console.files, value


@pytest.mark.parametrize("sub_command", ["join", "leave"])
def test_a_zerotier_network(board, console, sub_command):
    for value in HOSTILE + ["a\nb", "a\r\ntouch /tmp/x", "\ntouch /tmp/x"]:
        console.update("zerotier", sub_command, None, None, value)
        assert calls(board, "zerotier-cli") == [[sub_command, value.strip(" \t\r\n")]], value
        assert files(board) == console.files, value


def test_a_zerotier_command_that_is_cut(board, console):
    tails = ["';touch /tmp/x;'", '";touch /tmp/x;"', "$(touch /tmp/x)", "\\';touch /tmp/x",
             "'>/tmp/x", "' >/tmp/x '"]
    for value in [part + "a" * 300 for part in HOSTILE] + [
            "a" * count + tail for count in range(72, 84) for tail in tails]:
        console.update("zerotier", "join", None, None, value)
        # The shell refuses the line, or the value is cut (after an escaped quote: with its "\\").
        for call in calls(board, "zerotier-cli"):
            assert len(call) == 2 and value.startswith(call[1].removesuffix("\\")), value
        assert files(board) == console.files, value


def test_a_plain_command_is_cut_at_99_characters(console):
    console.update("zerotier", "join", None, None, "a" * 300)
    assert console.commands == ["zerotier-cli join " + "a" * 81]
    console.update("cvbs", "test", "PAL", "4:3", "b" * 300)
    assert console.commands == ['tvservice -c "PAL 4:3 ' + "b" * 77]
    console.update("hdmi", "test", "CEA", "1" * 300)
    assert console.commands[0] == 'tvservice -e "CEA ' + "1" * 81


def test_composite_output(board, console):
    for value in HOSTILE + ["a\ntouch /tmp/x", '"\ntouch /tmp/x\n"']:
        for values, text in [((value, "4:3", "P"), f"{value} 4:3 P"),
                             (("PAL", value, "P"), f"PAL {value} P"),
                             (("PAL", "4:3", value), f"PAL 4:3 {value}")]:
            console.update("cvbs", "test", *values)
            assert calls(board, "tvservice") == [["-c", text]], value
        console.update("cvbs", "test", value, value, value)
        assert calls(board, "tvservice") in ([["-c", f"{value} {value} {value}"]], []), value
        assert files(board) == console.files, value
    board.write("/boot/config.txt", "sdtv_mode=1\nsdtv_aspect=2\n")
    console.update("cvbs", "testandsave", "$(touch /tmp/x)", "1,e touch /tmp/x", "`touch /tmp/x`")
    assert board.path("/boot/config.txt").read_text() == "sdtv_mode=0\nsdtv_aspect=0\n"


SED = ["82,e;1e touch /tmp/x #", "82,;e touch /tmp/x", "82,w /tmp/x", "82,ew /tmp/x", "&", "&&",
       "\\1", "\\0", "\\", "\\\\", ",", ",,", "\\,e touch /tmp/x #", "a\\", "\\&", "'", "','",
       "8,g", "\\n", "\\U\\1"]


@pytest.mark.parametrize("value", HOSTILE[:17:2] + ["a b", "'", '"', "*", "\\'", *SED])
def test_an_hdmi_mode_stays_text_for_the_shell_and_for_sed(board, console, value):
    board.write("/boot/config.txt", "hdmi_group=7\nhdmi_mode=1\ngpu_mem=128\n")
    console.update("hdmi", "testandsave", "DMT", value)
    assert calls(board, "tvservice") == [["-e", f"DMT {value}"], ["-s"]]
    assert board.path("/boot/config.txt").read_text() == (
        f"hdmi_group=2\nhdmi_mode={value}\ngpu_mem=128\n")


@pytest.mark.parametrize("end", ["\n", "\r\n", "\r"])
@pytest.mark.parametrize("tail", ["1e touch /tmp/x", "enable_uart=1"])
def test_an_hdmi_mode_ends_at_its_line_end(board, console, end, tail):
    board.write("/boot/config.txt", "hdmi_mode=1\ngpu_mem=128\n")
    console.update("hdmi", "testandsave", "DMT", f"82{end}{tail}")
    assert board.path("/boot/config.txt").read_text() == "hdmi_mode=82\ngpu_mem=128\n"


@pytest.mark.parametrize("tail", ["", ",e touch /tmp/x;", "';touch /tmp/x;'", "\\,e touch /tmp/x"])
def test_a_long_hdmi_mode_runs_nothing(board, console, tail):
    for count in (150, 185, 190, 195, 200, 202, 204, 206, 5000):
        board.write("/boot/config.txt", "hdmi_mode=1\ngpu_mem=128\n")
        value = "8" * count + tail + "9" * 20
        console.update("hdmi", "testandsave", "DMT", value)
        assert board.path("/boot/config.txt").read_text() in (
            "hdmi_mode=1\ngpu_mem=128\n", f"hdmi_mode={value}\ngpu_mem=128\n")
        assert files(board) == console.files, count


@pytest.mark.parametrize("value", HOSTILE[1:17:4] + ["'", '"', "82,e;1e touch /tmp/x #", "&"])
def test_an_hdmi_group(board, console, value):
    board.write("/boot/config.txt", "hdmi_group=7\nhdmi_mode=1\n")
    console.update("hdmi", "testandsave", value, "16")
    assert calls(board, "tvservice") == [["-e", f"{value} 16"], ["-s"]]
    assert board.path("/boot/config.txt").read_text() == "hdmi_group=0\nhdmi_mode=16\n"


def test_no_stored_text_but_those_above_reaches_a_command(board, console):
    bad = "$(touch /tmp/x);`touch /tmp/x`"
    for update in [("streaming", "udp", "1", bad), ("streaming", "rtmp", "1", bad, bad, "1", bad,
                                                    bad), ("streaming", "srt", "1", bad),
                   ("internal_camera", "0", bad), ("rc", "0", bad, bad),
                   ("automovement", "params", "0", bad), ("zerotier", "params", "0", "0", bad),
                   ("wlan", *[bad[:15]] * 12), ("recording", "0", bad, bad, bad, bad)]:
        console.update(*update)
        assert not [command for command in console.commands if "touch" in command]
    console.client.send(b'{"cmd":"updateconfig","param":"rec","value":"`touch /tmp/x`"}')
    console.finish()
    assert not [line for line in log_lines(board) if "touch" in line]


def test_an_app_type_is_a_number_in_its_command(board, start, make_client):
    console = Console(board, start(), make_client())
    before = files(board)
    console.send("app_type", "3;touch /tmp/x", "$(touch /tmp/x)")
    assert console.daemon.wait_exit() == 1
    calls = [line for line in log_lines(board) if "otg-switcher" in line or "touch" in line]
    assert calls == ["sh -c ./otg-switcher.php 3", "otg-switcher.php 3"]
    assert files(board) == before
    assert board.path(BOOT_FILE).exists()


@pytest.mark.parametrize("value", ["8056c2e21c000001 ", " 8056c2e21c000001", "\t 8056c2e21c000001\r\n",
                                   " a b\t", " $(touch /tmp/x) "])
def test_blanks_around_a_value_do_not_reach_a_command(board, console, value):
    bare = value.strip()
    for sub_command in ("join", "leave"):
        console.update("zerotier", sub_command, None, None, value)
        assert calls(board, "zerotier-cli") == [[sub_command, bare]]
    console.update("ethernet", "1", value, value)
    address = value.splitlines()[0][:19].strip()
    assert calls(board, "ifconfig") == [["eth0", address, "netmask", address, "up"]]
    console.update("wlan", value13=" DE\t")
    assert calls(board, "iw") == [["reg", "set", "DE"]]
    board.write("/boot/config.txt", "hdmi_mode=1\n")
    console.update("hdmi", "testandsave", " DMT ", value)
    assert calls(board, "tvservice")[0] == ["-e", f"DMT {bare}"]
    assert board.path("/boot/config.txt").read_text() == f"hdmi_mode={bare}\n"
    console.update("cvbs", "test", value, " 4:3", "P ")
    assert calls(board, "tvservice") == [["-c", f"{bare} 4:3 P"]]


def test_blanks_around_a_value_are_stored(console):
    console.update("ethernet", "1", " 10.0.0.2 ", "\t255.0.0.0")
    # The run-time copy keeps the blanks that the file has.
    text = console.boot_file().decode()
    assert "eth_static_ip= 10.0.0.2 \r\n" in text and "eth_static_mask=\t255.0.0.0\r\n" in text
    console.update("zerotier", "params", "0", "0", " 8056c2e21c000001 ")
    assert "zerotier_netid= 8056c2e21c000001 \r\n" in console.boot_file().decode()
