"""What the console offers to Prometheus: by Prometheus' own checker, and in the dashboard."""

import json
import re
import subprocess

import pytest
import yaml

from beacon_web import Web, ready_daemon, staged
from board import EMULATOR, Board
from conftest import BUILD, REPOSITORY, wait_until

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

PROMTOOL = REPOSITORY / "build/promtool"
DASHBOARD = REPOSITORY / "docs/grafana.json"


class Stage:
    """A board with the daemon and the console."""

    def __init__(self, board, folder):
        self.board = board
        board.write("/sys/class/thermal/thermal_zone0/temp", "48312\n")
        self.daemon = ready_daemon(board, folder)
        self.web = Web(board, folder).wait_ready()
        wait_until(lambda: "beacon_storage_free_bytes{" in self.text() and
                   "beacon_temperature_celsius " in self.text(), "what the board measures")

    def text(self):
        return self.web.get("/metrics").body.decode()


@pytest.fixture(scope="module")
def metrics(tmp_path_factory):
    """The text of all metrics."""
    with Board(BUILD) as board:
        for stage in staged(Stage(board, tmp_path_factory.mktemp("metrics"))):
            yield stage.text()


def promtool(*words, text=""):
    """The status and the output of Prometheus' checker."""
    done = subprocess.run([PROMTOOL, *words], input=text, stdout=subprocess.PIPE, check=False,
                          stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout


def dashboard_queries():
    dashboard = json.loads(DASHBOARD.read_text())
    yield from (target["expr"] for panel in dashboard["panels"] for target in panel["targets"])
    yield from (variable["definition"] for variable in dashboard["templating"]["list"]
                if variable["type"] == "query")


def test_the_checker_finds_nothing(metrics):
    assert promtool("check", "metrics", text=metrics) == (0, "")


def test_the_checker_finds_what_is_wrong(metrics):
    wrong = metrics.replace("beacon_lost_packets_total", "beacon_lost_packets")
    assert promtool("check", "metrics", text=wrong)[0] != 0


def test_the_dashboard_names_metrics_that_there_are(metrics):
    known = set(re.findall(r"(?m)^# TYPE (\S+)", metrics))
    named = {name for query in dashboard_queries() for name in re.findall(r"beacon_\w+", query)}
    assert named - known == set()
    assert known - named == set()  # and all of them


def test_the_labels_of_the_dashboard_are_those_of_the_metrics(metrics):
    dashboard = json.loads(DASHBOARD.read_text())
    for panel in dashboard["panels"]:
        for target in panel["targets"]:
            name = re.search(r"beacon_\w+", target["expr"])[0]
            labels = set(re.findall(rf"(?m)^{name}\{{(\w+)=", metrics)) | {"instance"}
            assert set(re.findall(r"{{(\w+)}}", target["legendFormat"])) <= labels, panel["title"]


def test_the_queries_of_the_dashboard_are_understood(tmp_path):
    rules = [{"record": f"board:query{number}", "expr": query.replace("$board", ".*")}
             for number, query in enumerate(dashboard_queries())
             if not query.startswith("label_values")]
    file = tmp_path / "rules.yml"
    file.write_text(yaml.safe_dump({"groups": [{"name": "board", "rules": rules}]}))
    status, said = promtool("check", "rules", str(file))
    assert status == 0, said
    assert len(rules) > 10


def test_the_configuration_in_the_document_is_understood(tmp_path):
    text = (REPOSITORY / "docs/console.md").read_text()
    [block] = re.findall(r"(?m)^ +scrape_configs:\n(?: +.*\n)+", text)
    file = tmp_path / "prometheus.yml"
    file.write_text(block)
    status, said = promtool("check", "config", str(file))
    assert status == 0, said
