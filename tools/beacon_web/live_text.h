#pragma once

// Makes the texts that go to the page beside the pictures.
// Stands on: beacon_web/board_view, beacon_web/video_track, client/answers, client/clock,
// client/status_json, client/status_words.

#include "beacon_web/board_view.h"
#include "beacon_web/video_track.h"
#include "client/clock.h"

#include <string>

// Each is a JSON object in one line, whose "type" says which one it is.

// "board": what is known of the board, and why there is no picture.
std::string board_text(const BoardView &view, TimePoint now);

// "video": how the pictures that follow are coded.
std::string video_text(const MovieStart &start);

// "console": about the console itself.
std::string console_text(bool has_login);

// "menu": a stick moved the radio control's menu; `event` is the protocol's number.
std::string menu_text(int event);
