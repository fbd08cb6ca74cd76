#include "beaconctl/child_program.h"
#include "beaconctl/commands.h"
#include "beaconctl/exit_codes.h"
#include "beaconctl/fail.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

// The file's name from the last dot on, such as ".mp4", in small letters. Empty: it has no dot, or
// only one that hides it.
static std::string ending_of(const std::string &file) {
    const size_t slash = file.rfind('/');
    const std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
    const size_t dot = name.rfind('.');
    std::string ending = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return ending;
}

// The name that ffmpeg has for the film's format; empty: the ending is no film's.
static std::string film_format(const std::string &ending) {
    constexpr std::array formats = {std::pair{".mp4", "mp4"}, std::pair{".mov", "mov"},
                                    std::pair{".mkv", "matroska"}};
    for (const auto &[known, format] : formats) {
        if (ending == known) {
            return format;
        }
    }
    return "";
}

// May H.264 as it comes have this name? A device or a FIFO may have any.
static bool is_raw_name(const std::string &file, const std::string &ending) {
    struct stat status {};
    return ending.empty() || ending == ".h264" || ending == ".264" ||
           (stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
}

static int refuse(const std::string &what) {
    fail(what);
    return exit_usage;
}

static int record_film(const Target &target, const RecordOptions &options,
                       const std::string &format) {
    if (!has_program("ffmpeg")) {
        return fail(options.file + " needs ffmpeg, which is not installed here; a name that ends "
                                   "in .h264 needs nothing");
    }
    // The film gets its name when it is complete, so that an older one stays if nothing comes.
    const std::string part = options.file + ".part";
    for (const std::string &file : {options.file, part}) {
        if (const int code = check_writable(file); code != exit_ok) {
            return code;
        }
    }
    const bool has_older_part = access(part.c_str(), F_OK) == 0;
    ChildProgram muxer;
    if (!start_program({"ffmpeg", "-v", "fatal", "-use_wallclock_as_timestamps", "1", "-f", "h264",
                        "-i", "pipe:0", "-c", "copy", "-f", format, "-y", "file:" + part},
                       muxer)) {
        return fail(std::string("cannot start ffmpeg: ") + strerror(errno));
    }
    RecordOptions piped = options;
    piped.output = muxer.input;
    uint64_t bytes = 0;
    const int code = record_stream(target, piped, &bytes);
    const int status = end_program(muxer, 0);
    if (status != 0 && bytes == 0) { // nothing came that it could have written
        if (!has_older_part) {
            unlink(part.c_str());
        }
        return code;
    }
    if (status != 0) {
        return fail("ffmpeg could not write " + part + ": it ended with status " +
                    std::to_string(status));
    }
    return rename(part.c_str(), options.file.c_str()) == 0
               ? code // a film that is not whole, with --strict, is still a film
               : fail(options.file + ": " + strerror(errno));
}

int record_file(const Target &target, const RecordOptions &options) {
    if (options.is_raw || options.file == "-") {
        return record_stream(target, options);
    }
    const std::string ending = ending_of(options.file);
    const std::string format = film_format(ending);
    const bool is_video = options.type == "video" || options.type == "camera";
    if (!format.empty() && !is_video) {
        return refuse(options.file + ": only video is made into a film; choose a name without " +
                      ending);
    }
    if (is_video && format.empty() && !is_raw_name(options.file, ending)) {
        return refuse(options.file + ": there is no " + ending +
                      " here: .mp4, .mov and .mkv are films, .h264 is the camera's stream as it "
                      "comes; --raw writes that under any name");
    }
    return format.empty() ? record_stream(target, options) : record_film(target, options, format);
}
