#pragma once

// An RTSP server whose viewers all get the same stream, as it comes.
// Stands on: source/audio_format.

#include <cstdint>
#include <span>
#include <string>

// Knows the engine, which it must be started before; the engine's threads serve the viewers. All
// calls come from one thread.
struct RtspServer;

// Serves rtsp://BOARD:8554/live. Null: `reason` says why.
RtspServer *start_rtsp_server(std::string &reason);

// Viewers that come from now on also get sound, or not.
void offer_sound(RtspServer &server, bool with_sound);

// Hands a picture, with its parameter sets where it is a key frame, or sound, to all viewers.
void serve_picture(RtspServer &server, std::span<const uint8_t> picture, bool is_key);
void serve_sound(RtspServer &server, std::span<const uint8_t> samples);

// How many are connected.
unsigned rtsp_viewers(RtspServer &server);
