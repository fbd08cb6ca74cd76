#include "automove/movement_list.h"

#include "base/relaxed.h"
#include "base/text.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

constexpr size_t report_limit = 9999;
constexpr int field_count = 11;
constexpr int required_fields = 10;
constexpr double angle_not_set = -1000.0;
constexpr double value_not_set = -1.0;

// How to read one field of a movement.
struct MovementField {
    double Movement::*real;     // null for an integer field
    int32_t Movement::*integer; // null for a real field
    double when_empty;
};

// In the order in which they appear in the text.
constexpr MovementField fields[field_count] = {
    {&Movement::pan, nullptr, angle_not_set},  {&Movement::tilt, nullptr, angle_not_set},
    {&Movement::roll, nullptr, angle_not_set}, {&Movement::zoom, nullptr, value_not_set},
    {&Movement::ev, nullptr, angle_not_set},   {&Movement::afx, nullptr, value_not_set},
    {&Movement::afy, nullptr, value_not_set},  {nullptr, &Movement::delay, 0.0},
    {nullptr, &Movement::shot, 0.0},           {&Movement::mf, nullptr, value_not_set},
    {nullptr, &Movement::hold, 0.0},
};

// The table that the runner plays: rebuilt by the thread that sets the list, read by the others.
// The count publishes the values: it is stored after them and loaded before them.
static struct {
    std::atomic<int32_t> count;
    Relaxed<double> values[movement_capacity][field_count];
} table;

static void read_field(const MovementField &field, const char *token, Movement &movement) {
    if (field.real != nullptr) {
        movement.*field.real = token[0] == '\0' ? field.when_empty : strtod(token, nullptr);
    } else {
        movement.*field.integer = parse_number(token);
    }
}

// Parses one movement; false when fields are missing.
static bool read_movement(char *piece, Movement &movement) {
    for (int i = 0; i < field_count; ++i) {
        const char *token = strsep(&piece, ",");
        if (token == nullptr) {
            return i >= required_fields;
        }
        read_field(fields[i], token, movement);
    }
    return true;
}

static void append_report(std::string &report, int number, const Movement &movement) {
    char line[4000]; // each double prints up to 310 digits
    snprintf(line, sizeof line,
             "\tnumber %d pan %1.1f tilt %1.1f roll %1.1f zoom %1.1f ev %1.1f afx %f afy %f "
             "mf %1.0f delay %d shot %d hold %d\n",
             number, movement.pan, movement.tilt, movement.roll, movement.zoom, movement.ev,
             movement.afx, movement.afy, movement.mf, movement.delay, movement.shot, movement.hold);
    report += line;
    report.resize(std::min(report.size(), report_limit));
}

void parse_movements(const char *text, MovementList &list, std::string &report) {
    list = MovementList{};
    report.clear();
    std::string copy = text;
    char *rest = copy.data();
    while (list.count < movement_capacity) {
        char *piece = strsep(&rest, ";");
        if (piece == nullptr) {
            break;
        }
        Movement &movement = list.movements[list.count];
        if (read_movement(piece, movement)) {
            append_report(report, list.count, movement);
            ++list.count;
        }
    }
}

static double value_of(const Movement &movement, int index) {
    const MovementField &field = fields[index];
    return field.real != nullptr ? movement.*field.real : movement.*field.integer;
}

static bool is_in_table(const MovementList &list) {
    bool is_same = list.count == movement_count();
    for (int i = 0; is_same && i < list.count; ++i) {
        for (int field = 0; field < field_count; ++field) {
            is_same = is_same && table.values[i][field] == value_of(list.movements[i], field);
        }
    }
    return is_same;
}

static void store_movement(int index, const Movement &movement) {
    for (int i = 0; i < field_count; ++i) {
        table.values[index][i] = value_of(movement, i);
    }
}

bool set_movement_list(const char *text) {
    fprintf(stderr, "Auto movement set list %s\n", text != nullptr ? text : "(null)");
    if (text == nullptr) {
        return false;
    }
    MovementList list;
    std::string report;
    parse_movements(text, list, report);
    const bool is_new = !is_in_table(list);
    // Empty while it is rebuilt, so that nobody starts to play half a list.
    table.count.store(0, std::memory_order_relaxed);
    for (int i = 0; i < movement_capacity; ++i) {
        store_movement(i, list.movements[i]);
    }
    table.count.store(list.count, std::memory_order_release);
    fprintf(stderr, "Added %d movements:\n%s\n", list.count, report.c_str());
    return is_new;
}

int movement_count() {
    return table.count.load(std::memory_order_acquire);
}

Movement movement_at(int index) {
    Movement movement{};
    for (int i = 0; i < field_count; ++i) {
        const double value = table.values[index][i];
        if (fields[i].real != nullptr) {
            movement.*fields[i].real = value;
        } else {
            movement.*fields[i].integer = static_cast<int32_t>(value);
        }
    }
    return movement;
}
