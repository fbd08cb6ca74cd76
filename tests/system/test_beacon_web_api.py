"""The console's interface for programs and what its page does with it, with the real daemon."""

import json
import re
import time

import pytest
import yaml

from beacon_web import Web, next_text, staged
from board import EMULATOR, Board, Daemon, promised
from conftest import BINARY, BUILD, CONFIG, REPOSITORY, SANITIZERS, wait_until
from rc_reader import Reader

pytestmark = pytest.mark.skipif(bool(EMULATOR), reason="not built for another processor")

VALUES = "/run/quillorbeacon/smooth_ptd_app_values"
# What was set before the console came need not be sound: the camera has no network here.
SETTINGS = ('recording_place=2\napp_type=9\n'
            'device_name="Front <b>camera</b>"\nwifi_iface=ext\nwifi_ssid="Home"\n'
            'wifi_psk="homesecret"\ncamera_iface=int\nstream_rtmp_key="streamkey"\n'
            'automove_list="10,5,0,,,,,1,0,;20,5,0,,,,,1,0,"\n')


class Stage:
    """A board with the daemon, a data source and the console."""

    def __init__(self, board, folder):
        self.board = board
        board.write(CONFIG, SETTINGS)
        self.daemon = Daemon(board, BINARY, folder / "daemon-errors", SANITIZERS)
        self.daemon.wait_ready()
        self.web = Web(board, folder).wait_ready()
        wait_until(lambda: self.web.get("/api/v1/status").json()["present"], "the board's status")
        self.data = board.socket()

    def wake_data_source(self):
        """The data source says that it is there, and the console has heard it."""
        self.data.sendto(b"I am here", ("127.0.0.1", 5000))
        wait_until(lambda: self.web.get("/api/v1/status").json()["status"]["data_source"],
                   "the data source")

    def wait_command(self, name):
        """Waits until the data source gets that command."""
        while json.loads(self.data.recv(65536)[1:])["cmd"] != name:
            pass

    def gimbal(self):
        return self.board.path(VALUES).read_text()


@pytest.fixture(scope="module")
def stage(tmp_path_factory):
    with Board(BUILD) as board:
        yield from staged(Stage(board, tmp_path_factory.mktemp("api")))


@pytest.fixture
def web(stage):
    return stage.web


def test_status(web):
    status = web.get("/api/v1/status").json()
    assert status["status"]["app_type"] == 9
    assert ["Camera", "Twinmoor / Raspberry Pi"] in status["words"]


def registered(web):
    return web.get("/api/v1/status").json().get("clients", [])


def test_who_is_registered(stage, web):
    [own] = wait_until(lambda: registered(web), "the console itself")
    assert own["address"] == "127.0.0.1" and own["seconds"] < 10 and not own["data_only"]
    others = [stage.board.socket(bind=("127.0.0.1", port)) for port in (40001, 40002)]
    for mode, other in enumerate(others):
        other.sendto(b"R" + bytes(11) + bytes([2, mode]), ("127.0.0.1", 5252))
    wait_until(lambda: [(each["port"], each["data_only"]) for each in registered(web)[1:]]
               == [(40001, False), (40002, True)], "the others")
    words = web.get("/api/v1/status").json()["words"]
    assert ["Registered", f"127.0.0.1:{own['port']}, 127.0.0.1:40001, "
                          "127.0.0.1:40002 (data only)"] in words
    for other in others:
        other.sendto(b"R" + bytes(11) + bytes([3]), ("127.0.0.1", 5252))
    wait_until(lambda: len(registered(web)) == 1, "the others are gone")


def test_metrics(web):
    reply = web.get("/metrics")
    assert reply.headers["content-type"].startswith("text/plain; version=0.0.4")
    text = reply.body.decode()
    kinds = dict(re.findall(r"(?m)^# TYPE (\S+) (\S+)$", text))
    values = re.findall(r"(?m)^(beacon_\w+)(?:\{\w+=\"[\w.]+\"\})? (-?[\d.e+-]+)$", text)
    lines = [line for line in text.splitlines() if not line.startswith("#")]
    assert len(values) == len(lines) > 25
    for name, _ in values:
        assert kinds[name] == ("counter" if name.endswith("_total") else "gauge"), name
    assert ("beacon_up", "1") in values


