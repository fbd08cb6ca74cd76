// Commands of clients: complete commands whose members are mutated. Whatever a member says, no
// shell command gets more words or another command in it, and the settings file gets no line that
// is not one of its keys. Nothing is run: the linker puts the functions below in the place of those
// that run commands, save, sleep and end the process.
#include "base/process_end.h"
#include "config/config.h"
#include "config/config_keys.h"
#include "config/writer.h"
#include "input.h"
#include "net/dispatcher.h"

#include <csetjmp>
#include <cstring>
#include <vector>

static std::jmp_buf process_end;
static std::string printed; // by every command

struct Template {
    const char *start; // of the command
    size_t words;      // it has at most so many
};

// Those with a value in them.
constexpr Template templates[] = {
    {"ifconfig eth0 ", 6},      {"ifconfig ", 3},     {"iwlist ", 3}, {"sed -i ", 4},
    {"tvservice -c ", 3},       {"tvservice -e ", 3}, {"kill -", 3},  {"pidof ", 2},
    {"./otg-switcher.php ", 2}, {"zerotier-cli ", 3},
};

// Takes the operators off that end a command's fixed text.
static void drop_fixed(std::string &command) {
    for (const char *fixed :
         {" &", " > /dev/null 2>&1", " 2>/dev/null", " ; mount /boot", " > /dev/null 2>&1"}) {
        const size_t length = strlen(fixed);
        if (command.size() >= length &&
            command.compare(command.size() - length, length, fixed) == 0) {
            command.resize(command.size() - length);
        }
    }
}

// How many words the shell reads in the command. A quote that stays open makes the shell refuse it:
// then 0.
static size_t word_count(const std::string &command) {
    size_t words = 0;
    char quote = 0;
    bool is_in_word = false;
    for (size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        if (quote == '\'') {
            quote = c == '\'' ? '\0' : quote;
            continue;
        }
        if (c == '\\') {
            ++i;
        } else if (quote == '"') {
            check(c != '$' && c != '`');
            quote = c == '"' ? '\0' : quote;
            continue;
        } else if (c == '\'' || c == '"') {
            quote = c;
        } else if (c == ' ' || c == '\t') {
            is_in_word = false;
            continue;
        } else {
            check(strchr(";&|<>()$`\n*?[", c) == nullptr);
        }
        words += is_in_word ? 0 : 1;
        is_in_word = true;
    }
    return quote != 0 ? 0 : words;
}

static void check_command(std::string command) {
    if (command == "cd ../cams ; ./kill-cams.sh ; cd ..") {
        return;
    }
    drop_fixed(command);
    for (const Template &known : templates) {
        if (command.starts_with(known.start)) {
            check(word_count(command) <= known.words);
            return;
        }
    }
    word_count(command);
}

// In the place of base/shell's, base/pause's, base/process_end's and config/writer's functions.

void run(const char *command, uint32_t limit) __asm__("__wrap__Z9run_shellPKcj");
void run(const char *command, uint32_t /*limit*/) {
    check_command(command);
}

std::string output(const char *command, size_t limit,
                   uint32_t time) __asm__("__wrap__Z12shell_outputB5cxx11PKcmj");
std::string output(const char *command, size_t limit, uint32_t /*time*/) {
    check_command(command);
    return printed.substr(0, std::min(limit, strlen(printed.c_str())));
}

std::string output_bytes(const char *command, size_t limit,
                         uint32_t time) __asm__("__wrap__Z18shell_output_bytesB5cxx11PKcmj");
std::string output_bytes(const char *command, size_t limit, uint32_t /*time*/) {
    check_command(command);
    return printed.substr(0, limit);
}

void rest(uint32_t microseconds) __asm__("__wrap__Z8sleep_usj");
void rest(uint32_t /*microseconds*/) {}

[[noreturn]] void end(int status) __asm__("__wrap__Z11end_processi");
void end(int /*status*/) {
    longjmp(process_end, 1);
}

[[noreturn]] void
end_abnormally(const char *reason) __asm__("__wrap__Z22end_process_abnormallyPKc");
void end_abnormally(const char * /*reason*/) {
    longjmp(process_end, 1);
}

// Every line is a comment or the next key's.
void save() __asm__("__wrap__Z11save_configv");
void save() {
    const std::string text = config_file_text(config_record());
    size_t key = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end_of_line = text.find("\r\n", at);
        check(end_of_line != std::string::npos);
        const std::string line = text.substr(at, end_of_line - at);
        at = end_of_line + 2;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        check(line.find('\n') == std::string::npos && key < config_key_count);
        check(line.starts_with(std::string(config_keys[key].key) + "="));
        ++key;
    }
    check(key == config_key_count);
}

