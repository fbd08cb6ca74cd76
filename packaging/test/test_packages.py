"""What the packages do on a Debian machine: installation, service, settings, upgrade, removal."""

import gzip
import os
import re
import shlex
import shutil
import subprocess

import pytest

from conftest import ARCHITECTURE, NAMES, build_package, index, package_file
from machine import UNIT, Client, wait_until

BOOT_FILE = "/boot/quillorbeacon.conf"
DEFAULT_FILE = "/usr/share/quillorbeacon/quillorbeacon.conf"
URL = "srt://192.0.2.7:9000"


def board_file(machine):
    """The board's settings; empty without the file."""
    path = machine.path(BOOT_FILE)
    return path.read_bytes().decode() if path.exists() else ""


def gpio_library(machine):
    """The file that the daemon loads as its GPIO library."""
    (line,) = (line for line in machine.run("ldd", "/usr/sbin/quillorbeacon").splitlines()
               if "libpigpio" in line)
    return os.path.realpath(line.split("=>")[1].split()[0])


def change_url(machine, client, url=URL):
    """Changes a setting as a client and waits until it is saved."""
    client.send({"cmd": "updateconfig", "param": "streaming", "value": "srt", "value2": "1",
                 "value3": url})
    run_file = machine.path("/run/quillorbeacon/config.conf")
    wait_until(lambda: url in run_file.read_text(), "the setting in the run-time copy")
    assert f"stream_srt_url={url}\r\n" in board_file(machine)


def is_frozen_between_commands(machine, pid):
    """Stops the process while none of its commands runs; else lets it go on and returns False."""
    state = machine.run("sh", "-c", f"kill -STOP {pid}; cat /proc/{pid}/task/*/children;"
                                    " mountpoint -q /boot || echo unmounted").strip()
    if state:
        machine.run("sh", "-c", f"kill -CONT {pid}")
    return not state


def assert_url_is_set(machine, url=URL):
    client = Client(machine)
    client.wait_status()
    assert url in client.section("streaming")


def make_gpio_package(folder):
    """A package with the name and the file of the real GPIO library."""
    library = folder / "content/usr/lib/libpigpio.so.1"
    library.parent.mkdir(parents=True)
    stand_in = subprocess.run(["dpkg-deb", "--fsys-tarfile", package_file("quillorbeacon-nogpio")],
                              check=True, stdout=subprocess.PIPE).stdout
    library.write_bytes(subprocess.run(
        ["tar", "-xO", "./usr/lib/quillorbeacon/libpigpio.so.1"], input=stand_in, check=True,
        stdout=subprocess.PIPE).stdout)
    control = folder / "content/DEBIAN/control"
    control.parent.mkdir()
    control.write_text(f"Package: libpigpio1\nVersion: 1.79\nArchitecture: {ARCHITECTURE}\n"
                       "Maintainer: Nobody <nobody@localhost>\nDescription: GPIO library\n")
    target = folder / "repository/libpigpio1.deb"
    target.parent.mkdir()
    build_package(folder / "content", target)
    return target


