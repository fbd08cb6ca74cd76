"""script/setup, with stand-ins for apt-get and dpkg-query, in a mount namespace of its own."""

import shutil
import subprocess

import pytest

from board import EMULATOR
from conftest import REPOSITORY

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="nothing of it is emulated")

# Knows all packages but nginx until "apt-get install" has been called.
DPKG_QUERY = """#!/bin/sh
shift 2
for package; do
    [ "$package" = nginx-light ] && [ ! -e "$STATE/installed" ] || echo "installed $package"
done
"""
# Does what a package's scripts do: asks whether a service may be started.
APT_GET = """#!/bin/sh
echo "$@" >> "$STATE/calls"
[ "$1" = install ] || exit 0
touch "$STATE/installed"
for service in nginx other; do
    status=0
    [ ! -x /usr/sbin/policy-rc.d ] || /usr/sbin/policy-rc.d $service start || status=$?
    echo "start $service: $status" >> "$STATE/calls"
done
"""
TOLD = """#!/bin/sh
echo "${0##*/} $@" >> "$STATE/calls"
"""


def set_up(folder, policy=None):
    """Runs script/setup; returns what it called and what was left in /usr/sbin."""
    programs, system = folder / "bin", folder / "sbin"
    for made in (programs, system):
        made.mkdir()
    for name, text in (("dpkg-query", DPKG_QUERY), ("apt-get", APT_GET), ("systemctl", TOLD),
                       ("invoke-rc.d", TOLD)):
        (programs / name).write_text(text)
        (programs / name).chmod(0o755)
    if policy:
        (system / "policy-rc.d").write_text(policy)
        (system / "policy-rc.d").chmod(0o755)
    subprocess.run(["unshare", "--mount", "sh", "-ec",
                    f"mount --bind {system} /usr/sbin; exec {REPOSITORY}/script/setup --for media-demo"],
                   env={"PATH": f"{programs}:/usr/bin:/bin", "STATE": str(folder)}, check=True,
                   timeout=60, stdout=subprocess.DEVNULL)
    return (folder / "calls").read_text().splitlines(), [path.name for path in system.iterdir()]


def test_nginx_does_not_become_a_service(tmp_path):
    calls, left = set_up(tmp_path)
    assert calls[0].startswith("update") and calls[1].endswith(" nginx-light")
    assert calls[2:] == ["start nginx: 101", "start other: 0", "systemctl -q disable nginx"]
    assert left == []


def test_a_policy_of_the_machine_stays(tmp_path):
    calls, left = set_up(tmp_path, "#!/bin/sh\nexit 0\n")
    assert calls[2:] == ["start nginx: 0", "start other: 0", "systemctl -q disable nginx",
                         "invoke-rc.d nginx stop"]
    assert left == ["policy-rc.d"]
    assert (tmp_path / "sbin/policy-rc.d").read_text() == "#!/bin/sh\nexit 0\n"


# "apt-get download" works once the lists are there.
DOWNLOADS = """#!/bin/sh
echo "$1" >> "$STATE/calls"
[ "$1" != update ] || touch "$STATE/lists"
[ "$1" = update ] || { [ -e "$STATE/lists" ] && touch prometheus_1_all.deb; }
"""
UNPACKS = """#!/bin/sh
mkdir -p usr/bin
echo promtool > usr/bin/promtool
chmod +x usr/bin/promtool
"""


@pytest.mark.parametrize("lists", [True, False])
def test_the_lists_are_fetched_for_what_is_only_downloaded(tmp_path, lists):
    programs = tmp_path / "bin"
    programs.mkdir()
    (tmp_path / "installed").touch()
    (tmp_path / "script").mkdir()
    shutil.copy(f"{REPOSITORY}/script/setup", tmp_path / "script")
    if lists:
        (tmp_path / "lists").touch()
    for name, text in (("dpkg-query", DPKG_QUERY), ("apt-get", DOWNLOADS), ("dpkg-deb", UNPACKS)):
        (programs / name).write_text(text)
        (programs / name).chmod(0o755)
    subprocess.run([tmp_path / "script/setup", "--for", "test"], check=True,
                   env={"PATH": f"{programs}:/usr/bin:/bin", "STATE": str(tmp_path)})
    assert (tmp_path / "build/promtool").read_text() == "promtool\n"
    called = (tmp_path / "calls").read_text().split()
    assert called == (["download"] if lists else ["download", "update", "download"])
