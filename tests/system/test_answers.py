"""Configuration answers: each section byte for byte, and the facts gathered when asked.

test_answer_display.py tests what the display section says about the screen.
"""

import os
from pathlib import Path

import pytest

from conftest import CONFIG

MODEL = "/sys/firmware/devicetree/base/model"
NOTHING = b'{"cmd":"config_answer",}'

# Every key with a value that no other key has; the two flags at least differ.
FULL_CONFIG = "\n".join("""
app_type=201 device_name="Roof-camera" system_country="DE" eth_static_ip_enabled=202
eth_static_ip=192.168.7.9 eth_static_mask=255.255.128.0 ap_iface="int" ap_ssid="Roof-net"
ap_psk="psk-of-the-roof" ap_mode=5 ap_channel=44 ap_country="FR" wifi_iface="ext"
wifi_ssid="House-net" wifi_psk="psk-of-the-house" wifi_static_ip_enabled=203
wifi_static_ip=10.1.2.3 wifi_static_mask=255.252.0.0 camera_iface="usb" camera_ssid="Action-cam"
camera_psk="psk-of-the-camera" internal_camera_enabled=301 internal_camera_params="--width=640"
display_enabled=302 display_hflip=303 display_vflip=304 display_keep_aspect=305 display_smooth=306
enable_second_hdmi=307 osd_enabled=308 osd_borders=309 tft_display_enabled=310
tft_display_model=311 stream_udp_enabled=312 stream_udp_clients=10.0.0.7:5600,10.0.0.8:5601
stream_udp_blocksize=1316 rtsp_server_enabled=313 stream_rtmp_enabled=314
stream_rtmp_url="rtmp://one.example/live" stream_rtmp_key="key-one" stream2_rtmp_enabled=315
stream2_rtmp_url="rtmp://two.example/live" stream2_rtmp_key="key-two" stream_srt_enabled=316
stream_srt_url=srt://three.example:9000?mode=caller recording_enabled=317 recording_place=204
recording_gpio=205 recording_btn_gpio=206 shot_btn_gpio=207 transcoding_enabled=318
transcoding_bitrate=319 resize_enabled=320 resize_width=321 resize_height=322 audio_enabled=323
audio_bitrate=324 audio_dst=325 audio_autogain=326 audio_volume=327 rc_enabled=208 rc1_mode=sbus
rc2_mode=ppm rc1_channels=[{"ch":1}] rc2_channels=[{"ch":2}] gimbal_movement_type=328
rc_pan_smooth=329 rc_tilt_smooth=330 rc_roll_smooth=331 app_pan_smooth=332 app_tilt_smooth=333
app_roll_smooth=334 fs_rw=1 make_preview=0 automove_enabled=335 automove_smooth=336
automove_smooth_speed=337 automove_list="1,2,3;4,5,6" zerotier_enabled=338 zerotier_autojoin=339
zerotier_netid=8056c2e21c000001
""".split())