def metric(web, name):
    """The value, or nothing if there is none."""
    found = re.search(rf"(?m)^beacon_{name}(?:{{.*}})? (\S+)$", web.get("/metrics").body.decode())
    return found and float(found[1])


def test_a_temperature_that_cannot_be_read_is_no_number(stage, web):
    assert metric(web, "temperature_celsius") is None
    assert "temperature" not in web.get("/api/v1/status").json()
    sensor = stage.board.path("/sys/class/thermal/thermal_zone0/temp")
    sensor.write_text("48312\n")
    wait_until(lambda: metric(web, "temperature_celsius") == 48, "the temperature")
    assert web.get("/api/v1/status").json()["temperature"] == 48
    sensor.unlink()
    wait_until(lambda: metric(web, "temperature_celsius") is None, "no temperature")


def test_free_space_without_a_drive_is_not_the_drives(stage, web):
    """While nothing is mounted at /media, its free space is the system's."""
    def storage():
        return dict(web.get("/api/v1/status").json()["words"])["Storage"]

    def is_known():
        known = [metric(web, "storage_free_bytes") is not None,
                 "free_bytes" in web.get("/api/v1/status").json()]
        return known[0] if known[0] == known[1] else None

    wait_until(lambda: is_known() is True, "the drive's space")
    stage.board.write("/dev/sda", "")
    stage.board.run("/usr/bin/umount", "/media")
    wait_until(lambda: storage() == "external, no drive mounted: -", "a dash")
    assert is_known() is False
    # So a service sees the folder that it may write to.
    stage.board.run("/usr/bin/mount", "--bind", "/media", "/media")
    time.sleep(2)
    assert storage() == "external, no drive mounted: -" and is_known() is False
    stage.board.run("/usr/bin/mount", "-t", "tmpfs", "-o", "size=80g", "none", "/media")
    wait_until(lambda: storage() == "external, 85.9 GB free", "the drive")
    assert is_known() is True
    stage.board.path("/dev/sda").unlink()


def wait_held(stage, beginning, send):
    """Sends until the gimbal has values that begin so: they stay for 300 ms only."""
    def is_held():
        send()
        return stage.gimbal().startswith(beginning)
    wait_until(is_held, "the gimbal's values", interval=0.05)


def test_the_gimbal_follows_and_stops_by_itself(stage, web):
    live = web.live()
    wait_held(stage, "1.000000,-0.5", lambda: live.send(json.dumps({"gimbal": [1, -0.5, 0]})))
    # Nothing more comes: a browser that is lost.
    wait_until(lambda: stage.gimbal() == "0.000000,0.000000,0.000000", "zeros")
    wait_held(stage, "0.000000,1.0", lambda: live.send(json.dumps({"gimbal": [0, 1, 0]})))
    live.close()
    wait_until(lambda: stage.gimbal() == "0.000000,0.000000,0.000000", "zeros")


def test_the_gimbal_goes_on_while_it_is_held(stage, web):
    live = web.live()

    def is_held_for_a_while():
        """A browser that is late for more than 300 ms counts as lost; this machine may be busy."""
        for _ in range(14):
            live.send(json.dumps({"gimbal": [0.25, 0, 0]}))
            time.sleep(0.05)
            if not stage.gimbal().startswith("0.25"):
                return False
        return True

    wait_until(is_held_for_a_while, "a gimbal that goes on", 60.0)
    live.send(json.dumps({"gimbal": [0, 0, 0]}))
    wait_until(lambda: stage.gimbal() == "0.000000,0.000000,0.000000", "zeros")


def test_values_that_are_none_move_nothing(stage, web):
    live = web.live()
    for message in ("", "[]", "{", '{"gimbal":[1,2]}', '{"gimbal":[2,0,0]}', '{"gimbal":["1",0,0]}',
                    '{"gimbal":[1e999,0,0]}', '{"gimbal":{}}', "{\"gimbal\":[null,0,0]}", "\0"):
        live.send(message)
    seen = set()

    def look():
        live.send(json.dumps({"gimbal": [0.5, 0, 0]}))
        seen.add(stage.gimbal())
        return any(values.startswith("0.5") for values in seen)

    wait_until(look, "the first good values")
    others = {values for values in seen if values and not values.startswith("0.500")}
    assert others <= {"0.000000,0.000000,0.000000"}
    live.close()
    for value in ({"pan": 2}, {"pan": "1"}, {"tilt": None}):
        assert web.change("PUT", "/api/v1/gimbal", value).status == 422, value
    wait_held(stage, "-1.0", lambda: web.change("PUT", "/api/v1/gimbal", {"pan": -1}))
    wait_until(lambda: stage.gimbal() == "0.000000,0.000000,0.000000", "zeros")


