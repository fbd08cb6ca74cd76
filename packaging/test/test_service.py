"""The daemon's service on a Debian machine: what it is kept from, what its end leaves alone, the
watchdog, and what a download leaves of the journal."""

import os
import subprocess
from pathlib import Path

import pytest

from machine import UNIT, Client, wait_until

PACKAGING = Path(__file__).resolve().parents[1]
WATCHDOG = "quillorbeacon-watchdog.service"
SWITCHER = "/var/lib/quillorbeacon/relay/otg-switcher.php"


def install(machine, name, text):
    machine.path(name).write_text(text)
    machine.path(name).chmod(0o755)


def run_as_the_daemons_child(machine, client, script):
    """The lines that a script prints. The daemon runs it, and ends, for a new kind of camera."""
    install(machine, SWITCHER, "#!/bin/sh\nexec > /run/printed 2>&1\n" + script + "echo end\n")
    printed = machine.path("/run/printed")
    old = machine.main_pid()
    client.send({"cmd": "updateconfig", "param": "app_type", "value": "9"})
    wait_until(lambda: printed.exists() and printed.read_text().endswith("end\n"), "its end")
    machine.wait_restarted(old)
    machine.path(SWITCHER).unlink()
    lines = printed.read_text().splitlines()
    printed.unlink()
    return lines[:-1]


@pytest.mark.parametrize("unit,limit", [(UNIT, 68), (WATCHDOG, 16)])
def test_the_services_are_kept_from_what_they_do_not_need(board, unit, limit):
    assert board.run("systemd-analyze", "verify", "--man=no", unit) == ""
    said = board.run("systemd-analyze", "security", f"--threshold={limit}", unit)
    assert "Overall exposure level" in said


def test_what_the_daemon_runs_may_do_what_it_has_to(board, client):
    """Under the service's restrictions: each of the kinds of thing that its commands do."""
    tried = run_as_the_daemons_child(board, client, """
mkdir /tmp/dummy
try() { "$@" > /run/try 2>&1 && echo "ok $*" || echo "failed $*: $(cat /run/try)"; }
try mount -t tmpfs none /tmp/dummy
try mount -o remount,ro /tmp/dummy
try umount /tmp/dummy
try mount -t tmpfs for-all /tmp/dummy
try ip link add dummy9 type bridge
try ip addr add 192.0.2.99/24 dev dummy9
try ip link set dummy9 up
try ifconfig dummy9 down
try ip link delete dummy9
try ip route show
try chown daemon /run/try
try pidof systemd
try killall -0 systemd
try setpriv --reuid=daemon --regid=daemon --clear-groups true
setpriv --reuid=daemon --regid=daemon --clear-groups sleep 98765 & other=$!
until [ "$(stat -c %U /proc/$other)" = daemon ]; do :; done
try pidof sleep
try kill -9 $other
try chroot / true
try systemctl --version
try systemctl show --property=Version
""")
    assert [line for line in tried if not line.startswith("ok ")] == []
    assert len(tried) == 19
    assert board.run("findmnt", "-no", "SOURCE", "/tmp/dummy") == "for-all\n"
    board.run("umount", "/tmp/dummy")
    board.run("rmdir", "/tmp/dummy")