FULL_ANSWERS = {
    "info": '"board_model":"Board 5 B","app_type":201,"app_version":"0.8.19",'
            '"device_name":"Roof-camera"',
    "ethernet": '"enabled":202,"ip":"192.168.7.9","mask":"255.255.128.0"',
    "wifi": '"sys_country":"DE","ap_iface":"int","ap_ssid":"Roof-net","ap_psk":"psk-of-the-roof",'
            '"ap_mode":5,"ap_channel":44,"ap_country":"FR","ap_ip":"10.0.0.1",'
            '"wifi_iface":"ext","wifi_ssid":"House-net","wifi_psk":"psk-of-the-house",'
            '"wifi_ip":"10.0.0.2","wifi_s_enabled":203,"wifi_s_addr":"10.1.2.3",'
            '"wifi_s_mask":"255.252.0.0","camera_iface":"usb","camera_ssid":"Action-cam",'
            '"camera_psk":"psk-of-the-camera","camera_ip":"10.0.0.3"',
    "camera": '"enabled":301,"camera_params":"--width=640"',
    "display": '"enabled":302,"vflip":304,"hflip":303,"osd":308,"osd_borders":309,"daspect":305,'
               '"dsmooth":306,"dualhdmi":307,"tft_dsp":310,"tft_model":311,"state":262145,'
               '"family":"NTSC","aspect":"4:3","size":"720x480","rate":60,"output":"CVBS",'
               '"scan":"i","cea_modes":[],"dmt_modes":[]',
    "streaming": '"udp_enabled":312,"udp_clients":"10.0.0.7:5600,10.0.0.8:5601",'
                 '"udp_blocksize":1316,"rtsp_enabled":313,"rtmp_enabled":314,'
                 '"rtmp_url":"rtmp://one.example/live","rtmp_key":"key-one","rtmp2_enabled":315,'
                 '"rtmp2_url":"rtmp://two.example/live","rtmp2_key":"key-two","srt_enabled":316,'
                 '"srt_url":"srt://three.example:9000?mode=caller"',
    "recording": '"enabled":317,"place":204,"free0":122,"free1":63,"gpio":205,"gpio2":206,'
                 '"gpio3":207',
    "video": '"transcoding_enabled":318,"transcoding_bitrate":319,"resize_enabled":320,'
             '"resize_width":321,"resize_height":322,"audio_enabled":323,"audio_bitrate":324,'
             '"audio_dst":325,"autogain_enabled":326,"audio_volume":327',
    "rc": '"enabled":208,"rc1_mode":"sbus","rc2_mode":"ppm"',
    "gimbal": '"move_type":328,"rc_pan":329,"rc_tilt":330,"rc_roll":331,"app_pan":332,'
              '"app_tilt":333,"app_roll":334',
    "automovement": '"enabled":335,"smooth":336,"smooth_speed":337,"list":"1,2,3;4,5,6",',
    "zerotier": '"enabled":338,"autojoin":339,"netid":"8056c2e21c000001",'
                '"info":"of info\n","networks":"of listnetworks\n",',
    "system": '"fs_rw":1,"make_preview":0',
}

EMPTY_ANSWERS = {
    "info": '"board_model":"","app_type":0,"app_version":"0.8.19","device_name":""',
    "ethernet": '"enabled":0,"ip":"","mask":""',
    "wifi": '"sys_country":"","ap_iface":"","ap_ssid":"","ap_psk":"","ap_mode":0,"ap_channel":0,'
            '"ap_country":"","ap_ip":"","wifi_iface":"","wifi_ssid":"","wifi_psk":"","wifi_ip":"",'
            '"wifi_s_enabled":0,"wifi_s_addr":"","wifi_s_mask":"","camera_iface":"",'
            '"camera_ssid":"","camera_psk":"","camera_ip":""',
    "camera": '"enabled":0,"camera_params":'
              '"-w 1280 -h 720 -fps 48 --bitrate 2000000 --preview 100,100,320,200"',
    "display": '"enabled":0,"vflip":0,"hflip":0,"osd":0,"osd_borders":0,"daspect":0,"dsmooth":0,'
               '"dualhdmi":0,"tft_dsp":0,"tft_model":0,"output":"CVBS","scan":"i",'
               '"cea_modes":[],"dmt_modes":[]',
    "streaming": '"udp_enabled":0,"udp_clients":"","udp_blocksize":0,"rtsp_enabled":0,'
                 '"rtmp_enabled":0,"rtmp_url":"","rtmp_key":"","rtmp2_enabled":0,"rtmp2_url":"",'
                 '"rtmp2_key":"","srt_enabled":0,"srt_url":""',
    "recording": '"enabled":0,"place":0,"free0":122,"free1":63,"gpio":0,"gpio2":0,"gpio3":0',
    "video": '"transcoding_enabled":0,"transcoding_bitrate":0,"resize_enabled":0,'
             '"resize_width":0,"resize_height":0,"audio_enabled":0,"audio_bitrate":0,'
             '"audio_dst":0,"autogain_enabled":0,"audio_volume":0',
    "rc": '"enabled":0,"rc1_mode":"","rc2_mode":""',
    "gimbal": '"move_type":0,"rc_pan":0,"rc_tilt":0,"rc_roll":0,"app_pan":0,"app_tilt":0,'
              '"app_roll":0',
    "automovement": '"enabled":0,"smooth":0,"smooth_speed":0,"list":"",',
    "zerotier": '"enabled":0,"autojoin":0,"netid":"","info":"","networks":"",',
    "system": '"fs_rw":0,"make_preview":0',
}


