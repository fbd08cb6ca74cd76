#pragma once

// The movement list: up to twenty stored camera poses.
// Stands on: base/relaxed, base/text.

#include <cstddef>
#include <cstdint>
#include <string>

// The list is parsed from the setting `automove_list`.

constexpr int movement_capacity = 20;

// One pose and the camera settings that go with it. A value outside its range means: do not change.
struct Movement {
    double pan;  // degrees; -1000: not set
    double tilt; // degrees; -1000: not set
    double roll; // degrees; -1000: not set
    double zoom; // digital zoom factor, 1 to 8
    double ev;   // exposure compensation, -3 to 3
    double afx;  // auto-focus point, 0 to 1
    double afy;
    int32_t delay; // seconds to wait
    int32_t shot;  // not 0: take a photo after the delay
    double mf;     // manual focus position, 0 to 100
    int32_t hold;  // not 0: hold the position after moving
};

struct MovementList {
    int count;
    Movement movements[movement_capacity];
};

// Parses a list: movements separated by ";", their fields by ",", in the order of the record. A
// movement with fewer than ten fields is not counted, and the next one overwrites what it left.
// `report` gets one line per movement and is truncated to 9999 characters.
void parse_movements(const char *text, MovementList &list, std::string &report);

// Parses the list into the table that the runner plays, and prints the report on standard error. A
// null text changes nothing. Any thread; until it returns, the runner may see a partly rebuilt
// table. Returns whether the list differs from the one before.
bool set_movement_list(const char *text);

// Read the table. `index` must be 0 to movement_capacity - 1. Any thread.
int movement_count();
Movement movement_at(int index);
