"""Fixtures of the package tests: Debian machines with and without the packages.

The packages under test are those of build/packages for this machine's architecture.
"""

import shutil
import subprocess
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from machine import Client, Machine  # noqa: E402

BUILD = HERE.parents[1] / "build"
PLACE = BUILD / "package-root"
NAMES = ("quillorbeacon", "quillorbeacon-media", "quillorbeacon-nogpio", "quillorbeacon-tools",
         "quillorbeacon-web")
ARCHITECTURE = subprocess.run(["dpkg", "--print-architecture"], check=True, text=True,
                              stdout=subprocess.PIPE).stdout.strip()
# /boot is a separate partition, mounted read-only as on a board.
FSTAB = "/var/lib/boot-partition /boot none bind,ro 0 0\n"


def package_file(name):
    (found,) = (BUILD / "packages").glob(f"{name}_*_{ARCHITECTURE}.deb")
    return found


def index(folder):
    """Turns a folder of packages into a repository."""
    with open(folder / "Packages", "wb") as stream:
        subprocess.run(["dpkg-scanpackages", "."], cwd=folder, check=True, stdout=stream,
                       stderr=subprocess.DEVNULL)


def build_package(folder, target):
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", folder, target], check=True,
                   stdout=subprocess.DEVNULL)


def make_newer(file, folder, target):
    """Repacks a package with a higher version."""
    subprocess.run(["dpkg-deb", "-R", file, folder], check=True)
    control = folder / "DEBIAN/control"
    control.write_text(control.read_text().replace("Version: 0.8.19-1\n", "Version: 0.8.19-2\n"))
    build_package(folder, target / file.name.replace("0.8.19-1", "0.8.19-2"))


@pytest.fixture(scope="session")
def machines():
    """The folder for what machines write."""
    place = PLACE / "machines"
    shutil.rmtree(place, ignore_errors=True)
    place.mkdir()
    yield place
    shutil.rmtree(place)


@pytest.fixture(scope="session")
def plain(machines):
    """The layers of a machine with our packages and Debian's in local repositories."""
    layer = machines / "repositories"
    for name in ("packages", "newer"):
        (layer / "srv" / name).mkdir(parents=True)
    for name in NAMES:
        shutil.copy(package_file(name), layer / "srv/packages")
        make_newer(package_file(name), machines / f"newer-{name}", layer / "srv/newer")
    shutil.copytree(PLACE / "debian", layer / "srv/debian")
    for name in ("packages", "newer", "debian"):
        index(layer / "srv" / name)
    (layer / "var/lib/boot-partition").mkdir(parents=True)
    for inside, text in (
            ("etc/fstab", FSTAB),
            ("etc/apt/sources.list", "deb [trusted=yes] file:/srv/debian ./\n"
                                     "deb [trusted=yes] file:/srv/packages ./\n"),
            # The machines' disks need not survive a power failure of the host.
            ("etc/dpkg/dpkg.cfg.d/quick", "force-unsafe-io\n")):
        (layer / inside).parent.mkdir(parents=True, exist_ok=True)
        (layer / inside).write_text(text)
    return layer, PLACE / "debian-root"


@pytest.fixture(scope="session")
def installed(machines, plain):
    """The layers of a machine on which a user has installed the packages."""
    with Machine(machines / "installed", *plain) as machine:
        machine.run("apt-get", "update")
        machine.run("apt-get", "install", "-y", "quillorbeacon", "quillorbeacon-tools")
        machine.run("sync")
    return machine.disk, *plain


@pytest.fixture(scope="session")
def board_of_all(machines, installed):
    with Machine(machines / "board", *installed) as made:
        yield made


@pytest.fixture
def board(board_of_all):
    """A machine with the packages installed, for tests that leave the packages and the daemon as
    they were. They share it: its settings and its journal are what earlier tests have left."""
    return board_of_all


@pytest.fixture
def place(machines):
    """A new folder for a machine to write to; removed after the test."""
    made = machines / "machine"
    yield made
    shutil.rmtree(made)


@pytest.fixture
def bare(place, plain):
    """A machine without the packages."""
    with Machine(place, *plain) as machine:
        yield machine


@pytest.fixture
def machine(place, installed):
    """A machine with the packages installed, for one test."""
    with Machine(place, *installed) as made:
        yield made


@pytest.fixture
def client(request):
    """A client of the daemon on the test's machine; the daemon has answered it."""
    name = "machine" if "machine" in request.fixturenames else "board"
    made = Client(request.getfixturevalue(name))
    made.wait_status()
    return made