def answer_of(members):
    return b'{"cmd":"config_answer",' + members.encode() + b"}"


def ask(client, section, more=b""):
    """The answer to a request for that section."""
    client.send(b'{"cmd":"config_request","param":"' + section.encode() + b'"' + more + b"}")
    kind, _, payload = client.receive(20.0)
    assert kind == 0
    return payload


def install(board, tool, script):
    """Replaces a tool with a script."""
    path = board.path(f"/sys/board/bin/{tool}")
    path.unlink()
    path.write_text("#!/sys/board/sh\n" + script)
    path.chmod(0o755)


def mount_memory(board, folder, size):
    board.run("/usr/bin/mount", "-t", "tmpfs", "-o", f"size={size}", "memory", folder)


def prepare_storage(board):
    """122.994688 decimal megabytes in one place, 63.963136 in the other."""
    mount_memory(board, "/mnt", 30028 * 4096)
    mount_memory(board, "/media", 15616 * 4096)


@pytest.mark.parametrize("section", FULL_ANSWERS)
def test_every_setting_stands_under_its_name(board, start, make_client, section):
    board.write("/run/quillorbeacon/wifi0.ip", "10.0.0.1")
    board.write("/run/quillorbeacon/wlan0.ip", "10.0.0.2")
    board.write("/run/quillorbeacon/.ip", "10.0.0.3")
    prepare_storage(board)
    board.prepare_output("tvservice",
                         "state 0x40001 [NTSC 4:3], 720x480 @ 60.00Hz, interlaced\n")
    install(board, "zerotier-cli", 'echo "of $*"\n')
    # The trigger input is low: it asks for recording, as the settings do, so nothing changes.
    board.write("/run/gpio/205", "0")
    start(FULL_CONFIG, model="Board 5 B\0", gpio=True)
    assert ask(make_client(), section) == answer_of(FULL_ANSWERS[section])


@pytest.mark.parametrize("section", EMPTY_ANSWERS)
def test_without_settings_all_is_zero_or_empty(board, daemon, make_client, section):
    prepare_storage(board)
    assert ask(make_client(), section) == answer_of(EMPTY_ANSWERS[section])


def test_without_a_configuration_file_the_answer_is_the_same(start, make_client):
    start(config=None)
    assert ask(make_client(), "gimbal") == answer_of(EMPTY_ANSWERS["gimbal"])


@pytest.mark.parametrize("name", ["", "Info", "SYSTEM", "rc ", " rc", "wlan", "audio", "r", "rc1"])
def test_an_unknown_section_gets_the_fixed_part(daemon, make_client, name):
    assert ask(make_client(), name) == NOTHING


def test_flags_are_one_or_zero(start, make_client):
    start("fs_rw=0\nmake_preview=5\n")
    assert ask(make_client(), "system") == answer_of('"fs_rw":0,"make_preview":1')


def test_the_value_of_a_request_is_not_used(start, make_client):
    start("make_preview=1\n")
    answer = ask(make_client(), "system", b',"value":"info"')
    assert answer == answer_of('"fs_rw":0,"make_preview":1')


def test_the_smallest_and_largest_numbers(start, make_client):
    start("rc_pan_smooth=-2147483648\nrc_tilt_smooth=2147483647\napp_type=255\n")
    client = make_client()
    assert b'"rc_pan":-2147483648,"rc_tilt":2147483647,' in ask(client, "gimbal")
    assert b'"app_type":255,' in ask(client, "info")


@pytest.mark.parametrize("param", [b"", b',"param":[7]', b',"param":null', b',"value":"system"'])
def test_a_request_without_a_section_gets_no_reply(daemon, make_client, param):
    client = make_client()
    client.send(b'{"cmd":"config_request"' + param + b"}")
    client.ask_info()
    assert client.receive(20.0)[2][0] == 1
    assert "config_content" not in daemon.errors() and "Config request" not in daemon.errors()
    assert daemon.alive()