def test_photo_and_recording(stage, web):
    stage.wake_data_source()
    assert web.change("POST", "/api/v1/photo", {}).status == 200
    stage.wait_command("shot")
    for on in (True, False):
        assert web.change("PUT", "/api/v1/recording", {"on": on}).status == 200
        wait_until(lambda: web.get("/api/v1/status").json()["status"]["recording"] is on,
                   "the recording's state")
    assert web.change("PUT", "/api/v1/recording", {"on": "yes"}).status == 422


def test_no_photo_without_a_camera(stage, web):
    wait_until(lambda: not web.get("/api/v1/status").json()["status"]["data_source"],
               "the data source gone")
    assert web.change("POST", "/api/v1/photo", {}).status == 409


def field(section, key):
    return next(each for each in section["fields"] if each["key"] == key)


def test_every_setting_is_in_a_section(web):
    sections = web.get("/api/v1/settings").json()["sections"]
    keys = set()
    for name in sections:
        if name == "zerotier":
            continue  # its tool is not on this board
        section = web.get(f"/api/v1/settings/{name}").json()
        for each in section["fields"]:
            keys.add(each["key"])
            assert each["kind"] in ("flag", "number", "choice", "text") and each["help"]
            assert each["kind"] != "choice" or each["choices"]
    document = (REPOSITORY / "docs/settings.md").read_text()
    known = set(re.findall(r"(?m)^\| `(\w+)` \| (?:number|text|0 )", document))
    assert len(known) > 70
    # Calibration changes these two; the camera's options need permission.
    assert known - keys == {"rc1_channels", "rc2_channels", "internal_camera_params",
                            "zerotier_enabled", "zerotier_autojoin", "zerotier_netid"}
    assert web.get("/api/v1/settings/weather").status == 404


def test_pass_phrases_stay_on_the_board(web):
    wifi = web.get("/api/v1/settings/wifi")
    assert b"homesecret" not in wifi.body
    assert field(wifi.json(), "wifi_psk")["is_set"] and not field(wifi.json(), "ap_psk")["is_set"]
    streaming = web.get("/api/v1/settings/streaming")
    assert b"streamkey" not in streaming.body
    assert field(streaming.json(), "stream_rtmp_key")["is_set"]


def test_a_change_keeps_everything_else(stage, web):
    reply = web.change("PUT", "/api/v1/settings/wifi", {"wifi_ssid": "Office"})
    assert reply.status == 200, reply.body
    assert field(reply.json(), "wifi_ssid")["value"] == "Office"
    saved = stage.board.path(CONFIG).read_text()
    assert 'wifi_ssid="Office"' in saved and 'wifi_psk="homesecret"' in saved
    assert "wifi_iface=ext" in saved and "camera_iface=int" in saved


def test_only_rows_that_change_are_sent(stage, web):
    before = len(stage.board.log())
    reply = web.change("PUT", "/api/v1/settings/display", {"display_hflip": True, "osd_borders": "1"})
    assert reply.status == 200, reply.body
    assert field(reply.json(), "display_hflip")["value"] == "1"
    stopped = [line for line in stage.board.log()[before:] if "kill" in line]
    assert stopped == []  # "enabled" and others would stop programs


