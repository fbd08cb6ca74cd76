#pragma once

// Puts the status record into words.
// Stands on: client/mount_list, client/status_record.

#include "client/mount_list.h"
#include "client/status_record.h"

#include <string>
#include <utility>
#include <vector>

// A name and what there is to say about it: "Storage" and "internal, 12.3 GB free", and so on. What
// is not known is "-".
using StatusWords = std::vector<std::pair<std::string, std::string>>;
StatusWords status_words(const StatusRecord &record, Drive drive = Drive::unknown);

// The same in one line.
std::string status_line(const StatusRecord &record, Drive drive = Drive::unknown);

// What the board carries, such as "DJI Pocket 2 USB"; "type 99" for a number without a name.
std::string app_type_text(int app_type);

// "950 MB" or "12.3 GB", of 10^6 and 10^9 bytes.
std::string megabytes_text(double megabytes);