def test_requests_and_answers_are_logged(start, make_client):
    daemon = start("rc_enabled=1\nrc1_mode=%s%n\n")
    ask(make_client(), "rc")
    starts = ("parse_packet", "UDP server: Config", "config_content")
    assert [line for line in daemon.errors().splitlines() if line.startswith(starts)] == [
        'parse_packet json {"cmd":"config_request","param":"rc"}',
        "UDP server: Config request for rc",
        'config_content: {"cmd":"config_answer","enabled":1,"rc1_mode":"%s%n","rc2_mode":""}']


def test_a_section_name_is_no_format(daemon, make_client):
    assert ask(make_client(), "%s%n") == NOTHING
    daemon.wait_error("UDP server: Config request for %s%n\n")


@pytest.mark.parametrize("model, shown", [
    (b"Board 4 B\0", b"Board 4 B"),
    (b"Board\0 4 B", b"Board"),
    (b"x" * 999, b"x" * 999),
    (b"x" * 1000, b"x" * 1000),
    (bytes(32 + i % 64 for i in range(1500)).replace(b'"', b"'"),
     bytes(32 + i % 64 for i in range(1000)).replace(b'"', b"'")),
    (b'%s%n "B\\" \xc3\xbc\n', b'%s%n "B\\" \xc3\xbc\n'),
    (b"", b""),
])
def test_the_board_model_is_read_when_asked(board, daemon, make_client, model, shown):
    board.write(MODEL, model)
    assert ask(make_client(), "info") == (
        b'{"cmd":"config_answer","board_model":"' + shown +
        b'","app_type":0,"app_version":"0.8.19","device_name":""}')


def test_a_board_model_that_goes_is_empty(board, start, make_client):
    start(model="Board 4 B\0")
    client = make_client()
    assert b'"board_model":"Board 4 B","app_type"' in ask(client, "info")
    board.path(MODEL).unlink()
    assert b'"board_model":"","app_type"' in ask(client, "info")


@pytest.mark.parametrize("member, key, setting, file", [
    ("ap_ip", "ap_iface", "int", "wifi0"), ("ap_ip", "ap_iface", "ext", "wlan0"),
    ("ap_ip", "ap_iface", "", ""), ("ap_ip", "ap_iface", "INT", ""),
    ("ap_ip", "ap_iface", "wlan0", ""), ("ap_ip", "ap_iface", "int2", ""),
    ("wifi_ip", "wifi_iface", "int", "wifi0"), ("wifi_ip", "wifi_iface", "ext", "wlan0"),
    ("wifi_ip", "wifi_iface", "", ""), ("camera_ip", "camera_iface", "int", "wifi0"),
    ("camera_ip", "camera_iface", "ext", "wlan0"), ("camera_ip", "camera_iface", "", ""),
])
def test_addresses_come_from_the_interfaces_file(board, start, make_client, member, key,
                                                 setting, file):
    for name in {"wifi0", "wlan0", ""} - {file}:
        board.write(f"/run/quillorbeacon/{name}.ip", "wrong")
    start(f"ap_iface=none\nwifi_iface=none\ncamera_iface=none\n{key}={setting}\n")
    client = make_client()
    board.write(f"/run/quillorbeacon/{file}.ip", "10.20.30.40")
    assert f'"{member}":"10.20.30.40"'.encode() in ask(client, "wifi")
    board.path(f"/run/quillorbeacon/{file}.ip").unlink()
    assert f'"{member}":""'.encode() in ask(client, "wifi")


@pytest.mark.parametrize("content, shown", [
    (b"192.168.100.200/24x", b"192.168.100.200/24x"),
    (b"192.168.100.200/24xy", b"192.168.100.200/24xy"),
    (b"192.168.100.200/24xyabcde", b"192.168.100.200/24xy"),
    (b"10.0.0.1\n", b"10.0.0.1\n"),
    (b"10.0.0.1\r\n\r\n", b"10.0.0.1\r\n\r\n"),
    (b"10.0\0.0.1", b"10.0"),
    (b'%n"\\', b'%n"\\'),
    (b"", b""),
])
def test_an_address_is_what_the_file_holds(board, start, make_client, content, shown):
    board.write("/run/quillorbeacon/wlan0.ip", content)
    start("ap_iface=ext\n")
    assert b'"ap_ip":"' + shown + b'","wifi_iface":' in ask(make_client(), "wifi")