def test_wrong_values_are_told_at_their_field(stage, web):
    before = stage.board.path(CONFIG).read_text()
    wrong = {"ap_channel": "lots", "ap_ssid": "quo\"ted", "ap_mode": 7, "nothing": 1,
             "wifi_static_ip": "1.2.3"}
    reply = web.change("PUT", "/api/v1/settings/wifi", {**wrong, "wifi_ssid": "Other"})
    assert reply.status == 422
    told = reply.json()["fields"]
    assert "nothing" in told
    del wrong["nothing"]
    told = web.change("PUT", "/api/v1/settings/wifi", wrong).json()["fields"]
    assert set(told) == set(wrong) and all(told.values())
    assert stage.board.path(CONFIG).read_text() == before
    for body in ([], "text", 5, None):
        assert web.change("PUT", "/api/v1/settings/wifi", body).status == 400
    reply = web.request("PUT", "/api/v1/settings/wifi", "{", {
        "Origin": f"http://{web.address}", "X-Beacon": "1", "Content-Type": "application/json"})
    assert reply.status == 400
    camera = {"internal_camera_params": "; reboot"}
    assert web.change("PUT", "/api/v1/settings/camera", camera).status == 422


def test_movements(stage, web):
    two = field(web.get("/api/v1/settings/automovement").json(), "automove_list")["value"]
    assert two.count(";") == 1
    one = "30,0,0,,,,,5,0,"
    reply = web.change("PUT", "/api/v1/settings/automovement", {"automove_list": one})
    assert reply.status == 200, reply.body
    wait_until(lambda: web.get("/api/v1/status").json()["status"]["movement_count"] == 1,
               "the list")
    assert web.change("POST", "/api/v1/movement", {"do": "play"}).status == 200
    stage.daemon.wait_error("Auto movement start")
    assert web.change("POST", "/api/v1/movement", {"do": "stop"}).status == 200
    stage.daemon.wait_error("Auto movement stop")
    for wrong in ({"do": "dance"}, {}, {"do": "move", "step": 20}, {"do": "move", "step": "1"}):
        assert web.change("POST", "/api/v1/movement", wrong).status == 422, wrong


@pytest.mark.parametrize("wanted, command", [
    ({"output": "hdmi", "group": "DMT", "mode": 35}, 'tvservice -e "DMT 35"'),
    ({"output": "hdmi", "group": ""}, "tvservice -p"),
    ({"output": "tv", "standard": "PAL", "aspect": "16:9"}, 'tvservice -c "PAL 16:9 "'),
    ({"output": "tv", "standard": "NTSC", "aspect": "4:3", "scan": "P"}, 'tvservice -c "NTSC 4:3 P"'),
])
def test_the_mode_of_the_display(stage, web, wanted, command):
    assert web.change("POST", "/api/v1/display-mode", wanted).status == 200
    wait_until(lambda: command.replace('"', "") in stage.board.log(), command)


@pytest.mark.parametrize("wanted", [
    {}, {"output": "vga"}, {"output": "hdmi", "group": "CEA"}, {"output": "hdmi", "mode": 4},
    {"output": "hdmi", "group": "CEA", "mode": 0}, {"output": "hdmi", "group": "CEA", "mode": 128},
    {"output": "hdmi", "group": "CEA", "mode": "4;reboot"}, {"output": "hdmi", "group": ";reboot"},
    {"output": "hdmi", "group": "CEA", "mode": "04"}, {"output": "hdmi", "group": "CEA", "mode": []},
    {"output": "tv", "standard": "PAL"}, {"output": "tv", "standard": "SECAM", "aspect": "4:3"},
    {"output": "tv", "standard": "PAL", "aspect": "4:3", "scan": "P;reboot"},
    {"output": "tv", "standard": "PAL", "aspect": "4:3", "keep": 1},
])
def test_what_is_no_mode_of_the_display(stage, web, wanted):
    before = len(stage.board.log())
    assert web.change("POST", "/api/v1/display-mode", wanted).status == 422
    assert [line for line in stage.board.log()[before:] if "tvservice" in line] == []


def test_a_scan(stage, web):
    stage.board.prepare_output("iwlist", 'ESSID:"Home"\nESSID:"Caf\\xC3\\xA9"\n')
    reply = web.change("POST", "/api/v1/wifi-scan", {"interface": "ext"})
    assert reply.status == 200 and "names" in reply.json(), reply.body
    assert web.change("POST", "/api/v1/wifi-scan", {"interface": "eth0"}).status == 422


