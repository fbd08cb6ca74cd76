#pragma once

// Finds names for films and pictures on the board's storage.
// Stands on: beacon_media/film_plan.

#include <string>

// The path of a new film or picture below `place`, named after the time now, without its ending;
// its folder is made. There is neither a film nor a picture of that name. Empty: `reason` says why.
std::string new_recording_path(const std::string &place, std::string &reason);
