"""Start-up: its messages, its commands and their order, board detection, failing servers."""

import re
import socket
from pathlib import Path

import pytest

from commands import hold, release
from board import EMULATOR
from conftest import BUILD, wait_until

RC = ["Init RC", "Creating new shared raw RC", "Init RC done"]
MOVEMENTS = ["Auto movement init", "Creating new shared cam state", "Auto movement set list ",
             "Added 0 movements:", "", "Auto movement stop"]
SERVERS = [
    "Init UDP server", "Init UDP done", "Init TCP server", "Init TCP done",
    "Init video source server", "Init video source", "Init frame buffer 60003624 bytes",
    "Init frame buffer for transcoding 13003624 bytes", "Video source server init done",
    "Init audio source server", "Init audio source", "Audio source server init done",
    "Init data source server", "Data source server init done",
    "Init internal camera source server", "Init internal camera source server done",
    "Init file transfer", "File transfer init done",
]
ON_SLOW_BOARDS = [line for line in SERVERS
                  if not re.search("video|Video|audio|Audio|frame|amera", line)]


def startup_lines(daemon):
    """Standard error up to the GPIO line, without the lines that the TCP thread may print."""
    text = daemon.errors()
    lines = text[:text.index("GPIO")].splitlines()[:-1]
    return [line for line in lines if not line.startswith("TCP server: ")]


def shell_commands(board):
    return [line[len("sh -c "):] for line in board.log() if line.startswith("sh -c ")]


def test_messages_in_order(start):
    daemon = start()
    assert startup_lines(daemon) == [
        "Quillorbeacon-NG v.0.8.19", "Loading config file... done", "Board model: ",
        *RC, *SERVERS, *MOVEMENTS]
    assert daemon.errors().count("Failed to init GPIO subsystem\n") == 1


def test_missing_configuration_is_not_fatal(start):
    daemon = start(config=None)
    assert "Loading config file... failed\nBoard model: \n" in daemon.errors()
    assert daemon.alive()


def test_restream_list_is_printed_after_loading_begins(start):
    daemon = start("stream_udp_clients=192.168.1.10:5600,192.168.1.11:5601\n")
    assert ("Loading config file... \nRestreaming clients:\n\t0: 192.168.1.10:5600\n"
            "\t1: 192.168.1.11:5601\n\ndone\n") in daemon.errors()


def test_dhcp_commands(board, start):
    start("eth_static_ip_enabled=0\n")
    assert shell_commands(board) == [
        "mkdir -p /run/quillorbeacon", "ip route delete default", "dhcpcd --rebind eth0"]
    assert board.path("/run/quillorbeacon").is_dir()


def test_static_address_commands(board, start):
    start("eth_static_ip_enabled=1\neth_static_ip=192.168.7.9\neth_static_mask=255.255.0.0\n")
    assert shell_commands(board) == [
        "mkdir -p /run/quillorbeacon", "dhcpcd --release eth0",
        "ifconfig eth0 192.168.7.9 netmask 255.255.0.0 up", "ip route add dev eth0 default"]


def test_empty_mask_gets_its_default(board, start):
    start("eth_static_ip_enabled=7\neth_static_ip=10.0.0.2\neth_static_mask=\n")
    assert "ifconfig eth0 10.0.0.2 netmask 255.255.255.0 up" in shell_commands(board)


def test_mask_of_two_quotes_is_not_empty(board, start):
    start('eth_static_ip_enabled=1\neth_static_ip=10.0.0.2\neth_static_mask=""\n')
    assert 'ifconfig eth0 10.0.0.2 netmask "" up' in shell_commands(board)


@pytest.mark.parametrize("value", ["1;touch /x", "`touch /x`", "$(touch /x)", "a|touch /x",
                                   "1\\;touch /x", "';touch /x'", '";touch /x"', "%s%n"])
def test_a_static_address_is_one_inert_word(board, start, value):
    daemon = start(f"eth_static_ip_enabled=1\neth_static_ip={value}\neth_static_mask=m\n")
    assert daemon.alive()
    assert not board.path("/x").exists() and not board.path("/sys/board/app/daemon/x").exists()
    # The stand-in saw the value as one argument, or the shell refused the truncated line.
    assert f"ifconfig eth0 {value} netmask m up" in board.log()


@pytest.mark.parametrize("model, slow, printed", [
    (b"Raspberry Pi Zero 2 W Rev 1.0\0", True, "Raspberry Pi Zero 2 W Rev 1.0"),
    (b"Raspberry Pi 4 Model B Rev 1.1\0", False, "Raspberry Pi 4 Model B Rev 1.1"),
    (b"Raspberry Pi zero", False, "Raspberry Pi zero"),
    (b"Pi 3\0Zero", False, "Pi 3"),
    (b"x" * 96 + b"Zero", True, "x" * 96 + "Zero"),
    (b"x" * 97 + b"Zero", False, "x" * 97 + "Zer"),
    (b"x" * 300, False, "x" * 100),
    (b"%s%n Zero", True, "%s%n Zero"),
    (b"", False, ""),
])
def test_board_model(start, model, slow, printed):
    daemon = start(model=model)
    head = ["Quillorbeacon-NG v.0.8.19", "Loading config file... done", f"Board model: {printed}"]
    expected = ["SLOW CPU!", *ON_SLOW_BOARDS] if slow else [*RC, *SERVERS]
    assert startup_lines(daemon) == head + expected + MOVEMENTS


