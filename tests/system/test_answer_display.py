"""The display section: the screen tool's output becomes the current mode and two mode lists, one
query runs at a time, and nothing leaks.
"""

import os
import time
from pathlib import Path

import pytest

from conftest import wait_until

NOTHING = b'{"cmd":"config_answer",}'
SETTINGS = ('{"cmd":"config_answer","enabled":0,"vflip":0,"hflip":0,"osd":0,"osd_borders":0,'
            '"daspect":0,"dsmooth":0,"dualhdmi":0,"tft_dsp":0,"tft_model":0,')
DISPLAY_REQUEST = b'{"cmd":"config_request","param":"display"}'
COMMANDS = ["-s", "-m CEA", "-m DMT"]

# Prints the file named like the arguments. If there is a file ".hold" next to it, creates a file
# ".held", waits until ".hold" is removed, and then prints the file ".rest".
TVSERVICE = """#!/sys/board/sh
printf '%s\\n' "tvservice $*" >> /sys/board/log
file="/sys/board/tv/$*"
[ ! -e "$file" ] || cat "$file"
[ ! -e "$file.hold" ] || : > "$file.held"
while [ -e "$file.hold" ]; do sleep 0.02; done
[ ! -e "$file.rest" ] || cat "$file.rest"
"""


class Screen:
    """A screen tool on the board whose output depends on its arguments."""

    def __init__(self, board):
        self.board = board
        tool = board.path("/sys/board/bin/tvservice")
        tool.unlink()
        board.write("/sys/board/bin/tvservice", TVSERVICE)
        tool.chmod(0o755)
        board.path("/sys/board/tv").mkdir()

    def prints(self, arguments, text, rest=None):
        self.board.write(f"/sys/board/tv/{arguments}", text)
        if rest is not None:
            self.board.write(f"/sys/board/tv/{arguments}.rest", rest)

    def hold(self, arguments):
        self.board.write(f"/sys/board/tv/{arguments}.hold", "")

    def wait_held(self, arguments):
        path = self.board.path(f"/sys/board/tv/{arguments}.held")
        wait_until(path.exists, f"tvservice {arguments} running", 20.0)

    def release(self, arguments):
        self.board.path(f"/sys/board/tv/{arguments}.hold").unlink()

    def calls(self):
        return [line for line in self.board.log() if "tvservice" in line]


@pytest.fixture
def screen(board):
    return Screen(board)


class SourceRequester:
    """A data source that sends commands; replies reach it as relay packets."""

    def __init__(self, board):
        self.socket = board.socket(bind=("127.0.0.3", 0), timeout=20.0)

    def send(self, command):
        self.socket.sendto(command, ("127.0.0.1", 5000))

    def receive(self, _timeout):
        end = time.monotonic() + 20.0
        while time.monotonic() < end:
            datagram, sender = self.socket.recvfrom(65535)
            if sender == ("127.0.0.1", 5252):
                assert datagram[:2] == b"R\0"
                assert int.from_bytes(datagram[2:4], "little") == len(datagram) - 12
                return 0, 0, datagram[12:]
            assert sender == ("127.0.0.1", 5000)
        raise TimeoutError("no reply")


def ask(requester):
    requester.send(DISPLAY_REQUEST)
    return requester.receive(20.0)[2]


def shown(mode, cea="", dmt=""):
    return f'{SETTINGS}{mode},"cea_modes":[{cea}],"dmt_modes":[{dmt}]}}'.encode()


