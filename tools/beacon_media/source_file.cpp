#include "beacon_media/source_file.h"

#include "beacon_media/options.h"
#include "beacon_media/source_line.h"
#include "beacon_media/source_run.h"
#include "source/complain.h"
#include "source/signals.h"

#include <fstream>
#include <sstream>
#include <unistd.h>

static std::string file_text(const char *file) {
    std::ifstream stream(file);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

// False after a message.
static bool parse_line(const char *file, const std::string &line, Options &options) {
    auto words = split_words(line);
    if (!words) {
        complain("%s: a quote is not closed: %s", file, line.c_str());
        return false;
    }
    words->insert(words->begin(), "beacon-source");
    std::vector<char *> argv;
    argv.reserve(words->size() + 1);
    for (std::string &word : *words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    int status = 0;
    return parse_options(static_cast<int>(words->size()), argv.data(), options, status);
}

int run_source_from(const char *file) {
    constexpr int look_ms = 1000;
    const int signals = open_signals();
    std::string wrong;
    do {
        Options options;
        const std::string line = source_line(file_text(file));
        if (line.empty() || line == wrong) {
            continue;
        }
        if (parse_line(file, line, options)) {
            close(signals);
            return run_source(options);
        }
        complain("%s: waiting for another line than: %s", file, line.c_str());
        wrong = line;
    } while (!wait_for_stop(signals, look_ms));
    return 0;
}
