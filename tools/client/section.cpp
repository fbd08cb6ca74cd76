#include "client/section.h"

#include "client/command_text.h"
#include "client/setting_rows.h"

#include <utility>

constexpr int section_tries = 3;

// An answer does not name its section, and may be a second answer to an earlier question.
static bool belongs_to(const Json &settings, const std::string &section) {
    for (const SettingRow &row : setting_rows()) {
        if (row.section == nullptr || row.section != section) {
            continue;
        }
        for (const SettingField &field : row.fields) {
            if (!settings.contains(field.member)) {
                return false;
            }
        }
    }
    return true;
}

static bool take_section(const PacketView &packet, const std::string &section,
                         SectionAnswer &answer) {
    const auto text = answer_text(packet, "config_answer");
    if (!text) {
        return false;
    }
    auto settings = parse_answer(*text);
    if (!settings) {
        answer.result = SectionResult::unreadable;
        return true;
    }
    settings->erase("cmd");
    if (settings->empty()) {
        const bool is_busy = section == "display";
        answer.result = is_busy ? SectionResult::busy : SectionResult::unknown;
        return !is_busy;
    }
    if (!belongs_to(*settings, section)) {
        return false;
    }
    answer = {SectionResult::settings, std::move(*settings)};
    return true;
}

Request section_request(const std::string &section, double seconds, SectionAnswer &answer) {
    return make_request(command_text({{"cmd", "config_request"}, {"param", section}}), seconds,
                        section_tries, [section, &answer](const PacketView &packet) {
                            return take_section(packet, section, answer);
                        });
}
