#pragma once

// Tells whether a drive is mounted at the storage place that the status record names.
// Stands on: client/status_record.

#include <string>
#include <string_view>

struct StatusRecord;

// While no drive is mounted there, the record's free space is that of the board's system. The
// record does not say so, but the board's list of mounts does, which a client can fetch like a
// file.
enum class Drive {
    unknown, // nobody asked, or there is no answer
    mounted,
    missing,
};

constexpr const char *mount_list_path = "/proc/mounts"; // on the board; fits into one piece

// `mounts`: what is in that file.
Drive drive_of(const StatusRecord &record, std::string_view mounts);

constexpr const char *own_mount_info_path = "/proc/self/mountinfo";

// The same for a program on the board. `mount_info`: what is in that file. A service may have a
// folder of the system mounted over itself, which is no drive.
Drive drive_here(const StatusRecord &record, const std::string &mount_info);
