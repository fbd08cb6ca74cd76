"""The expected configuration file, written out; "~" at the end of a line stands for a blank."""

LAYOUT = r'''# Quillorbeacon NG config file

# Application type
# 0 - DJI Osmo/Osmo+/Osmo Pro/Osmo RAW wireless~
# 1 - DJI Osmo Pro/RAW with Wired video adapter~
# 2 - DJI Zenmuse~
# 3 - DJI Osmo Pocket USB~
# 4 - DJI Osmo Pocket Wireless~
# 5 - DJI Osmo Action Wireless~
# 6 - GoPro Wireless~
# 7 - Xiaomi Yi Wireless~
# 8 - Phantom4, Mavic, etc~
# 9 - Twinmoor / Raspberry Pi~
# 10 - Insta360 EVO Wireless connection~
# 11 - Oculus Go/Quest~
# 12 - OBSBOT Tail~
# 13 - RTSP/ONVIF camera~
# 14 - DJI Pocket 2 USB~
# 15 - DJI Pocket 2 Wireless~
app_type={app_type}

# User-friendly device name
device_name="{device_name}"

# Mount file system in read-write mode at start
fs_rw={fs_rw}

# Make preview images
make_preview={make_preview}

# Static IP for Ethernet enable/disable
# 1 - enabled
# 0 - disabled
eth_static_ip_enabled={eth_static_ip_enabled}

# Static IP address for Ethernet (example: 192.168.1.100)
eth_static_ip={eth_static_ip}

# Static IP mask for Ethernet (example: 255.255.255.0)
eth_static_mask={eth_static_mask}

# Wi-Fi system country code
system_country={system_country}

# Wi-Fi access point interface
# disabled if empty, int - Internal Wi-Fi, ext - External USB Wi-Fi~
ap_iface={ap_iface}

# Wi-Fi access point SSID
ap_ssid="{ap_ssid}"

# Wi-Fi access point password
ap_psk="{ap_psk}"

# Wi-Fi access point mode
# 2 - 2.4GHz, 5 - 5GHz
ap_mode={ap_mode}

# Wi-Fi access point channel
ap_channel={ap_channel}

# Wi-Fi access point country
ap_country={ap_country}

# Wi-Fi network interface
# disabled if empty, int - Internal Wi-Fi, ext - External USB Wi-Fi~
wifi_iface={wifi_iface}

# Wi-Fi network SSID
wifi_ssid="{wifi_ssid}"

# Wi-Fi network password
wifi_psk="{wifi_psk}"

# Static IP for Wi-Fi network enable/disable
# 1 - enabled
# 0 - disabled
wifi_static_ip_enabled={wifi_static_ip_enabled}

# Static IP address for Wi-Fi network (example: 192.168.1.100)
wifi_static_ip={wifi_static_ip}

# Static IP mask for Wi-Fi network (example: 255.255.255.0)
wifi_static_mask={wifi_static_mask}

# Wi-Fi camera interface
# disabled if empty, int - Internal Wi-Fi, ext - External USB Wi-Fi~
camera_iface={camera_iface}

# Wi-Fi camera SSID
camera_ssid="{camera_ssid}"

# Wi-Fi camera password
camera_psk="{camera_psk}"

# Internal camera enable/disable
internal_camera_enabled={internal_camera_enabled}

# Internal camera params
internal_camera_params="{internal_camera_params}"

# Display enabled/disabled
display_enabled={display_enabled}

# Second HDMI enabled/disabled (RPI4 only)
enable_second_hdmi={enable_second_hdmi}

# Display horizontal flip
display_hflip={display_hflip}

# Display vertical flip
display_vflip={display_vflip}

# Display keep aspect ratio
display_keep_aspect={display_keep_aspect}

# Display try to show smooth
display_smooth={display_smooth}

# OSD enabled/disabled
osd_enabled={osd_enabled}

# OSD borders
osd_borders={osd_borders}

# TFT display enabled/disabled
tft_display_enabled={tft_display_enabled}

# TFT display model
# 0 - don't use
# 1 - Waveshare 2 inch
# 2 - Waveshare 3.5 inch A
# 3 - Waveshare 3.5 inch B
tft_display_model={tft_display_model}

# UDP restreaming enabled/disabled
stream_udp_enabled={stream_udp_enabled}

# UDP restreaming clients list
stream_udp_clients={stream_udp_clients}

# UDP restreaming block size
stream_udp_blocksize={stream_udp_blocksize}

# RTSP server enabled/disabled
rtsp_server_enabled={rtsp_server_enabled}

# RTMP stream 1 enabled/disabled
stream_rtmp_enabled={stream_rtmp_enabled}

# RTMP stream 1 URL
stream_rtmp_url="{stream_rtmp_url}"

# RTMP stream 1 key
stream_rtmp_key="{stream_rtmp_key}"

# RTMP stream 2 enabled/disabled
stream2_rtmp_enabled={stream2_rtmp_enabled}

# RTMP stream 2 URL
stream2_rtmp_url="{stream2_rtmp_url}"

# RTMP stream 2 key
stream2_rtmp_key="{stream2_rtmp_key}"

# SRT restreaming enabled/disabled
stream_srt_enabled={stream_srt_enabled}

# SRT url
stream_srt_url={stream_srt_url}

# Onboard recording enabled/disabled
recording_enabled={recording_enabled}

# Onboard recording storage place
# 0 - auto
# 1 - internal (microSD)
# 2 - external (USB flash drive)
recording_place={recording_place}

# Onboard recording GPIO number for trigger start/stop (recording is active while GPIO is high)
recording_gpio={recording_gpio}

# Onboard recording GPIO number for button start/stop (recording starts/stop when GPIO is high)
recording_btn_gpio={recording_btn_gpio}

# GPIO number for make a shot
shot_btn_gpio={shot_btn_gpio}

# Transcoding enabled/disabled
transcoding_enabled={transcoding_enabled}

# Transcoding bitrate
transcoding_bitrate={transcoding_bitrate}

# Resize enabled/disabled
resize_enabled={resize_enabled}

# Resize width
resize_width={resize_width}

# Resize height
resize_height={resize_height}

# Audio enabled/disabled
audio_enabled={audio_enabled}

# Audio bitrate
audio_bitrate={audio_bitrate}

# Audio destination
# 0 - Disabled
# 1 - HDMI
# 2 - TV-out
audio_dst={audio_dst}

# Audio auto gain
# 0 - disabled
# 1 - enabled
audio_autogain={audio_autogain}

# Audio capture volume
audio_volume={audio_volume}

# RC enabled
rc_enabled={rc_enabled}

# RC1 mode
rc1_mode={rc1_mode}

# RC2 mode
rc2_mode={rc2_mode}

# RC1 channels
rc1_channels={rc1_channels}

# RC2 channels
rc2_channels={rc2_channels}

# Gimbal movement type
# 0 - relative movement (set gimbal speed)
# 1 - absolute movement (set gimbal position)
gimbal_movement_type={gimbal_movement_type}


### Gimbal smooth control ###

# RC smooth pan value
rc_pan_smooth={rc_pan_smooth}

# RC smooth tilt value
rc_tilt_smooth={rc_tilt_smooth}

# RC smooth roll value
rc_roll_smooth={rc_roll_smooth}

# App smooth pan value
app_pan_smooth={app_pan_smooth}

# App smooth tilt value
app_tilt_smooth={app_tilt_smooth}

# App smooth roll value
app_roll_smooth={app_roll_smooth}


### Auto Movement control ###

# Auto Movement enabled
automove_enabled={automove_enabled}

# Auto Movement Smooth Mode enabled
automove_smooth={automove_smooth}

# Auto Movement Smooth Mode speed
automove_smooth_speed={automove_smooth_speed}

# Auto Movement list
automove_list="{automove_list}"


### ZeroTier ###

# Enable Zerotier network
zerotier_enabled={zerotier_enabled}

# Auto join on start-up enabled
zerotier_autojoin={zerotier_autojoin}

# Network ID
zerotier_netid={zerotier_netid}

'''