@pytest.mark.parametrize("text, mode", [
    # HDMI: tokens 1, 3, 4, 7, 8 and 10.
    ("state 0x12000a [HDMI CEA (16) RGB lim 16:9], 1920x1080 @ 60.00Hz, progressive\n",
     '"state":1179658,"family":"CEA","code":"16","aspect":"16:9","size":"1920x1080","rate":60,'
     '"output":"HDMI","scan":"p"'),
    ("state 0x120009 [HDMI DMT (35) RGB full 5:4], 1280x1024 @ 75.02Hz, progressive\n",
     '"state":1179657,"family":"DMT","code":"35","aspect":"5:4","size":"1280x1024","rate":75,'
     '"output":"HDMI","scan":"p"'),
    ("state 0x12001A [HDMI CEA (20) YCbCr444 lim 16:9], 1920x1080 @ 50.00Hz, interlaced\n",
     '"state":1179674,"family":"CEA","code":"20","aspect":"16:9","size":"1920x1080","rate":50,'
     '"output":"HDMI","scan":"i"'),
    # One token fewer before the aspect: all later ones shift.
    ("state 0x12000a [HDMI CUSTOM RGB full 16:9], 1280x720 @ 60.00Hz, progressive",
     '"state":1179658,"family":"CUSTOM","code":"RGB","aspect":"1280x720","size":"@","rate":0,'
     '"output":"HDMI","scan":"p"'),
    # Composite: tokens 1, 2, 3, 4 and 6.
    ("state 0x40001 [NTSC 4:3], 720x480 @ 60.00Hz, interlaced\n",
     '"state":262145,"family":"NTSC","aspect":"4:3","size":"720x480","rate":60,'
     '"output":"CVBS","scan":"i"'),
    ("state 0x40002 [PAL 16:9], 720x576 @ 50.00Hz, progressive\n",
     '"state":262146,"family":"PAL","aspect":"16:9","size":"720x576","rate":50,'
     '"output":"CVBS","scan":"p"'),
    # Neither of the words: the composite rule applies.
    ("state 0x120006 [DVI DMT (82) RGB full 16:9], 1920x1080 @ 60.00Hz, progressive\n",
     '"state":1179654,"family":"DVI","aspect":"DMT","size":"(82)","rate":0,'
     '"output":"CVBS","scan":"p"'),
    ("state 0x120002 [TV is off]\n",
     '"state":1179650,"family":"TV","aspect":"is","size":"off]\n","output":"CVBS","scan":"i"'),
    # Two blanks enclose an empty token.
    ("state  0x40001 [NTSC 4:3], 720x480 @ 60.00Hz, interlaced",
     '"state":0,"family":"0x40001","aspect":"[NTSC","size":"4:3],","rate":0,'
     '"output":"CVBS","scan":"i"'),
    ("state 0x1  [HDMI CEA (16) RGB lim 16:9], 1x1 @ 60.00Hz,",
     '"state":1,"family":"[HDMI","code":"CEA","aspect":"lim","size":"16:9],","rate":0,'
     '"output":"HDMI","scan":"i"'),
    (" 0x10 PAL ", '"state":16,"family":"PAL","aspect":"","output":"CVBS","scan":"i"'),
    # Missing tokens give no member.
    ("", '"output":"CVBS","scan":"i"'),
    ("HDMI", '"output":"HDMI","scan":"i"'),
    ("HDMI 0x10", '"state":16,"output":"HDMI","scan":"i"'),
    ("state 0x40001 [NTSC", '"state":262145,"family":"NTSC","output":"CVBS","scan":"i"'),
    ("state 0x12000a [HDMI CEA (16) RGB lim 16:9], 1920x1080 @",
     '"state":1179658,"family":"CEA","code":"16","aspect":"16:9","size":"1920x1080",'
     '"output":"HDMI","scan":"i"'),
    ("state 0x40001 [NTSC 4:3], 720x480 @",
     '"state":262145,"family":"NTSC","aspect":"4:3","size":"720x480","output":"CVBS","scan":"i"'),
    # Every occurrence is removed; anything but a number is 0.
    ("HDMI 0x0x1F0x - CEA ))(16()( - - ],4:],3], 1x1 - 6Hz,0Hz,",
     '"state":31,"family":"CEA","code":"16","aspect":"4:3","size":"1x1","rate":60,'
     '"output":"HDMI","scan":"i"'),
    ("- 0x1 [[P[AL[ ],4:],3], 1x1 - 5Hz,0Hz,",
     '"state":1,"family":"PAL","aspect":"4:3","size":"1x1","rate":50,"output":"CVBS","scan":"i"'),
    ("state ten [PAL 4:3], 1x1 @ fastHz,",
     '"state":0,"family":"PAL","aspect":"4:3","size":"1x1","rate":0,"output":"CVBS","scan":"i"'),
    ("state 0x7fffffff", '"state":2147483647,"output":"CVBS","scan":"i"'),
    # The two words count anywhere, but their case matters.
    ("hdmi 0x1 Progressive", '"state":1,"family":"Progressive","output":"CVBS","scan":"i"'),
    ("x 0x1 [PAL 4:3], 1x1 @ 50Hz, i nonprogressive xHDMIx",
     '"state":1,"family":"4:3],","code":"1x1","aspect":"i","size":"nonprogressive",'
     '"output":"HDMI","scan":"p"'),
    # Texts are copied as they are.
    ('state 0x1 [%s%n "4:3\\], \u00fc @ 50Hz,',
     '"state":1,"family":"%s%n","aspect":""4:3\\","size":"\u00fc","rate":50,'
     '"output":"CVBS","scan":"i"'),
])
def test_current_mode(daemon, screen, make_client, text, mode):
    screen.prints("-s", text)
    assert ask(make_client()) == shown(mode)
    daemon.wait_error(f"current_mode_string: {mode}\n")


