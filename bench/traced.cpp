#include "traced.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unistd.h>

constexpr const char *valgrind = "/usr/bin/valgrind";
constexpr const char *count_file = "/tmp/callgrind.out";

bool callgrind_is_installed() {
    return access(valgrind, X_OK) == 0;
}

void become_traced(const char *daemon_path) {
    unlink(count_file);
    execl(valgrind, valgrind, "--tool=callgrind", "--callgrind-out-file=/tmp/callgrind.out",
          "--collect-atstart=no", "--toggle-collect=take_frame(*",
          "--toggle-collect=shared_memory_has_room(*", "--toggle-collect=relay_video(*",
          daemon_path, static_cast<char *>(nullptr));
    _exit(EXIT_FAILURE);
}

// A count file while it is read: callgrind gives each name a number, and afterwards only the
// number.
struct Reading {
    std::map<std::string, std::string> names;
    std::map<std::string, double> costs; // by name
    std::string function;                // that the lines are about
    bool is_call;                        // the next line has the cost of a called function
};

// Reads "(7) relay_video(unsigned char const*, unsigned long)" or, from then on, "(7)".
static std::string read_name(Reading &reading, const char *text) {
    const char *end = strchr(text, ')');
    if (end == nullptr) {
        return text;
    }
    std::string &name = reading.names[std::string(text, end)];
    if (end[1] == ' ') {
        name.assign(end + 2, strcspn(end + 2, "(@\n"));
    }
    return name;
}

static bool begins_with(const char *line, const char *start) {
    return strncmp(line, start, strlen(start)) == 0;
}

static void read_line(Reading &reading, const char *line) {
    if (begins_with(line, "fn=")) {
        reading.function = read_name(reading, line + strlen("fn="));
    } else if (begins_with(line, "cfn=")) {
        read_name(reading, line + strlen("cfn="));
    } else if (begins_with(line, "calls=")) {
        reading.is_call = true;
    } else if (strchr("+-*0123456789", line[0]) != nullptr && strchr(line, ' ') != nullptr) {
        if (!reading.is_call) {
            reading.costs[reading.function] += strtod(strchr(line, ' '), nullptr);
        }
        reading.is_call = false;
    }
}

std::vector<FunctionCost> traced_functions() {
    Reading reading{};
    FILE *file = fopen(count_file, "re");
    if (file == nullptr) {
        return {};
    }
    char line[4096];
    while (fgets(line, sizeof line, file) != nullptr) {
        read_line(reading, line);
    }
    fclose(file);
    std::vector<FunctionCost> functions;
    for (const auto &[name, cost] : reading.costs) {
        functions.push_back({name, cost});
    }
    std::sort(functions.begin(), functions.end(),
              [](const FunctionCost &left, const FunctionCost &right) {
                  return left.instructions > right.instructions;
              });
    return functions;
}
