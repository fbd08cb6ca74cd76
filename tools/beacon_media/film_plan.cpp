#include "beacon_media/film_plan.h"

FilmStep plan_film(const FilmView &view) {
    if (!view.has_space) {
        return FilmStep::stop;
    }
    // Players cannot change the size within a film.
    const bool is_over =
        !view.is_open || view.has_changed || view.lacks_sound || view.bytes >= longest_film;
    if (is_over && view.is_key) {
        return FilmStep::begin;
    }
    return view.is_open && !view.has_changed ? FilmStep::write : FilmStep::leave;
}

static std::string two_digits(int number) {
    const std::string digits = std::to_string(number);
    return digits.size() < 2 ? "0" + digits : digits;
}

std::string film_folder(const tm &time) {
    constexpr int first_year = 1900;
    return "DCIM/" + std::to_string(time.tm_year + first_year) + two_digits(time.tm_mon + 1) +
           two_digits(time.tm_mday);
}

std::string film_name(const tm &time, int number) {
    const std::string name =
        two_digits(time.tm_hour) + two_digits(time.tm_min) + two_digits(time.tm_sec);
    return number > 1 ? name + "-" + std::to_string(number) : name;
}