def test_lintian_finds_nothing():
    done = subprocess.run(["lintian", "--profile", "debian", "--allow-root", "--fail-on",
                           "error,warning", *(package_file(name) for name in NAMES)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    assert done.returncode == 0, done.stdout


def unpacked(name, folder):
    """Unpacks a package into a folder and returns it."""
    root = folder / name
    subprocess.run(["dpkg-deb", "-x", package_file(name), root], check=True)
    return root


def manuals(root):
    """The package's manual pages by name, without the backslashes of their hyphens."""
    return {page.name: gzip.decompress(page.read_bytes()).decode().replace("\\-", "-")
            for page in root.glob("usr/share/man/man*/*.gz")}


def test_the_installed_documents_have_all_that_they_link_to(tmp_path):
    readmes = 0
    for name in NAMES:
        place = unpacked(name, tmp_path) / "usr/share/doc" / name
        readmes += (place / "README.md").exists()
        for document in {*place.rglob("*.md")} - {place / "CONTRIBUTING.md"}:  # links to sources
            links = re.findall(r"\]\(([^)\s#]+)[^)\s]*\)", document.read_text())
            missing = [link for link in links
                       if "://" not in link and not (document.parent / link).is_file()]
            assert missing == [], document
    assert readmes == 1


def test_the_manuals_name_documents_that_are_installed(tmp_path):
    named = {}
    for name in NAMES:
        root = unpacked(name, tmp_path)
        for page, text in manuals(root).items():
            named[page] = re.findall(r"/usr/share/doc/[\w./-]*\w", text)
            assert [path for path in named[page] if not (root / path[1:]).is_file()] == [], page
    assert sorted(named) == ["beacon-sim.1.gz", "beacon-source.1.gz", "beacon-web.1.gz",
                             "beaconctl.1.gz", "quillorbeacon.8.gz"]
    assert all(named.values())


def test_every_program_has_a_manual(tmp_path):
    programs = []
    for name in NAMES:
        root = unpacked(name, tmp_path)
        found = [path.name for path in root.glob("usr/*bin/*")]
        assert {page.partition(".")[0] for page in manuals(root)} >= set(found), name
        programs += found
    assert sorted(programs) == ["beacon-sim", "beacon-source", "beacon-web", "beaconctl",
                                "quillorbeacon"]


def test_the_units_are_well_formed(board):
    assert board.run("systemd-analyze", "verify", "--man=no", UNIT,
                     "quillorbeacon-config.service") == ""


def test_installation_starts_the_service_at_once(bare):
    bare.run("apt-get", "update")
    bare.run("apt-get", "install", "-y", "quillorbeacon", "quillorbeacon-tools")
    Client(bare).wait_status()
    assert bare.show(UNIT, "UnitFileState") == "enabled"
    assert gpio_library(bare) == "/usr/lib/quillorbeacon/libpigpio.so.1"
    assert "\ndone\nBoard model:" in bare.journal()  # the configuration was loaded
    assert bare.path(BOOT_FILE).read_bytes() == bare.path(DEFAULT_FILE).read_bytes()


def test_a_source_and_a_recorder_on_the_board(machine, client):
    """Every package installed, and one line in /etc/quillorbeacon/source."""
    machine.run("apt-get", "install", "-y", "quillorbeacon-media")
    units = ["beacon-source.service", *(f"quillorbeacon-{name}.service"
                                        for name in ("audio", "recorder", "rtmp", "rtsp", "srt",
                                                     "transcoder"))]
    assert machine.run("systemd-analyze", "verify", "--man=no", *units) == ""
    assert [machine.show(unit, "ActiveState") for unit in units] == ["active"] * 7
    with machine.path("/etc/quillorbeacon/source").open("a") as settings:
        settings.write("test --size 160x120 --bitrate 300\n")
    wait_until(lambda: client.status()[40] == 1, "video")
    client.send({"cmd": "updateconfig", "param": "rec", "value": "1"})
    wait_until(lambda: client.status()[11] >= 2, "two seconds recorded")
    # A killed helper comes back and goes on.
    killed = machine.show(units[2], "MainPID")
    machine.kill(killed)
    wait_until(lambda: machine.show(units[2], "MainPID") not in ("0", killed), "a new recorder")
    wait_until(lambda: len([*machine.path("/").glob("m*/DCIM/*/*.mp4")]) == 2, "another film")
    machine.run("apt-get", "remove", "-y", "quillorbeacon-media")
    assert [machine.show(unit, "ActiveState") for unit in units] == ["inactive"] * 7


def ask_console(machine, request, *fields, body=""):
    """What the console answers to a request from the board itself."""
    lines = [f"{request} HTTP/1.1", "Host: 127.0.0.1", "Connection: close",
             f"Content-Length: {len(body)}", *fields, "", body]
    text = "\r\n".join(lines)
    return machine.run("bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/8080 && "
                       f"printf %s {shlex.quote(text)} >&3 && timeout 30 cat <&3; true")


@pytest.fixture
def console(machine, client):
    """The packaged console, which has heard of the daemon."""
    assert client
    machine.run("apt-get", "install", "-y", "quillorbeacon-web")
    wait_until(lambda: "beacon_up 1" in ask_console(machine, "GET /metrics"), "the daemon's status")
    return "quillorbeacon-web.service"


def test_the_console_on_the_board(machine, console):
    assert machine.run("systemd-analyze", "verify", "--man=no", console) == ""
    assert machine.show(console, "ActiveState") == "active"
    user = machine.run("stat", "-c", "%u", f"/proc/{machine.show(console, 'MainPID')}").strip()
    assert int(user) != 0
    exposure = machine.run("systemd-analyze", "security", "--no-pager", console)
    level = re.search(r"Overall exposure level for [\w.-]+: ([\d.]+)", exposure)
    assert float(level[1]) < 2.5
    machine.run("apt-get", "remove", "-y", "quillorbeacon-web")
    assert machine.show(console, "ActiveState") == "inactive"


@pytest.mark.parametrize("name,folder", [("internal", "/mnt"), ("external", "/media")])
def test_the_console_plays_and_deletes_recordings(machine, console, name, folder):
    """They are root's, and on a disk that is mounted after the console has started."""
    machine.run("mount", "-t", "tmpfs", "-o", "mode=755", "disk", folder)
    machine.run("bash", "-c",
                f"umask 077 && mkdir {folder}/DCIM && echo film > {folder}/DCIM/a.mp4")
    assert '"path":"DCIM/a.mp4"' in ask_console(machine, "GET /api/v1/recordings")
    assert ask_console(machine, f"GET /files/{name}/DCIM/a.mp4").endswith("film\n")
    done = ask_console(machine, "POST /api/v1/recordings/delete", "Origin: http://127.0.0.1",
                       "X-Beacon: 1", "Content-Type: application/json",
                       body=f'{{"place":"{name}","path":"DCIM/a.mp4"}}')
    assert done.startswith("HTTP/1.1 200 "), done
    assert machine.run("ls", f"{folder}/DCIM") == ""
    machine.run("umount", folder)
    assert machine.show(console, "ActiveState") == "active"


def test_the_console_sees_nothing_else_of_the_board(machine, console):
    """Although it may read and change what is root's."""
    secrets = [f"{folder}/secret" for folder in ("/etc", "/home", "/opt", "/root", "/run", "/srv",
                                                 "/tmp", "/usr", "/var")]
    machine.run("touch", *secrets)
    inside = ("nsenter", "-t", machine.show(console, "MainPID"), "-m", "ls", "-d")
    seen = machine.run(*inside, *secrets, check=False).splitlines()
    # Its programs are in /usr.
    assert [line for line in seen if not line.startswith("ls:")] == ["/usr/secret"]
    machine.run(*inside, "/etc/alternatives", "/etc/ld.so.cache")  # ffmpeg's libraries
    assert "No such file" in machine.run(*inside, "/etc/shadow", check=False)
    assert machine.run("nsenter", "-t", machine.show(console, "MainPID"), "-m", "ls",
                       "/run/quillorbeacon") == "clients.json\n"


def test_the_console_tells_who_is_registered(machine, console):
    def told():
        return re.findall(r'"clients":\[{"address":"127.0.0.1",',
                          ask_console(machine, "GET /api/v1/status"))

    wait_until(told, "the console itself")
    machine.run("systemctl", "restart", "quillorbeacon")
    wait_until(told, "the console itself, after the daemon's restart")


def test_the_console_with_a_password_that_only_root_may_read(machine, console):
    machine.run("bash", "-c", "umask 077 && mkdir -p /etc/quillorbeacon && "
                "echo open-sesame > /etc/quillorbeacon/web-password")
    machine.path(f"/etc/systemd/system/{console}.d").mkdir()
    machine.path(f"/etc/systemd/system/{console}.d/password.conf").write_text(
        "[Service]\nLoadCredential=password:/etc/quillorbeacon/web-password\nExecStart=\n"
        "ExecStart=/usr/bin/beacon-web --listen 0.0.0.0:8080 --password-file %d/password\n")
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "restart", console)
    wait_until(lambda: ask_console(machine, "GET /metrics").startswith("HTTP/1.1 401 "),
               "the console asks for the password")


def test_the_programs_that_the_daemon_runs_are_there(board):
    for program in ("dhcpcd", "ip", "ifconfig", "iw", "iwlist", "killall", "pidof", "mount",
                    "umount", "sed", "reboot"):
        board.run("which", program)


def test_the_client_on_the_board_reaches_the_daemon(board, client):
    url = "srt://192.0.2.7:9001"
    board.run("beaconctl", "set", "streaming", "srt", "1", url)
    wait_until(lambda: url in board_file(board), "the setting in the board's file")
    assert url in board.run("beaconctl", "get", "streaming")


@pytest.mark.parametrize("way,said", [
    ("kill", "code=killed, status=9/KILL"),
    ("change the kind of camera", "code=exited, status=1/FAILURE"),
    ("restart", "code=exited, status=2/INVALIDARGUMENT"),
    ("an empty datagram", "code=exited, status=3/NOTIMPLEMENTED"),
    ("a broken command", "status=6/ABRT"),
])
def test_the_service_is_started_again(board, client, way, said):
    old = board.main_pid()
    before = board.journal().count(said)
    if way == "kill":
        board.kill(old)
    elif way == "change the kind of camera":
        client.send({"cmd": "updateconfig", "param": "app_type", "value": "9", "value2": "x"})
    elif way == "restart":
        client.send({"cmd": "restart"})
    elif way == "an empty datagram":
        client.send_nothing()
    else:
        client.send(b"{")
    board.wait_restarted(old)
    assert board.journal().count(said) > before


def test_the_service_is_started_again_however_often(board, client):
    before = int(board.show(UNIT, "NRestarts"))
    for _ in range(6):  # systemd's own limit is 5 in 10 s
        old = board.main_pid()
        board.kill(old)
        board.wait_restarted(old)
    assert int(board.show(UNIT, "NRestarts")) == before + 6


def test_a_setting_survives_the_daemon(board, client):
    url = "srt://192.0.2.7:9002"
    change_url(board, client, url)
    old = board.main_pid()
    board.kill(old)
    board.wait_restarted(old)
    assert_url_is_set(board, url)
    board.run("systemctl", "restart", UNIT)
    assert_url_is_set(board, url)


def test_a_setting_survives_a_reboot_on_request(machine, client):
    change_url(machine, client)
    old = machine.init
    client.send({"cmd": "reboot"})
    machine.wait_rebooted(old)
    assert_url_is_set(machine)


def test_a_setting_survives_an_upgrade(machine, client):
    change_url(machine, client)
    old = machine.main_pid()
    machine.run("sed", "-i", "s/packages/newer/", "/etc/apt/sources.list")
    machine.run("apt-get", "update")
    machine.run("apt-get", "upgrade", "-y")
    for name in ("quillorbeacon", "quillorbeacon-nogpio", "quillorbeacon-tools"):
        assert machine.run("dpkg-query", "-W", "-f=${Version}", name) == "0.8.19-2"
    assert machine.main_pid() not in (0, old)
    assert_url_is_set(machine)


def test_settings_survive_a_daemon_killed_while_boot_is_unmounted(board, client):
    url = "srt://192.0.2.7:9003"
    change_url(board, client, url)
    old = board.main_pid()
    # A later save would mount it again.
    wait_until(lambda: is_frozen_between_commands(board, old), "a daemon that runs no command")
    # A machine's /boot, unlike a board's, can be mounted twice: by what a daemon that was killed had
    # begun, and by the next daemon.
    board.run("sh", "-c", "while mountpoint -q /boot; do umount /boot; done")
    assert not board.path(BOOT_FILE).exists()
    board.kill(old)
    board.wait_restarted(old)
    assert_url_is_set(board, url)
    assert url in board_file(board)  # mounted again


def test_a_file_changed_by_hand_counts_after_a_restart(board, client):
    url = "srt://192.0.2.7:9004"
    board.run("mount", "-o", "remount,rw", "/boot")
    settings = board.path(DEFAULT_FILE).read_bytes()
    board.path(BOOT_FILE).write_bytes(
        settings.replace(b"stream_srt_url=", f"stream_srt_url={url}".encode()))
    board.run("umount", "/boot")
    board.run("mount", "/boot")
    board.run("systemctl", "restart", UNIT)
    assert_url_is_set(board, url)


def test_removal_stops_the_service_and_leaves_the_settings(machine, client):
    change_url(machine, client)
    machine.run("apt-get", "remove", "-y", "quillorbeacon")
    assert "active" not in machine.run("systemctl", "is-active", UNIT, check=False).split()
    assert machine.run("pidof", "quillorbeacon", check=False) == ""
    assert URL in board_file(machine)
    machine.run("apt-get", "install", "-y", "quillorbeacon")
    assert_url_is_set(machine)


def test_a_purge_removes_everything(machine, client):
    change_url(machine, client)
    machine.run("mount", "-o", "remount,rw", "/boot")
    assert [*machine.path("/dev/shm").iterdir()] != []
    for ending in (".new", ".kept", ".kept2"):
        machine.path(BOOT_FILE + ending).write_bytes(b"left")
    machine.run("apt-get", "purge", "-y", "quillorbeacon")
    assert not machine.path(BOOT_FILE).exists()
    assert [*machine.path("/dev/shm").iterdir()] == []
    found = machine.run("find", "/boot", "/etc", "/lib/systemd", "/run", "/usr", "/var", "-xdev",
                        "-name", "*quillorbeacon*", "-not", "-path", "/usr/lib/quillorbeacon*",
                        "-not", "-path", "/usr/share/quillorbeacon*",  # of quillorbeacon-tools
                        "-not", "-name", "*quillorbeacon-*")
    left = [line for line in found.splitlines() if "/doc/" not in line]
    assert left == []


def test_the_real_gpio_library_takes_the_place_of_the_stand_in(machine, tmp_path):
    # A library that somebody has built and installed ...
    for folder in ("/usr/local/lib", f"/usr/lib/{machine.run('uname', '-m').strip()}-linux-gnu"):
        machine.run("cp", "/usr/lib/quillorbeacon/libpigpio.so.1", folder)
        assert gpio_library(machine) == f"{folder}/libpigpio.so.1"
        machine.run("rm", f"{folder}/libpigpio.so.1")
    # ... and its package.
    machine.path("/srv/libpigpio1.deb").write_bytes(make_gpio_package(tmp_path).read_bytes())
    machine.run("apt-get", "install", "-y", "/srv/libpigpio1.deb")
    assert machine.run("dpkg-query", "-W", "-f=${db:Status-Status}", "quillorbeacon") == "installed"
    assert not machine.path("/usr/lib/quillorbeacon/libpigpio.so.1").exists()
    assert gpio_library(machine) == "/usr/lib/libpigpio.so.1"


def test_where_the_real_gpio_library_can_be_installed_it_is(bare, tmp_path):
    repository = make_gpio_package(tmp_path).parent
    index(repository)
    shutil.copytree(repository, bare.path("/srv/with-gpio"))
    with open(bare.path("/etc/apt/sources.list"), "a", encoding="ascii") as sources:
        sources.write("deb [trusted=yes] file:/srv/with-gpio ./\n")
    bare.run("apt-get", "update")
    plan = bare.run("apt-get", "install", "-s", "quillorbeacon")
    assert "Inst libpigpio1 " in plan and "quillorbeacon-nogpio" not in plan
