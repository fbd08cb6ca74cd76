#pragma once

// Puts the status record into JSON.
// Stands on: client/answers, client/status_record.

#include <string>

struct StatusRecord;

// A JSON object in one line, with the record's values as they are.
std::string status_json(const StatusRecord &record);