@pytest.mark.parametrize("size, megabytes", [
    (30028 * 4096, 122),             # 122.994688: truncated
    (1280000000 * 4096, 5242880),    # more bytes than fit in 32 bits
    (244 * 4096, 0),                 # 0.999424
])
def test_free_space_in_decimal_megabytes(board, daemon, make_client, size, megabytes):
    client = make_client()
    for folder, member in [("/mnt", "free0"), ("/media", "free1")]:
        mount_memory(board, folder, size)
        status = os.statvfs(board.path(folder))
        assert status.f_bavail * status.f_frsize == size
        assert f'"{member}":{megabytes},'.encode() in ask(client, "recording")


def test_space_that_is_used_is_not_free(board, daemon, make_client):
    mount_memory(board, "/mnt", 30000 * 4096)
    mount_memory(board, "/media", 30000 * 4096)
    client = make_client()
    assert b'"free0":122,"free1":122,' in ask(client, "recording")
    board.write("/media/clip", bytes(10000 * 4096))
    assert b'"free0":122,"free1":81,' in ask(client, "recording")


def test_a_place_that_is_not_there_has_no_space(board, start, make_client):
    for entry in Path("/").iterdir():
        target = f"/sys/board/chroot/{entry.name}"
        if entry.is_symlink():
            board.path("/sys/board/chroot").mkdir(exist_ok=True)
            board.path(target).symlink_to(os.readlink(entry))
        elif entry.is_dir() and entry.name not in ("mnt", "media"):
            board.path(target).mkdir(parents=True)
            board.run("/usr/bin/mount", "--rbind", f"/{entry.name}", target)
    start(runner=("/usr/sbin/chroot", "/sys/board/chroot"))
    assert b'"free0":0,"free1":0,' in ask(make_client(), "recording")


@pytest.mark.parametrize("members, section, shown", [
    ('"param":"rec","value":"1"', "recording", '"enabled":1,"place":0,'),
    ('"param":"gimbal","value":"1","value2":"2","value3":"3","value4":"4","value5":"5",'
     '"value6":"6","value7":"7"', "gimbal",
     '"move_type":1,"rc_pan":2,"rc_tilt":3,"rc_roll":4,"app_pan":5,"app_tilt":6,"app_roll":7}'),
    ('"param":"streaming","value":"srt","value2":"1","value3":"srt://a:1"', "streaming",
     '"srt_enabled":1,"srt_url":"srt://a:1"}'),
    ('"param":"make_preview","value":"1"', "system", '"fs_rw":0,"make_preview":1}'),
    ('"param":"wlan","value":"ext"', "wifi", '"camera_iface":"ext","camera_ssid":"",'
     '"camera_psk":"","camera_ip":"10.0.0.2"}'),
])
def test_a_changed_setting_shows_at_once(board, daemon, make_client, members, section, shown):
    board.write("/run/quillorbeacon/wlan0.ip", "10.0.0.2")
    client = make_client()
    assert shown.encode() not in ask(client, section)
    client.send(b'{"cmd":"updateconfig",' + members.encode() + b"}")
    assert shown.encode() in ask(client, section)


def test_settings_come_from_memory(board, start, make_client):
    start("rc1_mode=sbus\n")
    board.write(CONFIG, "rc1_mode=ppm\n")
    assert b'"rc1_mode":"sbus"' in ask(make_client(), "rc")


@pytest.mark.parametrize("value", ['a"b', '"a', "a\\nb\\", "%n%s%n%d", "\u00fc\u20ac", "{}[],:"])
def test_texts_are_not_escaped(start, make_client, value):
    start(f"stream_srt_url={value}\nzerotier_netid={value}\n")
    client = make_client()
    assert f'"srt_enabled":0,"srt_url":"{value}"}}'.encode() in ask(client, "streaming")
    assert f'"netid":"{value}","info":'.encode() in ask(client, "zerotier")


