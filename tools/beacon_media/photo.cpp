#include "beacon_media/photo.h"

#include "beacon_media/board_settings.h"
#include "beacon_media/film_file.h"
#include "beacon_media/film_plan.h"
#include "beacon_media/still.h"

#include <atomic>
#include <thread>
#include <utility>

enum class Stage : uint8_t {
    idle,
    under_way,
    finished,
};

static std::atomic<Stage> stage = Stage::idle;
static Photo result; // the thread's while a photo is under way

static Photo take_photo(const std::vector<uint8_t> &picture) {
    constexpr int64_t patience = 60000000000; // nobody waits for it
    const std::string place = recording_place();
    if (place.empty()) {
        return {"", "the daemon has found no storage yet"};
    }
    if (free_bytes(place) < least_free) {
        return {"", "less than 64 MB are free on " + place};
    }
    Photo photo;
    photo.path = new_recording_path(place, photo.reason);
    if (photo.path.empty()) {
        return photo;
    }
    photo.path += ".jpg";
    if (!write_still(picture, photo.path, patience, photo.reason)) {
        photo.path.clear();
    }
    return photo;
}

bool begin_photo(const std::vector<uint8_t> &picture) {
    if (stage.load(std::memory_order_acquire) != Stage::idle) {
        return false;
    }
    stage.store(Stage::under_way, std::memory_order_release);
    std::thread([picture] {
        result = take_photo(picture);
        stage.store(Stage::finished, std::memory_order_release);
    }).detach();
    return true;
}

std::optional<Photo> finished_photo() {
    if (stage.load(std::memory_order_acquire) != Stage::finished) {
        return std::nullopt;
    }
    std::optional<Photo> photo = std::exchange(result, {});
    stage.store(Stage::idle, std::memory_order_release);
    return photo;
}

bool photo_is_under_way() {
    return stage.load(std::memory_order_acquire) == Stage::under_way;
}