def test_receivers(web):
    receivers = web.get("/api/v1/rc").json()["receivers"]
    assert len(receivers) == 2 and receivers[0]["state"] == 0
    wrong = {"receiver": 3, "step": "begin_ends"}
    assert web.change("POST", "/api/v1/rc/calibration", wrong).status == 422


def calibrate(web, step, receiver=1):
    reply = web.change("POST", "/api/v1/rc/calibration", {"receiver": receiver, "step": step})
    check_reply(reply, "/rc/calibration", "post")
    return reply.status, reply.json().get("error", "")


@pytest.fixture
def sticks(stage):
    """A receiver that is not there yet. Its channels are centred."""
    reader = Reader(stage.board)
    for channel in range(1, 17):
        reader.set_raw(channel, 1500)
    yield reader
    reader.disconnect(0)
    reader.close()


def test_a_receiver_that_is_not_there_is_not_calibrated(stage, web):
    before = web.get("/api/v1/rc").json()
    config = stage.board.path(CONFIG).read_bytes()
    for step in ("begin_ends", "finish_ends", "take_centres"):
        assert calibrate(web, step, 2) == (409, "RC2 is absent: switch its transmitter on, and set "
                                                "rc_enabled and its mode")
    assert web.get("/api/v1/rc").json() == before
    assert stage.board.path(CONFIG).read_bytes() == config


def test_a_receiver_is_calibrated_in_order(web, sticks):
    sticks.connect(0)
    assert calibrate(web, "finish_ends") == (409, "RC1 is not being calibrated: begin again")
    assert calibrate(web, "begin_ends") == (200, "")
    assert calibrate(web, "take_centres")[0] == 409 and sticks.state(0) == 2
    for value in (1100, 1950):
        sticks.set_raw(3, value)
        wait_until(lambda: value in sticks.channel(3)[1:3], "the end noted")  # noqa: B023
    assert calibrate(web, "finish_ends") == (200, "") and sticks.state(0) == 1
    sticks.set_raw(3, 1490)
    assert calibrate(web, "take_centres") == (200, "")
    assert sticks.channel(3)[1:4] == (1100, 1950, 1490)
    assert calibrate(web, "begin_ends") == (200, "")
    sticks.set_raw(3, 1900)
    wait_until(lambda: sticks.channel(3)[2] == 1900, "the end noted")
    assert calibrate(web, "begin_ends") == (200, ""), "begins again"
    assert sticks.channel(3)[1:4] == (1900, 1900, 1900)
    assert calibrate(web, "finish_ends") == (200, "")


def test_a_receiver_that_falls_silent_is_not_calibrated(web, sticks):
    sticks.connect(0)
    assert calibrate(web, "begin_ends") == (200, "")
    sticks.disconnect(0)
    assert calibrate(web, "finish_ends")[0] == 409
    sticks.connect(0)
    assert calibrate(web, "finish_ends") == (409, "RC1 does not respond: is it still switched on and "
                                                  "in range?")
    sticks.set_raw(1, 1500)
    assert calibrate(web, "finish_ends") == (409, "RC1 is not being calibrated: begin again")


def test_many_questions_are_answered_one_after_another(web):
    connections = []
    for name in ("gimbal", "system", "recording", "gimbal", "video"):
        made = web.connect()
        made.sendall(f"GET /api/v1/settings/{name} HTTP/1.1\r\nHost: {web.address}\r\n"
                     "Connection: close\r\n\r\n".encode())
        connections.append((name, made))
    connections[2][1].close()  # this one does not wait
    for name, made in connections[:2] + connections[3:]:
        answer = b""
        while piece := made.recv(65536):
            answer += piece
            if answer.endswith(b"}\n"):
                break
        assert f'"section":"{name}"'.encode() in answer


# The board of these is not the others': the daemon ends.

def test_restart_and_reboot(board, start, tmp_path):
    daemon = start(SETTINGS)
    web = Web(board, tmp_path).wait_ready()
    daemon.wait_error("New client connected")
    assert web.change("POST", "/api/v1/reboot", {}).status == 200
    wait_until(lambda: any(line.split()[0] == "reboot" or line.endswith("reboot")
                           for line in board.log()), "the reboot")
    assert web.change("POST", "/api/v1/restart", {}).status == 200
    assert daemon.wait_exit() == 2
    begun = time.monotonic()
    reply = web.get("/api/v1/settings/gimbal")
    assert time.monotonic() - begun < promised(4.0)
    assert reply.status == 504 and "does not answer" in reply.json()["error"]


