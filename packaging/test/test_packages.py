"""What the packages do on a Debian machine: installation, service, settings, upgrade, removal."""

import gzip
import os
import re
import shutil
import subprocess

import pytest

from conftest import ARCHITECTURE, NAMES, build_package, index, package_file
from machine import Client, wait_until

BOOT_FILE = "/boot/quillorbeacon.conf"
UNIT = "quillorbeacon.service"
URL = "srt://192.0.2.7:9000"
SET_URL = {"cmd": "updateconfig", "param": "streaming", "value": "srt", "value2": "1",
           "value3": URL}


@pytest.fixture
def client(machine):
    made = Client(machine)
    made.wait_status()
    return made


def main_pid(machine):
    return int(machine.show(UNIT, "MainPID"))


def board_file(machine):
    """The board's settings; empty without the file."""
    path = machine.path(BOOT_FILE)
    return path.read_bytes().decode() if path.exists() else ""


def gpio_library(machine):
    """The file that the daemon's GPIO library is taken from."""
    (line,) = (line for line in machine.run("ldd", "/usr/sbin/quillorbeacon").splitlines()
               if "libpigpio" in line)
    return os.path.realpath(line.split("=>")[1].split()[0])


def change_url(machine, client):
    """Changes a setting over the air, and waits until it is saved."""
    client.send(SET_URL)
    run_file = machine.path("/run/quillorbeacon/config.conf")
    wait_until(lambda: URL in run_file.read_text(), "the setting in the run-time copy")
    assert f"stream_srt_url={URL}\r\n" in board_file(machine)


def assert_url_is_set(machine):
    client = Client(machine)
    client.wait_status()
    assert URL in client.section("streaming")


def make_gpio_package(folder):
    """A package of the name that the real GPIO library has, with its file."""
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
    """The content of a package, in a folder."""
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
    assert sorted(named) == ["beacon-sim.1.gz", "beaconctl.1.gz", "quillorbeacon.8.gz"]
    assert all(named.values())


def test_the_units_are_well_formed(machine):
    assert machine.run("systemd-analyze", "verify", "--man=no", UNIT,
                       "quillorbeacon-config.service") == ""


def test_installation_starts_the_service_at_once(bare):
    bare.run("apt-get", "update")
    bare.run("apt-get", "install", "-y", "quillorbeacon", "quillorbeacon-tools")
    Client(bare).wait_status()
    assert bare.show(UNIT, "UnitFileState") == "enabled"
    assert gpio_library(bare) == "/usr/lib/quillorbeacon/libpigpio.so.1"
    assert "\ndone\nBoard model:" in bare.journal()  # the configuration was loaded
    assert not bare.path(BOOT_FILE).exists()  # made by the first change of a setting


def test_the_programs_that_the_daemon_runs_are_there(machine):
    for program in ("dhcpcd", "ip", "ifconfig", "iw", "iwlist", "killall", "pidof", "mount",
                    "umount", "sed", "reboot"):
        machine.run("which", program)


def test_the_client_on_the_board_reaches_the_daemon(machine):
    Client(machine).wait_status()
    machine.run("beaconctl", "set", "streaming", "srt", "1", URL)
    wait_until(lambda: URL in board_file(machine), "the setting in the board's file")
    assert URL in machine.run("beaconctl", "get", "streaming")


@pytest.mark.parametrize("way,said", [
    ("kill", "code=killed, status=9/KILL"),
    ("change the kind of camera", "code=exited, status=1/FAILURE"),
    ("restart", "code=exited, status=2/INVALIDARGUMENT"),
    ("an empty datagram", "code=exited, status=3/NOTIMPLEMENTED"),
    ("a broken command", "status=6/ABRT"),
])
def test_the_service_is_started_again(machine, client, way, said):
    old = main_pid(machine)
    if way == "kill":
        machine.kill(old)
    elif way == "change the kind of camera":
        client.send({"cmd": "updateconfig", "param": "app_type", "value": "9", "value2": "x"})
    elif way == "restart":
        client.send({"cmd": "restart"})
    elif way == "an empty datagram":
        client.send_nothing()
    else:
        client.send(b"{")
    wait_until(lambda: main_pid(machine) not in (0, old), "another daemon")
    Client(machine).wait_status()
    assert said in machine.journal()


def test_the_service_is_started_again_however_often(machine):
    for _ in range(8):  # systemd's own limit is 5 in 10 s
        Client(machine).wait_status()
        old = main_pid(machine)
        machine.kill(old)
        wait_until(lambda: main_pid(machine) not in (0, old), "another daemon")
    Client(machine).wait_status()
    assert int(machine.show(UNIT, "NRestarts")) == 8


def test_a_setting_survives_the_daemon(machine, client):
    change_url(machine, client)
    old = main_pid(machine)
    machine.kill(old)
    wait_until(lambda: main_pid(machine) not in (0, old), "another daemon")
    assert_url_is_set(machine)
    machine.run("systemctl", "restart", UNIT)
    assert_url_is_set(machine)


def test_a_setting_survives_a_reboot_on_request(machine, client):
    change_url(machine, client)
    old = machine.init
    client.send({"cmd": "reboot"})
    machine.wait_rebooted(old)
    assert_url_is_set(machine)


def test_a_setting_survives_an_upgrade(machine, client):
    change_url(machine, client)
    old = main_pid(machine)
    machine.run("sed", "-i", "s/packages/newer/", "/etc/apt/sources.list")
    machine.run("apt-get", "update")
    machine.run("apt-get", "upgrade", "-y")
    for name in NAMES:
        assert machine.run("dpkg-query", "-W", "-f=${Version}", name) == "0.8.19-2"
    assert main_pid(machine) not in (0, old)
    assert_url_is_set(machine)


def test_settings_survive_a_daemon_killed_while_boot_is_unmounted(machine, client):
    change_url(machine, client)
    machine.run("umount", "/boot")
    assert not machine.path(BOOT_FILE).exists()
    old = main_pid(machine)
    machine.kill(old)
    wait_until(lambda: main_pid(machine) not in (0, old), "another daemon")
    assert_url_is_set(machine)
    assert URL in board_file(machine)  # mounted again


def test_a_file_changed_by_hand_counts_after_a_restart(machine, client):
    machine.run("mount", "-o", "remount,rw", "/boot")
    machine.path(BOOT_FILE).write_bytes(f"stream_srt_url={URL}\r\n".encode())
    machine.run("systemctl", "restart", UNIT)
    assert_url_is_set(machine)


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
    machine.run("apt-get", "purge", "-y", "quillorbeacon")
    assert not machine.path(BOOT_FILE).exists()
    found = machine.run("find", "/boot", "/etc", "/lib/systemd", "/run", "/usr", "/var", "-xdev",
                        "-name", "*quillorbeacon*", "-not", "-path", "/usr/lib/quillorbeacon*",
                        "-not", "-name", "*quillorbeacon-*")
    left = [line for line in found.splitlines() if "/doc/" not in line]
    assert left == []


def test_the_real_gpio_library_takes_the_place_of_the_stand_in(machine, tmp_path):
    # One that somebody has built there ...
    for folder in ("/usr/local/lib", f"/usr/lib/{machine.run('uname', '-m').strip()}-linux-gnu"):
        machine.run("cp", "/usr/lib/quillorbeacon/libpigpio.so.1", folder)
        assert gpio_library(machine) == f"{folder}/libpigpio.so.1"
        machine.run("rm", f"{folder}/libpigpio.so.1")
    # ... and the package of it.
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
