#include "beacon_media/recorder.h"

#include "beacon_media/film.h"
#include "beacon_media/film_file.h"
#include "beacon_media/film_plan.h"
#include "beacon_media/live.h"
#include "beacon_media/still.h"
#include "source/clocks.h"
#include "source/complain.h"

constexpr const char *number_file = "recorder.info";
// A film ends when no picture has come for so long.
constexpr int64_t silence = 10 * nanoseconds_per_second;
// After a film could not be written.
constexpr int64_t pause_after_failure = 2 * nanoseconds_per_second;
struct Recorder {
    LiveFeed feed;
    bool is_switched_off = false; // by a client, although it is on in the settings
    Film film;
    PictureSize size;  // of the film
    std::string place; // where the daemon wants films
    std::string film_place;
    bool has_space = true;
    int64_t picture_heard = 0;
    int64_t wanted = 0;              // since when; 0: it is not
    int64_t not_before = 0;          // the next film
    bool is_failing = false;         // the last film could not be written; no other has run since
    uint64_t published = UINT64_MAX; // the number in the file
};

static void publish(Recorder &recorder) {
    const uint64_t seconds = film_is_open(recorder.film) ? film_seconds(recorder.film) : 0;
    if (seconds != recorder.published) {
        publish_number(number_file, seconds);
        recorder.published = seconds;
    }
}

// Where recording stands: the marker file is there from when a client switches recording on until
// somebody switches it off. The settings may also say so, from the start; then the daemon's status
// tells whether it was switched off, and when a daemon that was started again wants it again.
static bool is_wanted(void *helper) {
    Recorder &recorder = *static_cast<Recorder *>(helper);
    const bool is_asked_for = recording_is_asked_for();
    const bool is_set = recorder.feed.role.settings.recording_enabled != 0;
    const auto &status = recorder.feed.stream.status;
    if (is_asked_for || !is_set) {
        recorder.is_switched_off = false;
    } else if (status) {
        recorder.is_switched_off = !status->is_recording;
    }
    return is_asked_for || is_set;
}

static void look_at_storage(Recorder &recorder) {
    const std::string place = recording_place();
    if (!place.empty()) {
        recorder.place = place;
    }
    if (recorder.place.empty()) {
        complain_once(recorder.feed.role, "not recording: the daemon has found no storage yet");
        recorder.has_space = false;
        return;
    }
    recorder.has_space = free_bytes(recorder.place) >= least_free;
    if (!recorder.has_space) {
        complain_once(recorder.feed.role,
                      "not recording: less than 64 MB are free on " + recorder.place);
    }
}

static void fail(Recorder &recorder, const std::string &reason, int64_t now) {
    complain_once(recorder.feed.role, "not recording: " + reason);
    recorder.not_before = now + pause_after_failure;
}

static void make_preview(Recorder &recorder, const Piece &picture, const std::string &path) {
    constexpr int64_t patience = 15 * nanoseconds_per_second; // the pictures wait in the socket
    std::string reason;
    if (!write_still({picture.data, picture.size}, path + ".jpg", patience, reason)) {
        complain_once(recorder.feed.role, "no preview " + path + ".jpg: " + reason);
    }
}

static void begin(Recorder &recorder, const Piece &picture, int64_t now) {
    end_film(recorder.film);
    std::string reason;
    const std::string path = new_recording_path(recorder.place, reason);
    if (path.empty()) {
        fail(recorder, reason, now);
        return;
    }
    const bool with_sound = has_sound(recorder.feed, now) && can_encode_sound();
    if (!begin_film(recorder.film, path + ".mp4", with_sound, picture.stamp, reason)) {
        // Without the film's name, which is another one each time.
        fail(recorder, "cannot write films on " + recorder.place + ": " + reason, now);
        return;
    }
    if (!recorder.is_failing) {
        say_film(recorder.film);
    }
    recorder.film_place = recorder.place;
    recorder.size = picture_size(recorder.feed.splitter);
    add_picture(recorder.film.input, picture, picture.stamp);
    if (recorder.feed.role.settings.make_preview != 0) {
        make_preview(recorder, picture, path);
    }
}

