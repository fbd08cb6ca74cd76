#pragma once

// Exchanges telemetry, commands and sound with the daemon.
// Stands on: beacon_media/child, source/audio_format, source/clocks, source/complain,
// source/source_command, source/udp_link.

#include "beacon_media/child.h"
#include "source/clocks.h"
#include "source/udp_link.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct Exchange {
    bool has_telemetry = true;     // else port 5000 is left to another program
    std::string telemetry_command; // empty: only lines of our own
    UdpLink data;
    UdpLink video;
    UdpLink audio;
    Child telemetry;
    std::string unfinished;    // line of it
    int64_t telemetry_due = 0; // when to start it
    bool has_complained = false;
    int64_t last_sent = 0; // to the data port
    Beat presence_beat{nanoseconds_per_second};
    std::vector<uint8_t> samples; // less than a datagram of sound
    bool is_shot_wanted = false;  // a client has asked for a photo
};

// What the lines to clients tell.
struct ExchangeCounts {
    uint64_t passed = 0;
    uint64_t dropped = 0;
};

// Opens the sockets. False after a message.
bool open_exchange(Exchange &exchange);

// Opens only what send_sound() needs. False after a message.
bool open_sound(Exchange &exchange);

// Sends what is due: that there is video, where `has_video`; telemetry; and answers to the commands
// that have come.
void run_exchange(Exchange &exchange, int64_t now, bool has_video, const ExchangeCounts &counts);

// Tells clients what has become of the photo: its path, or that it failed.
void answer_shot(Exchange &exchange, const std::string &path, int64_t now);

// Sends sound, in datagrams as source/audio_format.h says.
void send_sound(Exchange &exchange, const uint8_t *data, size_t size);

// Ends the telemetry command.
void close_exchange(Exchange &exchange);

// Takes the whole lines out of `text`, as datagrams of telemetry. Those that would be taken for
// commands get a space in front, those that are too long are cut, and empty ones left out.
std::vector<std::string> take_lines(std::string &text);
