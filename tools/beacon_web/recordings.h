#pragma once

// Films and pictures below the places where the board stores them.
// Stands on: nothing else of ours.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// A path is relative to its place. No link is followed, no "..", and nothing but regular files with
// the endings of films and pictures is touched, so nothing outside of the places can be reached.
// Everything here may wait for a disk: call it in the worker only.

struct StoragePlace {
    const char *name;   // for programs: "internal"
    const char *folder; // where the board mounts it
};
std::span<const StoragePlace> storage_places();

// The folder of a place; null: there is no such place.
const char *place_folder(std::string_view name);

// For Content-Type, by the ending of a name; null: it is neither a film nor a picture.
const char *recording_type(std::string_view path);
bool is_film(std::string_view path);

struct Recording {
    std::string place;
    std::string path;
    uint64_t size = 0;    // bytes
    int64_t modified = 0; // seconds since 1970
    std::string preview;  // of a film: the path of a picture; empty: there is none
};

struct RecordingList {
    std::vector<Recording> files; // the newest first
    bool is_complete = true;      // false: there are more of them
};

constexpr size_t most_recordings = 2000; // in a list
constexpr size_t most_entries = 20000;   // that are looked at for a list
constexpr int deepest_folder = 4;

// The recorder puts a film's preview beside it, with the ending ".jpg": it is not listed by itself.
// Names that are not UTF-8 are left out.
RecordingList list_recordings(std::span<const StoragePlace> places);

struct OpenFile {
    int fd = -1;
    uint64_t size = 0; // when it was opened; it may grow or shrink
    int64_t modified = 0;
    long modified_ns = 0; // of that second

    OpenFile() = default;
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    ~OpenFile(); // closes it
};

// Null: `reason` is an errno; ENOENT also for what may not be read.
std::shared_ptr<OpenFile> open_recording(const std::string &folder, std::string_view path,
                                         int &reason);

// Deletes it, and a film's preview too. 0, or an errno; ENOENT also for what may not be deleted.
int delete_recording(const std::string &folder, std::string_view path);