def test_the_longest_texts_are_whole(start, make_client):
    names = ["stream_udp_clients", "stream_rtmp_url", "stream_rtmp_key", "stream2_rtmp_url",
             "stream2_rtmp_key", "stream_srt_url"]
    texts = [str(number) * 999 for number in range(1, 7)]
    start("".join(f"{name}={text}9\n" for name, text in zip(names, texts)))
    assert ask(make_client(), "streaming") == answer_of(
        '"udp_enabled":0,"udp_clients":"{}","udp_blocksize":0,"rtsp_enabled":0,"rtmp_enabled":0,'
        '"rtmp_url":"{}","rtmp_key":"{}","rtmp2_enabled":0,"rtmp2_url":"{}","rtmp2_key":"{}",'
        '"srt_enabled":0,"srt_url":"{}"'.format(*texts))


ZEROTIER_HEAD = b'{"cmd":"config_answer","enabled":0,"autojoin":0,"netid":"","info":"'


def test_the_network_tools_lines_are_kept(board, daemon, make_client):
    install(board, "zerotier-cli",
            'echo "$*" >> /sys/board/asked\nprintf "200 \\"$1\\"\\n%%n\\n"\n')
    assert ask(make_client(), "zerotier") == (
        ZEROTIER_HEAD + b'200 "info"\n%n\n","networks":"200 "listnetworks"\n%n\n",}')
    assert board.path("/sys/board/asked").read_text() == "info\nlistnetworks\n"
    commands = [line for line in board.log() if "zerotier" in line]
    assert commands == ["sh -c zerotier-cli info", "sh -c zerotier-cli listnetworks"]


def test_network_output_in_pieces_is_read_whole(board, daemon, make_client):
    install(board, "zerotier-cli", "for i in 1 2 3; do printf piece$i; sleep 0.1; done\n")
    assert ask(make_client(), "zerotier") == (
        ZEROTIER_HEAD + b'piece1piece2piece3","networks":"piece1piece2piece3",}')


def test_a_zero_ends_the_network_tools_text(board, daemon, make_client):
    install(board, "zerotier-cli", "printf 'seen\\000unseen'\n")
    assert ask(make_client(), "zerotier") == ZEROTIER_HEAD + b'seen","networks":"seen",}'


def test_a_missing_network_tool_gives_empty_texts(board, daemon, make_client):
    board.path("/sys/board/bin/zerotier-cli").unlink()
    assert ask(make_client(), "zerotier") == ZEROTIER_HEAD + b'","networks":"",}'


def test_the_longest_answer_has_9999_characters(board, daemon, make_client):
    # The text around the two outputs takes 67 + 14 + 3 characters.
    board.prepare_output("zerotier-cli", "ab" * 2000 + "c" * 957)
    whole = ZEROTIER_HEAD + b'%s","networks":"%s",}' % ((b"ab" * 2000 + b"c" * 957,) * 2)
    client = make_client()
    assert len(whole) <= 9999
    assert ask(client, "zerotier") == whole


@pytest.mark.parametrize("length", [4980, 9000, 9999, 10000, 200000])
def test_a_longer_answer_is_cut(board, daemon, make_client, length):
    text = "".join(chr(97 + i % 26) for i in range(length))
    board.prepare_output("zerotier-cli", text)
    whole = ZEROTIER_HEAD + f'{text}","networks":"{text}",}}'.encode()
    assert len(whole) > 9999
    client = make_client()
    assert ask(client, "zerotier") == whole[:9999]
    assert ask(client, "system") == answer_of(EMPTY_ANSWERS["system"])


def test_a_network_tool_that_never_stops_printing_is_cut(board, daemon, make_client):
    install(board, "zerotier-cli", "exec yes\n")
    answer = ask(make_client(), "zerotier")
    assert answer == (ZEROTIER_HEAD + b"y\n" * 5000)[:9999]
    assert daemon.alive()
