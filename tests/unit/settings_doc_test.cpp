// docs/settings.md describes every key of the table, in its order, with its kind.
#include "config/config_keys.h"

#include "settings_document.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

static std::string kind_text(const ConfigKey &row) {
    switch (row.kind) {
    case SettingKind::number:
        return "number";
    case SettingKind::byte:
        return "0 to 255";
    case SettingKind::flag:
        return "0 or 1";
    case SettingKind::text:
        break;
    }
    const char *quotes = row.quotes_written ? ", quoted" : row.quotes_removed ? ", unquoted" : "";
    return "text, " + std::to_string(row.text_size - 1) + quotes;
}

TEST(SettingsDocument, HasALineForEveryKeyInTheOrderOfTheFile) {
    const std::vector<std::string> lines = lines_of_the_keys();
    ASSERT_EQ(lines.size(), config_key_count);
    for (size_t i = 0; i < config_key_count; ++i) {
        const std::string head =
            std::string("| `") + config_keys[i].key + "` | " + kind_text(config_keys[i]) + " | ";
        EXPECT_EQ(lines[i].substr(0, head.size()), head);
    }
}
