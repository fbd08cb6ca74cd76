#include "client/mount_list.h"

#include "client/status_record.h"

#include <string>

Drive drive_of(const StatusRecord &record, std::string_view mounts) {
    if (mounts.empty() || (record.storage_place != 1 && record.storage_place != 2)) {
        return Drive::unknown;
    }
    const std::string place = record.storage_place == 1 ? " /mnt " : " /media ";
    return mounts.find(place) == std::string_view::npos ? Drive::missing : Drive::mounted;
}