// Commands as clients send them; the members that follow are the input's.
constexpr const char *skeletons[] = {
    R"("cmd":"updateconfig","param":"ethernet")",
    R"("cmd":"updateconfig","param":"wlan")",
    R"("cmd":"updateconfig","param":"streaming","value":"udp")",
    R"("cmd":"updateconfig","param":"streaming","value":"rtmp")",
    R"("cmd":"updateconfig","param":"streaming","value":"rtsp")",
    R"("cmd":"updateconfig","param":"streaming","value":"srt")",
    R"("cmd":"updateconfig","param":"recording")",
    R"("cmd":"updateconfig","param":"rec")",
    R"("cmd":"updateconfig","param":"transcoding")",
    R"("cmd":"updateconfig","param":"audio")",
    R"("cmd":"updateconfig","param":"display","value":"enabled")",
    R"("cmd":"updateconfig","param":"display","value":"hflip")",
    R"("cmd":"updateconfig","param":"display","value":"aspect_ratio")",
    R"("cmd":"updateconfig","param":"display","value":"dualhdmi")",
    R"("cmd":"updateconfig","param":"tft_display","value":"enabled")",
    R"("cmd":"updateconfig","param":"tft_display","value":"model")",
    R"("cmd":"updateconfig","param":"osd","value":"enabled")",
    R"("cmd":"updateconfig","param":"cvbs","value":"test")",
    R"("cmd":"updateconfig","param":"cvbs","value":"testandsave")",
    R"("cmd":"updateconfig","param":"hdmi","value":"test")",
    R"("cmd":"updateconfig","param":"hdmi","value":"testandsave")",
    R"("cmd":"updateconfig","param":"app_type")",
    R"("cmd":"updateconfig","param":"internal_camera")",
    R"("cmd":"updateconfig","param":"rc")",
    R"("cmd":"updateconfig","param":"gimbal")",
    R"("cmd":"updateconfig","param":"fs_rw")",
    R"("cmd":"updateconfig","param":"make_preview")",
    R"("cmd":"updateconfig","param":"automovement","value":"params")",
    R"("cmd":"updateconfig","param":"automovement","value":"move")",
    R"("cmd":"updateconfig","param":"automovement","value":"movenext")",
    R"("cmd":"updateconfig","param":"automovement","value":"setstate")",
    R"("cmd":"updateconfig","param":"zerotier","value":"params")",
    R"("cmd":"updateconfig","param":"zerotier","value":"join")",
    R"("cmd":"updateconfig","param":"zerotier","value":"leave")",
    R"("cmd":"updateconfig","param":"zerotier","value":"clear")",
    R"("cmd":"updateconfig")",
    R"("cmd":"config_request")",
    R"("cmd":"wlan","param":"scan")",
    R"("cmd":"rc","param":"set-config")",
    R"("cmd":"rc","param":"get-channels")",
    R"("cmd":"rc")",
    R"("cmd":"reboot")",
};

// A text as JSON. Bytes above 127 go as they are, in any encoding.
static std::string json_string(const std::string &text) {
    std::string json = "\"";
    for (const char c : text) {
        char escaped[8];
        if (c == '"' || c == '\\' || (c > 0 && c < ' ')) {
            snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            json += escaped;
        } else if (c != 0) {
            json += c;
        }
    }
    return json + '"';
}

static std::string json_value(Input &input) {
    switch (input.byte() % 8) {
    case 0:
        return std::to_string(static_cast<int32_t>(input.number()));
    case 1:
        return "true";
    case 2:
        return "null";
    case 3:
        return "[" + json_string(input.text()) + "]";
    default:
        return json_string(input.text());
    }
}

static std::string command_of(Input &input) {
    std::string text = std::string("{") + skeletons[input.byte() % std::size(skeletons)];
    const uint32_t members = input.byte() % 6;
    for (uint32_t i = 0; i < members; ++i) {
        const uint32_t name = input.byte() % 18;
        std::string key = name == 17 ? "param" : "value";
        key += name > 1 && name < 17 ? std::to_string(name) : "";
        text += ",\"" + key + "\":" + json_value(input);
    }
    return text + "}";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input{data, size};
    static std::vector<uint8_t> payload;
    static std::string text;
    printed = input.text();
    if (input.byte() % 8 == 0) {
        text = input.rest(); // any payload
    } else {
        text = command_of(input);
    }
    payload.assign(text.begin(), text.end());
    payload.resize(text.size() + 16); // zeros follow
    if (text.empty() || text.size() > 29988) {
        return 0;
    }
    if (setjmp(process_end) == 0) {
        dispatch_client_packet(payload.data(), static_cast<uint16_t>(text.size()), "127.0.0.2",
                               4000);
    }
    save();
    return 0;
}