@pytest.mark.parametrize("output", ["HDMI", "CVBS"])
def test_rates_are_rounded(daemon, screen, make_client, output):
    client = make_client()
    for rate, rounded in [("59.94Hz,", 60), ("24.00Hz,", 24), ("23.98Hz,", 24), ("60.49Hz,", 60),
                          ("29.97Hz,", 30), ("50Hz,", 50), ("59.94", 60), ("0.4Hz,", 0),
                          ("119.88Hz,x", 120)]:
        head = ("state 0x1 [HDMI CEA (1) RGB lim 4:3], 1x1 @ " if output == "HDMI"
                else "state 0x1 [PAL 4:3], 1x1 @ ")
        screen.prints("-s", head + rate + " interlaced\n")
        assert f'"size":"1x1","rate":{rounded},"output":"{output}"'.encode() in ask(client), rate


CEA_TEXT = """Group CEA has 5 modes:
           mode 1: 640x480 @ 60Hz 4:3, clock:25MHz progressive\x20
           mode 4: 1280x720 @ 60Hz 16:9, clock:74MHz progressive\x20
           mode 5: 1920x1080 @ 60Hz 16:9, clock:74MHz interlaced\x20
  (native) mode 16: 1920x1080 @ 60Hz 16:9, clock:148MHz progressive\x20
           mode 107: 3840x2160 @ 60Hz 64:27, clock:594MHz progressive\x20
"""
DMT_TEXT = """Group DMT has 3 modes:
           mode 4: 640x480 @ 60Hz 4:3, clock:25MHz progressive\x20
  (prefer) mode 82: 1920x1080 @ 60Hz 16:9, clock:148MHz progressive\x20
           mode 85: 1280x720 @ 60Hz 16:9, clock:74MHz progressive\x20
"""


def test_mode_lists_of_a_real_screen(daemon, screen, make_client):
    screen.prints("-m CEA", CEA_TEXT)
    screen.prints("-m DMT", DMT_TEXT)
    assert ask(make_client()) == shown('"output":"CVBS","scan":"i"', "1,4,5,16,107", "4,82,85")


@pytest.mark.parametrize("text, codes", [
    ("Group CEA has 2 modes:\n  mode 16: 1920x1080 @ 60Hz 16:9, clock:148MHz progressive", "16"),
    ("Group CEA has 0 modes:\n", ""),
    ("mode 1:", "1"),
    ("mode 1: mode 2: mode 3:\nmode 4:\n", "1,4"),
    ("x mode :a::b: c\n", "ab"),
    ("xmode 1:\nmodes 2:\nMode 3:\nmode\t4:\nmode\n", ""),
    ("xmode 1: mode 2:\n", "2"),
    ("mode 1:\n\n\nmode 2:\n", "1,2"),
    ("mode %n%s: x\n", "%n%s"),
    ("Group DMT has 90 modes:\n" + "".join(
        f"           mode {n}: 1920x1080 @ 60Hz 16:9, clock:148MHz progressive \n"
        for n in range(10, 100)), ",".join(str(n) for n in range(10, 100))),
])
@pytest.mark.parametrize("group", ["CEA", "DMT"])
def test_mode_lists(daemon, screen, make_client, text, codes, group):
    screen.prints(f"-m {group}", text)
    assert ask(make_client()) == shown('"output":"CVBS","scan":"i"', **{group.lower(): codes})


def test_the_commands_run_one_after_another(daemon, screen, make_client):
    ask(make_client())
    assert screen.calls() == [
        "sh -c tvservice -s", "tvservice -s", "sh -c tvservice -m CEA", "tvservice -m CEA",
        "sh -c tvservice -m DMT", "tvservice -m DMT"]