# Prints "NAME done" or "NAME refused" for each thing that the daemon needs not do. Each works in a
# process of root without restrictions.
PROBES = """
probe() {
    name=$1
    shift
    "$@" > /dev/null 2>&1
    case $? in
    0) echo "$name done" ;;
    1) echo "$name refused" ;;
    *) echo "$name failed otherwise" ;;
    esac
}
call() {
    probe $1 perl -e '@values = map { /^\\d/ ? $_ + 0 : "\\0" x 256 } @ARGV;
        exit(syscall(shift @values, @values) < 0 && $!{EPERM})' $2
}
# Of addresses: vsock, ALG, Bluetooth, key management. A kernel may have none of them.
probe family perl -MSocket -e '
    socket(S, $_, $_ == 40 ? SOCK_STREAM : $_ == 38 ? SOCK_SEQPACKET : SOCK_RAW,
           $_ == 15 ? 2 : $_ == 31 ? 1 : 0) and exit 0 for 40, 38, 31, 15;
    exit 1'
probe namespace unshare --net true
probe realtime chrt --fifo 1 true
probe personality setarch --addr-no-randomize true
probe hostname hostname board
: > /run/suid
probe suid chmod 4755 /run/suid
rm /run/suid
case $(uname -m) in
x86_64) set -- 159 101 250 321 ;;
aarch64) set -- 171 117 219 280 ;;
esac
call clock "$1 buffer"
call debug "$2 0 0 0 0"
call keyring "$3 0 4 0"
call bpf "$4 999 buffer 8"
sed -n 's/^CapBnd:/capabilities/p' /proc/self/status
"""
# The capabilities that the daemon's service gives up, by their numbers.
GIVEN_UP = {
    "AUDIT_CONTROL": 30, "AUDIT_READ": 37, "AUDIT_WRITE": 29, "BLOCK_SUSPEND": 36, "BPF": 39,
    "CHECKPOINT_RESTORE": 40, "LEASE": 28, "LINUX_IMMUTABLE": 9, "MAC_ADMIN": 33,
    "MAC_OVERRIDE": 32, "PERFMON": 38, "SYS_BOOT": 22, "SYS_PACCT": 20, "SYS_TIME": 25,
    "SYS_TTY_CONFIG": 26, "SYSLOG": 34, "WAKE_ALARM": 35}


def test_what_the_daemon_has_no_need_of_is_refused(board, client):
    open_to_root = dict(line.split(maxsplit=1)
                        for line in board.run("sh", "-c", PROBES).splitlines())
    refused = dict(line.split(maxsplit=1)
                   for line in run_as_the_daemons_child(board, client, PROBES))
    del open_to_root["capabilities"]
    capabilities = int(refused.pop("capabilities"), 16)
    assert [name for name, number in GIVEN_UP.items() if capabilities >> number & 1] == []
    # The test's machine has not got all of them.
    assert {f"cap_{name.lower()}" for name in GIVEN_UP}.isdisjoint(
        board.show(UNIT, "CapabilityBoundingSet").split())
    assert set(open_to_root) == set(refused) and len(refused) == 10
    assert [name for name, result in open_to_root.items() if result != "done"] in ([], ["family"])
    assert [name for name, result in refused.items() if result != "refused"] == []


def test_what_a_script_left_running_is_not_killed_with_the_daemon(board, client):
    (pid,) = run_as_the_daemons_child(board, client,
                                      "sleep 98765 < /dev/null > /dev/null 2>&1 &\necho $!\n")
    left = board.path(f"/proc/{pid}/cmdline")
    assert "98765" in left.read_text()
    board.run("systemctl", "restart", UNIT)
    Client(board).wait_status()
    assert "98765" in left.read_text()
    board.kill(pid)


def test_the_capture_program_does_not_outlive_the_daemon(board, client):
    """It would keep the camera from the next one. This one hangs."""
    install(board, "/usr/local/bin/raspivid", "#!/bin/sh\necho $$ >> /run/captures\n"
                                              "trap '' PIPE TERM\nwhile :; do sleep 1; done\n")
    board.run("beaconctl", "set", "internal_camera", "enabled=1")
    captures = board.path("/run/captures")
    wait_until(captures.exists, "a capture")
    board.run("systemctl", "stop", UNIT)

    def left():
        return [pid for pid in captures.read_text().split() if board.path(f"/proc/{pid}").exists()]

    wait_until(lambda: not left(), "the end of all captures", timeout=20)
    board.path("/usr/local/bin/raspivid").unlink()
    board.run("systemctl", "start", UNIT)
    Client(board).wait_status()
    board.run("beaconctl", "set", "internal_camera", "enabled=0")


@pytest.fixture
def quick_watchdog(board):
    """The watchdog asks every second and waits a second for an answer."""
    folder = board.path(f"/etc/systemd/system/{WATCHDOG}.d")
    folder.mkdir()
    (folder / "often.conf").write_text(
        "[Service]\nEnvironment=INTERVAL=1\nExecStart=\n"
        "ExecStart=/usr/lib/quillorbeacon/watchdog $INTERVAL 1\n")
    board.run("systemctl", "daemon-reload")
    board.run("systemctl", "stop", WATCHDOG)
    yield
    (folder / "often.conf").unlink()
    folder.rmdir()
    board.run("systemctl", "daemon-reload")
    board.run("systemctl", "restart", WATCHDOG)


