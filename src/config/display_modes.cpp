#include "config/display_modes.h"

#include "base/text.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

// Splits at every separator and keeps empty pieces.
static std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> pieces;
    size_t begin = 0;
    for (size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = text.find(separator, begin);
        pieces.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
    }
    return pieces;
}

static std::string without(std::string text, const std::string &part) {
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part)) {
        text.erase(at, part.size());
    }
    return text;
}

static bool contains(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

static std::string string_member(const char *name, const std::string &value) {
    return "\"" + std::string(name) + "\":\"" + value + "\",";
}

static std::string state_member(const std::string &token) {
    return "\"state\":" + std::to_string(parse_hexadecimal(without(token, "0x").c_str())) + ",";
}

static std::string rate_member(const std::string &token) {
    char text[400]; // the longest double has 309 digits
    snprintf(text, sizeof text, "\"rate\":%1.0f,", strtod(without(token, "Hz,").c_str(), nullptr));
    return text;
}

static std::string hdmi_member(size_t number, const std::string &token) {
    switch (number) {
    case 1:
        return state_member(token);
    case 3:
        return string_member("family", token);
    case 4:
        return string_member("code", without(without(token, ")"), "("));
    case 7:
        return string_member("aspect", without(token, "],"));
    case 8:
        return string_member("size", token);
    case 10:
        return rate_member(token);
    default:
        return "";
    }
}

static std::string composite_member(size_t number, const std::string &token) {
    switch (number) {
    case 1:
        return state_member(token);
    case 2:
        return string_member("family", without(token, "["));
    case 3:
        return string_member("aspect", without(token, "],"));
    case 4:
        return string_member("size", token);
    case 6:
        return rate_member(token);
    default:
        return "";
    }
}

std::string parse_current_mode(const std::string &text) {
    const bool is_hdmi = contains(text, "HDMI");
    std::string members;
    const std::vector<std::string> tokens = split(text, ' ');
    for (size_t i = 0; i < tokens.size(); ++i) {
        members += is_hdmi ? hdmi_member(i, tokens[i]) : composite_member(i, tokens[i]);
    }
    members += is_hdmi ? "\"output\":\"HDMI\"," : "\"output\":\"CVBS\",";
    members += contains(text, "progressive") ? "\"scan\":\"p\"" : "\"scan\":\"i\"";
    return members;
}

// Finds the token after "mode" in a line, without its colons; false when there is none.
static bool find_mode_code(const std::string &line, std::string &code) {
    const std::vector<std::string> tokens = split(line, ' ');
    for (size_t i = 0; i + 1 < tokens.size(); ++i) {
        if (tokens[i] == "mode") {
            code = without(tokens[i + 1], ":");
            return true;
        }
    }
    return false;
}

std::string parse_mode_list(const std::string &text) {
    std::string list;
    const char *separator = "";
    std::string code;
    for (const std::string &line : split(text, '\n')) {
        if (contains(line, "mode ") && find_mode_code(line, code)) {
            list += separator + code;
            separator = ",";
        }
    }
    return "[" + list + "]";
}