def test_other_sections_run_no_command(daemon, screen, make_client):
    client = make_client()
    for section in (b"info", b"wifi", b"streaming", b"video", b"system", b"Display"):
        client.send(b'{"cmd":"config_request","param":"' + section + b'"}')
        client.receive(20.0)
    assert screen.calls() == []


@pytest.mark.parametrize("arguments, first, rest, answer", [
    ("-s", "state 0x1 [HD", "MI CEA (16) RGB lim 16:9], 1x1 @ 60Hz, progressive\n",
     shown('"state":1,"family":"CEA","code":"16","aspect":"16:9","size":"1x1","rate":60,'
           '"output":"HDMI","scan":"p"')),
    ("-m CEA", "mode 1: x\nmo", "de 2: y\n", shown('"output":"CVBS","scan":"i"', "1,2")),
    ("-m DMT", "mode 1: x\nmode 2", "3: y\n", shown('"output":"CVBS","scan":"i"', "", "1,23")),
])
def test_output_in_pieces_is_read_whole(daemon, screen, make_client, arguments, first, rest,
                                        answer):
    screen.prints(arguments, first, rest)
    screen.hold(arguments)
    client = make_client()
    client.send(DISPLAY_REQUEST)
    screen.wait_held(arguments)
    screen.release(arguments)
    assert client.receive(20.0)[2] == answer


def test_a_missing_tool_leaves_the_facts_empty(board, daemon, make_client):
    board.path("/sys/board/bin/tvservice").unlink()
    client = make_client()
    for _ in range(2):
        assert ask(client) == shown('"output":"CVBS","scan":"i"')
    daemon.wait_error('current_mode_string: "output":"CVBS","scan":"i"\n', 2)


@pytest.mark.parametrize("client_first", [True, False], ids=["client-first", "source-first"])
@pytest.mark.parametrize("arguments", COMMANDS)
def test_a_second_query_meanwhile_gets_the_fixed_part(board, daemon, screen, make_client,
                                                      arguments, client_first):
    """Client and data source are served by separate threads, so both can ask at once."""
    screen.prints("-s", "state 0x1 [PAL 4:3], 720x576 @ 50.00Hz, interlaced")
    screen.prints("-m CEA", CEA_TEXT)
    screen.prints("-m DMT", DMT_TEXT)
    whole = shown('"state":1,"family":"PAL","aspect":"4:3","size":"720x576","rate":50,'
                  '"output":"CVBS","scan":"i"', "1,4,5,16,107", "4,82,85")
    requesters = [make_client(), SourceRequester(board)]
    first, second = requesters if client_first else reversed(requesters)
    screen.hold(arguments)
    first.send(DISPLAY_REQUEST)
    screen.wait_held(arguments)
    calls = screen.calls()
    assert ask(second) == NOTHING
    assert ask(second) == NOTHING
    second.send(b'{"cmd":"config_request","param":"system"}')
    assert second.receive(20.0)[2] == b'{"cmd":"config_answer","fs_rw":0,"make_preview":0}'
    assert screen.calls() == calls
    screen.release(arguments)
    assert first.receive(20.0)[2] == whole
    assert ask(second) == whole
    assert ask(first) == whole


def open_files(daemon):
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def child_processes(daemon):
    tasks = Path(f"/proc/{daemon.pid}/task")
    return " ".join(file.read_text() for file in tasks.glob("*/children")).split()


def test_nothing_is_left_behind_by_hundreds_of_queries(start, make_client):
    """With a limit of 60 descriptors, a few dozen leaked pipes would make opening fail."""
    daemon = start(runner=("/usr/bin/prlimit", "--nofile=60:60"))
    client = make_client()
    before = open_files(daemon)
    for number in range(300):
        section = b"display" if number % 4 == 0 else b"zerotier"
        client.send(b'{"cmd":"config_request","param":"' + section + b'"}')
        assert len(client.receive(20.0)[2]) > len(NOTHING)
    # The daemon's mount commands come and go; a child that was not reaped stays.
    wait_until(lambda: child_processes(daemon) == [], "no child processes")
    # A file that the daemon writes once a second may be open at the moment.
    wait_until(lambda: open_files(daemon) <= before, f"{before} open files again")
