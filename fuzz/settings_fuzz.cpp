// The settings file with any text in it, and single settings with any value: what is saved
// afterwards has the known keys, each once.
#include "base/text.h"
#include "config/config.h"
#include "config/config_keys.h"
#include "config/loader.h"
#include "config/restream_clients.h"
#include "config/writer.h"
#include "input.h"

#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

static void check_texts_end() {
    for (const ConfigKey &row : config_keys) {
        if (row.kind == SettingKind::text) {
            check(strnlen(text_field(config_record(), row), row.text_size) < row.text_size);
        }
    }
}

static void load(const std::string &text) {
    static const int file = memfd_create("settings", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    check(ftruncate(file, 0) == 0 &&
          pwrite(file, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    check(load_config(path.c_str()) == 0);
    check_texts_end();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input{data, size};
    while (input.byte() % 4 != 0) {
        const ConfigKey &row = config_keys[input.byte() % config_key_count];
        const std::string value = input.c_text();
        if (input.byte() % 2 == 0) {
            load_setting(config_record(), row.key, value.c_str());
        } else {
            change_setting(config_record(), row.key, value.c_str());
        }
        check_texts_end();
    }
    // What was set, saved and loaded again, is a file with the same keys.
    load(config_file_text(config_record()));
    load(input.rest());
    check(config_record().restream_clients.count <= restream_capacity);
    return 0;
}
