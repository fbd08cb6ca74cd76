#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"
#include "beaconctl/screen.h"
#include "beaconctl/setting_names.h"
#include "beaconctl/text_file.h"
#include "beaconctl/text_table.h"
#include "client/settings_file.h"

#include <cstring>

int check_file(const std::string &name) {
    std::string text;
    if (const int error = read_text_file(name, text); error != 0) {
        return fail(name + ": " + strerror(error));
    }
    std::vector<std::string> lines;
    for (const FileRemark &remark : check_settings_file(text)) {
        const std::string place = remark.line == 0 ? "" : ":" + std::to_string(remark.line);
        lines.push_back(name + place + ": " + printable(remark.text, false) +
                        (remark.unknown_key.empty() ? "" : key_hint(remark.unknown_key)));
    }
    print_lines(lines.empty() ? std::vector<std::string>{name + ": read as it stands"} : lines);
    return lines.empty() ? exit_ok : exit_failed;
}
