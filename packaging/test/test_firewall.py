"""The packaged firewall example: loaded, and tried with packets."""

import subprocess
from pathlib import Path

import pytest

EXAMPLE = Path(__file__).resolve().parents[1] / "quillorbeacon.nft"

# A board with two networks and a host on each. Prints which of the board's ports were reached.
SCRIPT = r"""
set -e
ip link set lo up
unshare --net sleep 1000 & other=$!
until [ "$(readlink /proc/$other/ns/net)" != "$(readlink /proc/$$/ns/net)" ]; do sleep 0.01; done
on_other() { nsenter --target $other --net "$@"; }
for name in wlan0 eth0; do
    ip link add $name type veth peer name host-$name netns $other
    ip link set $name up
    on_other ip link set host-$name up
done
ip addr add 10.1.0.1/24 dev wlan0
ip addr add 10.2.0.1/24 dev eth0
on_other ip addr add 10.1.0.2/24 dev host-wlan0
on_other ip addr add 10.2.0.2/24 dev host-eth0
on_other ip link set lo up
# Its place is taken by another interface: nothing stays of what was loaded before.
sed 's/"wlan0"/"eth0"/' EXAMPLE > PLACE/before.nft
nft -f PLACE/before.nft
nft -f EXAMPLE
cat > PLACE/ask.py <<'END'
import select, socket, sys
def ask(kind, port):
    asked = socket.socket(socket.AF_INET, kind)
    asked.setblocking(False)
    if asked.connect_ex((sys.argv[1], port)) == 0:
        asked.send(b"x")
    return asked
asked = {(name, port): ask(kind, port) for name, kind, ports in (
    ("udp", socket.SOCK_DGRAM, (5000, 5001, 5003, 5252, 9999)),
    ("tcp", socket.SOCK_STREAM, (5252, 8080, 8554, 8890, 9999))) for port in ports}
# Nobody listens: what comes through is refused. The firewall never stops port 9999, asked last.
reached = set()
waiting = select.poll()
for one in asked.values():
    waiting.register(one, 0)  # errors are always reported
def look():
    for number, _ in waiting.poll(0):
        waiting.unregister(number)
        reached.update(name for name, one in asked.items() if one.fileno() == number)
for _ in range(400):
    select.select([], [], [], 0.05)
    look()
    if {("udp", 9999), ("tcp", 9999)} <= reached:
        break
select.select([], [], [], 0.3)
look()
for name, port in asked:
    if (name, port) in reached:
        print(sys.argv[1], name, port)
END
python3 PLACE/ask.py 127.0.0.1
on_other python3 PLACE/ask.py 10.1.0.1
on_other python3 PLACE/ask.py 10.2.0.1
kill $other
"""


@pytest.fixture(scope="module")
def reached(tmp_path_factory):
    place = tmp_path_factory.mktemp("firewall")
    script = SCRIPT.replace("EXAMPLE", str(EXAMPLE)).replace("PLACE", str(place))
    done = subprocess.run(["unshare", "--net", "--mount", "bash", "-c", script], check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    found = {}
    for line in done.stdout.splitlines():
        address, *port = line.split()
        found.setdefault(address, []).append(" ".join(port))
    return found


def test_the_board_reaches_itself(reached):
    assert len(reached["127.0.0.1"]) == 10


def test_clients_reach_the_board_over_one_interface(reached):
    assert reached["10.1.0.1"] == ["udp 5252", "udp 9999", "tcp 5252", "tcp 8080", "tcp 8554",
                                   "tcp 9999"]


def test_over_the_others_only_what_is_not_the_boards_is_reached(reached):
    assert reached["10.2.0.1"] == ["udp 9999", "tcp 9999"]
