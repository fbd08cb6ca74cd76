"""Prepares the demo's board before the daemon starts."""

import json

MODEL = "Raspberry Pi 4 Model B"

_CHANNELS = [{"ch": 1, "min": 1000, "c": 1500, "max": 2000, "f": 2},  # pan
             {"ch": 2, "min": 1000, "c": 1500, "max": 2000, "f": 3}]  # tilt
SETTINGS = {
    "device_name": '"Quillorbeacon demo"',
    "app_type": 9,
    "system_country": "DE",
    "ap_iface": "int",
    "ap_ssid": "Beacon",
    "ap_psk": "good morning",
    "ap_mode": 5,
    "ap_channel": 36,
    "ap_country": "DE",
    "recording_place": 1,
    "rtsp_server_enabled": 1,
    "audio_enabled": 1,
    "rc1_channels": json.dumps(_CHANNELS, separators=(",", ":")),
    "automove_smooth": 1,
    "automove_smooth_speed": 6,
    "automove_list": '"15,10,0,,,,,0,0,;-15,-10,0,,,,,0,0,"',
}
NETWORKS = ("Harbour", "", "Café")  # what a Wi-Fi scan finds; one hides its name


def prepare(board):
    """Writes the settings and the files of the board's hardware and other programs."""
    board.write("/sys/firmware/devicetree/base/model", MODEL)
    board.write("/run/quillorbeacon/config.conf",
                "".join(f"{key}={value}\n" for key, value in SETTINGS.items()))
    board.write("/sys/class/thermal/thermal_zone0/temp", "51000\n")
    board.write("/run/quillorbeacon/ap.active", "")
    board.write("/run/quillorbeacon/wifi0.ip", "192.168.2.1")
    board.prepare_output("iwlist", "".join(f'ESSID:"{name}"\n' for name in NETWORKS))
