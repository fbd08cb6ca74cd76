#pragma once

// Maps a Wi-Fi setting to the name of the network interface.
// Stands on: nothing else of ours.

// Returns "wifi0" for "int", "wlan0" for "ext" and the empty text for anything else.
const char *map_wlan_iface(const char *setting);
