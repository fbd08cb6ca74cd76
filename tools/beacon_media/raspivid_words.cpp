#include "beacon_media/raspivid_words.h"

#include <cstdlib>

enum class Value : unsigned char {
    none,
    same,
    percent,    // -100 to 100, around 1
    brightness, // 0 to 100, around 0
    gain,       // 100 is 1
    dropped,    // today's program always does it, or never
};

struct OptionPair {
    const char *brief;
    const char *full;
    const char *today;
    Value value;
};
constexpr OptionPair option_pairs[] = {
    {"-t", "--timeout", "--timeout", Value::same},
    {"-w", "--width", "--width", Value::same},
    {"-h", "--height", "--height", Value::same},
    {"-fps", "--framerate", "--framerate", Value::same},
    {"-b", "--bitrate", "--bitrate", Value::same},
    {"-o", "--output", "--output", Value::same},
    {"-p", "--preview", "--preview", Value::same},
    {"-f", "--fullscreen", "--fullscreen", Value::none},
    {"-n", "--nopreview", "--nopreview", Value::none},
    {"-ih", "--inline", "--inline", Value::none},
    {"-fl", "--flush", "--flush", Value::none},
    {"-stm", "--spstimings", nullptr, Value::dropped},
    {"-rot", "--rotation", "--rotation", Value::same},
    {"-hf", "--hflip", "--hflip", Value::none},
    {"-vf", "--vflip", "--vflip", Value::none},
    {"-g", "--intra", "--intra", Value::same},
    {"-pf", "--profile", "--profile", Value::same},
    {"-lev", "--level", "--level", Value::same},
    {"-ss", "--shutter", "--shutter", Value::same},
    {"-ev", "--ev", "--ev", Value::same},
    {"-awb", "--awb", "--awb", Value::same},
    {"-roi", "--roi", "--roi", Value::same},
    {"-sh", "--sharpness", "--sharpness", Value::percent},
    {"-co", "--contrast", "--contrast", Value::percent},
    {"-sa", "--saturation", "--saturation", Value::percent},
    {"-br", "--brightness", "--brightness", Value::brightness},
    {"-ISO", "--ISO", "--gain", Value::gain},
};

static std::string translated(const std::string &text, Value kind) {
    constexpr double whole = 100;
    constexpr double middle = 50;
    const double number = strtod(text.c_str(), nullptr);
    switch (kind) {
    case Value::percent:
        return std::to_string(1 + number / whole);
    case Value::brightness:
        return std::to_string((number - middle) / middle);
    case Value::gain:
        return std::to_string(number / whole);
    default:
        return text;
    }
}

static const OptionPair *find_option(const std::string &word) {
    for (const OptionPair &pair : option_pairs) {
        if (word == pair.brief || word == pair.full) {
            return &pair;
        }
    }
    return nullptr;
}

// "-5" is a value; "-" is standard output.
static bool is_option(const std::string &word) {
    return word.size() > 1 && word[0] == '-' && (word[1] < '0' || word[1] > '9') && word[1] != '.';
}

CameraWords translate_camera_options(const std::vector<std::string> &options) {
    CameraWords words;
    words.options = {"--codec", "h264"};
    for (size_t i = 0; i < options.size(); ++i) {
        const OptionPair *pair = find_option(options[i]);
        const bool has_value = i + 1 < options.size() && !is_option(options[i + 1]);
        if (pair == nullptr) {
            words.unknown.push_back(options[i] + (has_value ? " " + options[i + 1] : ""));
            i += has_value ? 1 : 0;
            continue;
        }
        if (pair->value == Value::dropped) {
            continue;
        }
        words.options.emplace_back(pair->today);
        if (pair->value != Value::none && has_value) {
            ++i;
            words.options.push_back(translated(options[i], pair->value));
        }
    }
    return words;
}