def test_a_slow_board_has_no_video_and_no_audio_server(board, start):
    start(model="Raspberry Pi Zero")
    for port in (5001, 5003):
        board.socket(bind=("0.0.0.0", port))
    with pytest.raises(OSError):
        board.socket(bind=("0.0.0.0", 5000))
    assert not board.path("/dev/shm/quillorbeacon_framebuffer").exists()


@pytest.mark.parametrize("port, kind, failure, last", [
    (5252, socket.SOCK_DGRAM, "UDP server init failed", "Init UDP server"),
    (5252, socket.SOCK_STREAM, "TCP server init failed", "Init TCP server"),
    (5001, socket.SOCK_DGRAM, "Video source server init failed", "Init video source"),
    (5003, socket.SOCK_DGRAM, "Audio source server init failed", "Init audio source"),
    (5000, socket.SOCK_DGRAM, "Data source server init failed", "Init data source server"),
])
def test_a_port_in_use_ends_start_up_with_status_1(board, start, port, kind, failure, last):
    taken = board.socket(kind, bind=("0.0.0.0", port))
    if kind == socket.SOCK_STREAM:
        taken.listen(1)
    daemon = start(ready=False)
    assert daemon.wait_exit() == 1
    lines = [line for line in daemon.errors().splitlines() if "Waiting TCP" not in line]
    expected = [last, failure]
    if failure.startswith("TCP"):
        expected = [last, "TCP server: Could not bind socket", failure]
    assert lines[-len(expected):] == expected


FEW_THREADS = BUILD / "tests/few_threads"


@pytest.mark.skipif(not FEW_THREADS.exists(), reason="built with the real GPIO library")
def test_every_thread_that_cannot_be_had_ends_start_up_with_status_1(start):
    failures = []
    for count in range(100):
        daemon = start(env={"LD_LIBRARY_PATH": str(FEW_THREADS), "FEW_THREADS": str(count)}, ready=False)
        wait_until(lambda: daemon.process.poll() is not None or "hared raw RC" in
                   daemon.errors().partition("GPIO")[2],
                   "the end of start-up", 60.0)
        if daemon.alive():
            break
        assert daemon.wait_exit() == 1
        [failure] = [line for line in daemon.errors().splitlines() if line.endswith(" init failed")]
        failures.append(failure)
    assert list(dict.fromkeys(failures)) == [
        "RC init failed", "UDP server init failed", "TCP server init failed",
        "Video source server init failed", "Audio source server init failed",
        "Data source server init failed", "Internal camera source server init failed",
        "File transfer init failed", "Auto movement init failed", "Storage init failed"]
    if EMULATOR:
        return  # it has threads of its own
    # One start failed for each thread that runs now, the main thread aside.
    assert len(failures) == len(list(Path(f"/proc/{daemon.pid}/task").iterdir())) - 1


VIDEO_CORE_BUILD = BUILD / "tests/quillorbeacon_video_core"


@pytest.mark.skipif(not VIDEO_CORE_BUILD.exists(), reason="built with the real library")
@pytest.mark.parametrize("model, before, after", [
    ("Board 5", "Board model: Board 5", "Init RC"), ("Zero", "SLOW CPU!", "Init UDP server")])
def test_the_video_core_library_is_started_where_there_is_one(board, start, model, before, after):
    hold(board, "dhcpcd")
    daemon = start(model=model, binary=VIDEO_CORE_BUILD, ready=False)
    wait_until(lambda: "dhcpcd --rebind eth0" in board.log(), "the wired network set up")
    assert "bcm_host_init" not in daemon.errors()
    release(board, "dhcpcd")
    daemon.wait_ready()
    lines = startup_lines(daemon)
    at = lines.index("bcm_host_init")
    assert lines[at - 1:at + 2] == [before, "bcm_host_init", after]
    assert lines.count("bcm_host_init") == 1


def test_the_gpio_pid_file_is_deleted_before_the_library_starts(board, start):
    board.write("/run/pigpio.pid", "77\n")
    start(gpio=True)
    assert not board.path("/run/pigpio.pid").exists()
    assert "gpioInitialise" in board.path("/run/gpio/calls").read_text().splitlines()


def test_gpio_library_set_up_and_inputs_in_key_order(board, start):
    daemon = start("shot_btn_gpio=22\nrecording_btn_gpio=17\nrecording_gpio=4\n", gpio=True)
    assert "GPIO subsystem init done\n" in daemon.errors()
    calls = board.path("/run/gpio/calls")
    wait_until(lambda: calls.read_text().count("\n") >= 12, "all inputs read")
    assert calls.read_text().splitlines() == [
        "gpioCfgSocketPort 8890", "gpioCfgDMAchannels 8 6", "gpioInitialise",
        "gpioSetMode 4 0", "gpioSetPullUpDown 4 2", "gpioSetMode 17 0", "gpioSetPullUpDown 17 2",
        "gpioSetMode 22 0", "gpioSetPullUpDown 22 2",
        # The buttons' initial states; then the poller begins with the trigger.
        "gpioRead 17", "gpioRead 22", "gpioRead 4"]


def test_unused_inputs_are_left_alone(board, start):
    start("recording_btn_gpio=17\n", gpio=True)
    calls = board.path("/run/gpio/calls")
    wait_until(lambda: calls.read_text().count("\n") >= 6, "the input read")
    assert calls.read_text().splitlines()[3:] == [
        "gpioSetMode 17 0", "gpioSetPullUpDown 17 2", "gpioRead 17"]


def test_a_failing_gpio_library_is_not_fatal(board, start):
    board.write("/run/gpio/broken", "")
    daemon = start(gpio=True)
    assert "Failed to init GPIO subsystem\n" in daemon.errors()
    assert daemon.alive()