static void give_film_up(Recorder &recorder, const std::string &reason, int64_t now) {
    end_film(recorder.film);
    fail(recorder, reason, now);
    recorder.is_failing = true;
}

static void take_picture(void *helper, const Piece &picture, int64_t now) {
    Recorder &recorder = *static_cast<Recorder *>(helper);
    recorder.picture_heard = now;
    if (recorder.is_switched_off) {
        return;
    }
    if (recorder.place.empty()) {
        look_at_storage(recorder); // the first picture may come before the first look
    }
    FilmView view;
    view.is_open = film_is_open(recorder.film);
    view.is_key = picture.is_key;
    view.has_space = recorder.has_space && now >= recorder.not_before;
    view.has_changed = view.is_open && (picture_size(recorder.feed.splitter) != recorder.size ||
                                        recorder.place != recorder.film_place);
    view.lacks_sound =
        !recorder.film.input.has_sound && has_sound(recorder.feed, now) && can_encode_sound();
    view.bytes = recorder.film.input.bytes;
    switch (plan_film(view)) {
    case FilmStep::write:
        if (!add_picture(recorder.film.input, picture, picture.stamp)) {
            give_film_up(recorder, recorder.film_place + " does not take the film", now);
        }
        return;
    case FilmStep::begin:
        begin(recorder, picture, now);
        return;
    case FilmStep::stop:
        end_film(recorder.film);
        return;
    case FilmStep::leave:
        return;
    }
}

static void take_sound(void *helper, std::span<const uint8_t> samples, int64_t now) {
    Recorder &recorder = *static_cast<Recorder *>(helper);
    if (film_is_open(recorder.film)) {
        add_sound(recorder.film.input, samples, now);
    }
}

// A camera's program that sends no key frame, or no parameter sets before it, looks like none.
static void say_what_it_waits_for(Recorder &recorder, int64_t now) {
    recorder.wanted = recorder.wanted == 0 ? now : recorder.wanted;
    if (!film_is_open(recorder.film) && recorder.has_space &&
        recorder.picture_heard < recorder.wanted && now - recorder.wanted > silence) {
        complain_once(recorder.feed.role,
                      "not recording: no picture has come yet that a film can begin with");
    }
}

static void rest(Recorder &recorder) {
    end_film(recorder.film);
    recorder.wanted = 0;
    publish(recorder);
}

static void look_after_film(void *helper, int64_t now) {
    Recorder &recorder = *static_cast<Recorder *>(helper);
    if (recorder.is_switched_off) {
        rest(recorder);
        return;
    }
    look_at_storage(recorder);
    say_what_it_waits_for(recorder, now);
    std::string reason;
    if (film_is_open(recorder.film) && film_has_failed(recorder.film, reason)) {
        give_film_up(recorder, reason, now);
    } else if (film_is_open(recorder.film) && !film_is_in_place(recorder.film)) {
        end_film(recorder.film);
    } else if (film_is_open(recorder.film) && now - recorder.picture_heard > silence) {
        complain("no picture for 10 s");
        end_film(recorder.film);
    } else if (recorder.has_space && film_seconds(recorder.film) > 0 &&
               (!recorder.is_failing || film_reaches_disk())) {
        if (!recorder.film.is_said) {
            say_film(recorder.film);
        }
        recorder.is_failing = false;
        forget_complaint(recorder.feed.role);
    }
    publish(recorder);
}

static void stop_recording(void *helper) {
    Recorder &recorder = *static_cast<Recorder *>(helper);
    rest(recorder);
    recorder.is_switched_off = false;
}

int run_recorder() {
    Recorder recorder;
    if (!open_role(recorder.feed.role)) {
        return 1;
    }
    publish(recorder);
    return run_live(recorder.feed,
                    {is_wanted, take_picture, take_sound, look_after_film, stop_recording},
                    &recorder);
}
