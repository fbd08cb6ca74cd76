// Texts of other programs: movement lists, the display tool's output, files with a number.
#include "automove/movement_list.h"
#include "automove/movement_steps.h"
#include "base/file_text.h"
#include "base/text.h"
#include "config/display_modes.h"
#include "input.h"

#include <cstdio>
#include <cstring>

constexpr const char *status_file = "/run/quillorbeacon/recorder.info";
constexpr size_t read_size = 100;

static void read_status_file(const std::string &bytes) {
    FILE *file = fopen(status_file, "wb");
    check(file != nullptr && fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
    fclose(file);
    const std::string text = file_text(status_file, read_size);
    check(text == bytes.substr(0, strnlen(bytes.c_str(), read_size)));
    parse_number(text.c_str());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input{data, size};
    const uint32_t subject = input.byte() % 4;
    const std::string text = input.rest();
    if (subject == 0) {
        MovementList list{};
        std::string report;
        parse_movements(text.c_str(), list, report);
        check(list.count >= 0 && list.count <= movement_capacity && report.size() < 10000);
        for (int i = 0; i < list.count; ++i) {
            direct_movement_steps(list.movements[i]);
            smooth_movement_pass(list.movements[i], {1, 2, 3}, static_cast<int>(text.size()));
            movement_distance(list.movements[i], {1, 2, 3});
        }
    } else if (subject == 1) {
        parse_current_mode(text);
    } else if (subject == 2) {
        const std::string list = parse_mode_list(text);
        check(list.size() >= 2 && list.front() == '[' && list.back() == ']');
    } else {
        parse_hexadecimal(text.c_str());
        read_status_file(text);
    }
    return 0;
}