# Texts that are empty with an empty configuration.
TEXTS = """device_name eth_static_ip eth_static_mask system_country ap_iface ap_ssid ap_psk
    ap_country wifi_iface wifi_ssid wifi_psk wifi_static_ip wifi_static_mask camera_iface
    camera_ssid camera_psk stream_udp_clients stream_rtmp_url stream_rtmp_key stream2_rtmp_url
    stream2_rtmp_key stream_srt_url rc1_mode rc2_mode rc1_channels rc2_channels automove_list
    zerotier_netid""".split()


class _Values(dict):
    def __missing__(self, key):
        return "0"


def file_text(**settings):
    """The file's bytes with these settings, all others as with an empty configuration."""
    camera = "-w 1280 -h 720 -fps 48 --bitrate 2000000 --preview 100,100,320,200"
    values = _Values({**dict.fromkeys(TEXTS, ""), "internal_camera_params": camera, **settings})
    text = LAYOUT.replace("~\n", " \n").replace("\n", "\r\n")
    return text.format_map(values).encode(errors="surrogateescape")


# A value for every key, all different.
ALL = {
    "app_type": "200", "device_name": "Tower cam %d", "fs_rw": "1", "make_preview": "1",
    "eth_static_ip_enabled": "201", "eth_static_ip": "10.1.2.3", "eth_static_mask": "255.240.0.0",
    "system_country": "DE", "ap_iface": "int", "ap_ssid": "Nest # 1", "ap_psk": "p%s=:w",
    "ap_mode": "5", "ap_channel": "149", "ap_country": "FR", "wifi_iface": "ext",
    "wifi_ssid": "Caf\u00e9 \u2615", "wifi_psk": "two words", "wifi_static_ip_enabled": "202",
    "wifi_static_ip": "10.1.2.4", "wifi_static_mask": "255.248.0.0", "camera_iface": "wl9",
    "camera_ssid": "CAM-1", "camera_psk": "C'am", "internal_camera_enabled": "11",
    "internal_camera_params": "-w 640 -h 480", "display_enabled": "12",
    "enable_second_hdmi": "13", "display_hflip": "14", "display_vflip": "15",
    "display_keep_aspect": "16", "display_smooth": "17", "osd_enabled": "18", "osd_borders": "19",
    "tft_display_enabled": "20", "tft_display_model": "21", "stream_udp_enabled": "22",
    "stream_udp_clients": "10.0.0.9:5600,10.0.0.8:5601", "stream_udp_blocksize": "1316",
    "rtsp_server_enabled": "23", "stream_rtmp_enabled": "24",
    "stream_rtmp_url": "rtmp://a.example/live?x=1&y=2", "stream_rtmp_key": "k1-" + "a" * 900,
    "stream2_rtmp_enabled": "25", "stream2_rtmp_url": "rtmp://b.example/live",
    "stream2_rtmp_key": "k2-" + "b" * 900, "stream_srt_enabled": "26",
    "stream_srt_url": 'srt://"c".example:7001', "recording_enabled": "27",
    "recording_place": "203", "recording_gpio": "204", "recording_btn_gpio": "205",
    "shot_btn_gpio": "255", "transcoding_enabled": "28", "transcoding_bitrate": "2147483647",
    "resize_enabled": "29", "resize_width": "1024", "resize_height": "-2147483648",
    "audio_enabled": "30", "audio_bitrate": "128000", "audio_dst": "-31", "audio_autogain": "32",
    "audio_volume": "33", "rc_enabled": "206", "rc1_mode": "sbus", "rc2_mode": '"crsf"',
    "rc1_channels": '{"a":[' + "1," * 1500 + "1]}", "rc2_channels": "[" + "2," * 4900 + "2]",
    "gimbal_movement_type": "34", "rc_pan_smooth": "35", "rc_tilt_smooth": "36",
    "rc_roll_smooth": "37", "app_pan_smooth": "38", "app_tilt_smooth": "39",
    "app_roll_smooth": "40", "automove_enabled": "41", "automove_smooth": "42",
    "automove_smooth_speed": "43", "automove_list": "wait,50", "zerotier_enabled": "44",
    "zerotier_autojoin": "45", "zerotier_netid": "8056c2e21c000001",
}
