#include "beacon_media/film_file.h"

#include "beacon_media/film_plan.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <sys/stat.h>

constexpr const char *endings[] = {".mp4", ".jpg", ".jpg.new"};

static bool make_folder(const std::string &path) {
    return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

// A photo and a film with its preview may begin in the same second, in two programs.
static bool is_taken(const std::string &path) {
    struct stat found {};
    return std::any_of(std::begin(endings), std::end(endings), [&](const char *ending) {
        return stat((path + ending).c_str(), &found) == 0;
    });
}

std::string new_recording_path(const std::string &place, std::string &reason) {
    const time_t now = time(nullptr);
    tm parts{};
    localtime_r(&now, &parts);
    const std::string folder = place + "/" + film_folder(parts);
    if (!make_folder(place + "/DCIM") || !make_folder(folder)) {
        reason = "cannot make " + folder + ": " + strerror(errno);
        return "";
    }
    std::string path;
    for (int number = 1; path.empty() || is_taken(path); ++number) {
        path = folder + "/" + film_name(parts, number);
    }
    return path;
}