def test_a_name_is_stored_by_a_daemon_that_ends(board, start, tmp_path):
    daemon = start(SETTINGS)
    web = Web(board, tmp_path).wait_ready()
    daemon.wait_error("New client connected")
    reply = web.change("PUT", "/api/v1/settings/info", {"device_name": "Rear camera"})
    assert reply.status == 202 and reply.json() == {"restarts": True}
    assert daemon.wait_exit() == 1
    assert 'device_name="Rear camera"' in board.path(CONFIG).read_text()


# docs/openapi.yaml.

OPENAPI = yaml.safe_load((REPOSITORY / "docs/openapi.yaml").read_text())
TYPES = {"object": dict, "array": list, "string": str, "integer": int, "number": (int, float),
         "boolean": bool}


def resolved(node):
    """What a node of the document refers to."""
    while "$ref" in node:
        target = OPENAPI
        for step in node["$ref"].removeprefix("#/").split("/"):
            target = target[step]
        node = target
    return node


def check_value(value, schema, where):
    schema = resolved(schema)
    if value is None and schema.get("nullable"):
        return
    assert isinstance(value, TYPES[schema["type"]]), f"{where}: {value!r}"
    assert "enum" not in schema or value in schema["enum"], where
    if schema["type"] == "array":
        for each in value:
            check_value(each, schema.get("items", {"type": "object"}), f"{where}[]")
    elif schema["type"] == "object" and "properties" in schema:
        assert set(schema.get("required", [])) <= set(value), where
        assert set(value) <= set(schema["properties"]), where
        for name, each in value.items():
            check_value(each, schema["properties"][name], f"{where}.{name}")


def check_reply(reply, path, method):
    """The reply is one that the document describes for this request."""
    described = resolved(OPENAPI["paths"][path][method]["responses"][str(reply.status)])
    for kind, content in described.get("content", {}).items():
        assert reply.headers["content-type"].partition(";")[0] == kind, path
        if kind == "application/json":
            check_value(reply.json(), content["schema"], path)


def address_of(path, section):
    """What a path of the document means; `section` stands for what is in braces."""
    base = OPENAPI["paths"][path].get("servers", OPENAPI["servers"])[0]["url"]
    return re.sub(r"\{\w+\}", section, base.removeprefix("http://127.0.0.1:8080") + path)


def test_the_document_describes_what_is_served(stage, web):
    for path, methods in OPENAPI["paths"].items():
        for method in methods:
            if method == "get":
                for section in ("wifi", "display", "camera") if "{" in path else ("",):
                    check_reply(web.get(address_of(path, section)), path, method)
            elif method in ("post", "put") and path not in ("/restart", "/reboot"):
                check_reply(web.change(method.upper(), address_of(path, "gimbal"), {}), path,
                            method)
    wrong = web.change("PUT", "/api/v1/settings/gimbal", {"app_pan_smooth": -5})
    check_reply(wrong, "/settings/{section}", "put")


def test_the_document_describes_every_request():
    sources = "".join((REPOSITORY / "tools/beacon_web" / name).read_text()
                      for name in ("api.cpp", "console.cpp", "recordings_api.cpp"))
    served = set(re.findall(r'"((?:/api/v1)?/[\w/.-]*\w)/?"', sources)) - {"/api"}
    assert {re.sub(r"/\{.*", "", address_of(path, "{}")) for path in OPENAPI["paths"]} == served
    document = (REPOSITORY / "docs/console.md").read_text()
    told = re.findall(r"\b(GET|PUT|POST) `([a-zA-Z/-]+)`", document)
    api = {path: methods for path, methods in OPENAPI["paths"].items() if "servers" not in methods}
    described = {(method.upper(), path) for path, methods in api.items()
                 for method in methods if method != "parameters"}
    assert {(method, "/" + path.replace("SECTION", "{section}"))
            for method, path in told} == described
    for path in set(OPENAPI["paths"]) - set(api):
        assert re.sub(r"\{(\w+)\}", lambda name: name[1].upper(), path) in document, path
