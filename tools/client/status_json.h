#pragma once

#include <string>

struct StatusRecord;

// The status record for scripts: a JSON object in one line, with the record's values as they are.
std::string status_json(const StatusRecord &record);
