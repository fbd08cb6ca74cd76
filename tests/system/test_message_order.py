"""Lines printed before a command runs are on standard error while that command still runs."""

import pytest

from commands import hold, install, log_lines, release, update_text
from conftest import wait_until

# A stand-in that waits only when called with these arguments.
HOLDING_ONE_CALL = """#!/sys/board/sh
[ "$*" != "%s" ] || while [ -e /tmp/hold ]; do sleep 0.02; done
"""


@pytest.fixture
def client(make_client):
    return make_client()


def wait_running(board, command):
    wait_until(lambda: f"sh -c {command}" in log_lines(board), command)


def hold_one_call(board, tool, arguments):
    board.write("/tmp/hold", "")
    install(board, f"/sys/board/bin/{tool}", HOLDING_ONE_CALL % arguments)


@pytest.mark.parametrize("config, command", [
    ("", "dhcpcd --rebind eth0"),
    ("eth_static_ip_enabled=1\n", "dhcpcd --release eth0"),
])
@pytest.mark.parametrize("model, said", [("Board 5", ""), ("Zero", "SLOW CPU!\n")])
def test_the_wired_network_of_start_up(board, start, config, command, model, said):
    hold(board, "dhcpcd")
    daemon = start(config, model=model, ready=False)
    wait_running(board, command)
    assert daemon.errors() == ("Quillorbeacon-NG v.0.8.19\nLoading config file... done\n"
                               f"Board model: {model}\n{said}")
    release(board, "dhcpcd")
    daemon.wait_ready()


def test_the_run_time_folder_before_anything_is_said(board, start):
    hold(board, "mkdir")
    daemon = start(ready=False)
    wait_running(board, "mkdir -p /run/quillorbeacon")
    assert daemon.errors() == ""
    release(board, "mkdir")
    daemon.wait_ready()


def test_a_wifi_scan(board, daemon, client):
    hold(board, "ifconfig")
    client.send(b'{"cmd":"wlan","param":"scan","value":"int"}')
    wait_running(board, "ifconfig wifi0 up > /dev/null 2>&1")
    assert "Wlan scan request for interface wifi0\n" in daemon.errors()
    assert "scan results" not in daemon.errors()
    release(board, "ifconfig")
    daemon.wait_error("scan results: ")


def test_a_request_for_the_display_section(board, daemon, client):
    hold_one_call(board, "tvservice", "-s")
    client.send(b'{"cmd":"config_request","param":"display"}')
    wait_running(board, "tvservice -s")
    assert "UDP server: Config request for display\n" in daemon.errors()
    assert "current_mode_string" not in daemon.errors()
    board.path("/tmp/hold").unlink()
    daemon.wait_error("config_content: ")


def test_the_current_mode_before_the_mode_lists(board, daemon, client):
    hold_one_call(board, "tvservice", "-m CEA")
    client.send(b'{"cmd":"config_request","param":"display"}')
    wait_running(board, "tvservice -m CEA")
    assert 'current_mode_string: "output":"CVBS","scan":"i"\n' in daemon.errors()
    assert "config_content" not in daemon.errors()
    board.path("/tmp/hold").unlink()
    daemon.wait_error("config_content: ")


def test_a_save(board, daemon, client):
    hold(board, "mount")
    client.send(update_text("make_preview", "1"))
    wait_running(board, "mount -o rw,remount /boot")
    assert "Saving config\n" in daemon.errors()
    release(board, "mount")


def test_mounting_read_write(board, daemon, client):
    hold_one_call(board, "mount", "-o rw,remount /")
    client.send(update_text("fs_rw", "1"))
    wait_running(board, "mount -o rw,remount /")
    assert "Mounting FS in read-write mode\n" in daemon.errors()
    board.path("/tmp/hold").unlink()


def test_the_composite_mode_after_the_remount_and_before_the_edits(board, daemon, client):
    hold(board, "mount")
    hold(board, "sed")
    client.send(update_text("cvbs", "testandsave", "PAL", "4:3", "P"))
    wait_running(board, "mount -o rw,remount /boot > /dev/null 2>&1")
    assert "new_sdtv" not in daemon.errors()
    release(board, "mount")
    wait_until(lambda: [line for line in log_lines(board) if line.startswith("sed ")], "the edits")
    assert "new_sdtv_mode=18\nnew_sdtv_aspect=1\n" in daemon.errors()
    release(board, "sed")
