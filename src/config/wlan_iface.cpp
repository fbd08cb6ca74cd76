#include "config/wlan_iface.h"

#include <cstring>

const char *map_wlan_iface(const char *setting) {
    if (strcmp(setting, "int") == 0) {
        return "wifi0";
    }
    return strcmp(setting, "ext") == 0 ? "wlan0" : "";
}
