#pragma once

// The network interface a setting means: "wifi0" for "int", "wlan0" for "ext", else the empty text.
const char *map_wlan_iface(const char *setting);
