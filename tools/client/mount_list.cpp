#include "client/mount_list.h"

#include "client/status_record.h"

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

static const char *folder_of(const StatusRecord &record) {
    switch (record.storage_place) {
    case 1:
        return "/mnt";
    case 2:
        return "/media";
    default:
        return nullptr;
    }
}

Drive drive_of(const StatusRecord &record, std::string_view mounts) {
    const char *folder = folder_of(record);
    if (mounts.empty() || folder == nullptr) {
        return Drive::unknown;
    }
    const std::string place = " " + std::string(folder) + " ";
    return mounts.find(place) == std::string_view::npos ? Drive::missing : Drive::mounted;
}

Drive drive_here(const StatusRecord &record, const std::string &mount_info) {
    const char *folder = folder_of(record);
    if (mount_info.empty() || folder == nullptr) {
        return Drive::unknown;
    }
    std::string system; // the device that it is on
    std::vector<std::string> devices;
    std::istringstream lines(mount_info);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number;
        std::string parent;
        std::string device;
        std::string root;
        std::string place;
        words >> number >> parent >> device >> root >> place;
        if (place == "/") {
            system = device;
        } else if (place == folder) {
            devices.push_back(device);
        }
    }
    const bool is_mounted = std::ranges::any_of(
        devices, [&system](const std::string &device) { return device != system; });
    return is_mounted ? Drive::mounted : Drive::missing;
}