@pytest.mark.usefixtures("quick_watchdog")
def test_a_daemon_that_hangs_is_restarted(board, client):
    answers = board.journal(WATCHDOG).count("It is watched")
    board.run("systemctl", "start", WATCHDOG)
    wait_until(lambda: board.journal(WATCHDOG).count("It is watched") > answers, "an answer")
    client.wait_status()
    old = board.main_pid()
    board.run("sh", "-c", f"kill -STOP {old}")
    board.wait_restarted(old)
    assert "No answer from the daemon to three questions" in board.journal(WATCHDOG)


def test_a_download_leaves_little_in_the_journal(board, client):
    board.path("/var/film").write_bytes(os.urandom(400_000))  # seven pieces
    board.run("beaconctl", "download", "/var/film", "/var/copy")
    assert board.path("/var/copy").read_bytes() == board.path("/var/film").read_bytes()
    client.send({"cmd": "config_request", "param": "streaming"})

    def of_the_download():
        before, found, after = board.journal().partition("download request offset 0")
        return found and "Config request for streaming" in after and board.journal().splitlines()

    lines = [line for line in wait_until(of_the_download, "a later line") if "film" in line]
    assert [line.split(" from ")[0] for line in lines if line.startswith("File ")] == \
        ["File /var/film download request offset 0"]
    assert len(lines) == 3
    assert "File finished" in board.journal()


FOUND, LOST = "UDP server: UDP found", "UDP server: UDP lost"
ASKED = 'parse_packet json {"cmd":"watchdog"}'
NEW = "UDP server: New client connected from 192.0.2.1:5 "


@pytest.mark.parametrize("printed,left", [
    ((FOUND, ASKED, LOST, "next"), ("next",)),
    ((FOUND, ASKED, "other", LOST), ("other",)),
    ((FOUND, LOST), (FOUND, LOST)),
    ((FOUND, ASKED, LOST, FOUND, LOST), (FOUND, LOST)),
    ((FOUND, "of a client", ASKED, LOST), (FOUND, "of a client", LOST)),
    ((FOUND, ASKED, NEW, LOST), (NEW, LOST)),
    ((NEW, ASKED, LOST), (NEW, LOST)),
    ((ASKED + " ",), (ASKED + " ",)),
    (("last", FOUND), ("last", FOUND)),
])
def test_what_the_watchdogs_question_causes_is_filtered(printed, left):
    done = subprocess.run(["sh", PACKAGING / "log-filter", "sh", "-c", "cat >&2"], check=True,
                          text=True, input="".join(line + "\n" for line in printed),
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    assert tuple(done.stderr.splitlines()) == left


@pytest.mark.usefixtures("quick_watchdog")
def test_the_watchdogs_question_leaves_nothing_in_the_journal(board):
    board.run("systemctl", "restart", UNIT)
    answers = board.journal(WATCHDOG).count("It is watched")
    board.run("systemctl", "start", WATCHDOG)
    wait_until(lambda: board.journal(WATCHDOG).count("It is watched") > answers, "an answer")
    Client(board).section("streaming")

    def since_the_start():
        lines = board.journal().rpartition("Quillorbeacon-NG v.")[2].splitlines()
        return lines if any("Config request for streaming" in line for line in lines) else None

    lines = wait_until(since_the_start, "a client's request")
    assert [line for line in lines if "UDP found" in line or "watchdog" in line] == []


def test_without_room_for_the_filter_the_daemon_runs_all_the_same(tmp_path):
    (tmp_path / "mktemp").write_text("#!/bin/sh\nexit 1\n")
    (tmp_path / "mktemp").chmod(0o755)
    done = subprocess.run(["sh", PACKAGING / "log-filter", "echo", "runs"], check=False, text=True,
                          env={"PATH": f"{tmp_path}:{os.environ['PATH']}"}, stdout=subprocess.PIPE)
    assert (done.returncode, done.stdout) == (0, "runs\n")
