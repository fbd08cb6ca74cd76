#include "beacon_sim/record.h"

#include "source/complain.h"

#include "base/bytes.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <sys/stat.h>

static FILE *open_file(const std::string &path) {
    FILE *file = fopen(path.c_str(), "wbe");
    if (file == nullptr) {
        complain("cannot write %s: %s", path.c_str(), strerror(errno));
    }
    return file;
}

bool open_record(Record &record, const std::string &folder) {
    record.folder = folder;
    if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
        complain("cannot make %s: %s", folder.c_str(), strerror(errno));
        return false;
    }
    record.video = open_file(folder + "/published.h264");
    if (record.video == nullptr) {
        return false;
    }
    record.frames_file = open_file(folder + "/frames.bin");
    if (record.frames_file == nullptr) {
        fclose(record.video);
        return false;
    }
    // A reader should see each frame at once.
    setvbuf(record.frames_file, nullptr, _IONBF, 0);
    SHA256Init(&record.digest);
    return true;
}

static void put_u64(uint8_t *at, uint64_t value) {
    put_u32(at, static_cast<uint32_t>(value & 0xFFFFFFFF));
    put_u32(at + 4, static_cast<uint32_t>(value >> 32));
}

void add_to_record(Record &record, const std::vector<uint8_t> &unit, int64_t published) {
    ++record.frames;
    record.length += unit.size();
    SHA256Update(&record.digest, unit.data(), unit.size());
    if (record.length <= record.keep) {
        fwrite(unit.data(), 1, unit.size(), record.video);
        record.kept = record.length;
    }
    uint8_t entry[16];
    put_u64(entry, static_cast<uint64_t>(published));
    put_u64(entry + 8, record.length);
    fwrite(entry, 1, sizeof entry, record.frames_file);
}

// Was everything written to the file?
static bool close_file(FILE *file) {
    const bool is_good = ferror(file) == 0;
    return fclose(file) == 0 && is_good;
}

static bool write_totals(Record &record, const RecordTotals &totals) {
    // First under another name: a reader never sees half of the file.
    const std::string path = record.folder + "/record.json";
    const std::string unfinished = path + ".part";
    FILE *file = open_file(unfinished);
    if (file == nullptr) {
        return false;
    }
    char digest[SHA256_DIGEST_STRING_LENGTH];
    SHA256End(&record.digest, digest);
    fprintf(file,
            "{\"telemetry\": %" PRIu64 ", \"audio\": %" PRIu64 ", \"commands\": %" PRIu64
            ", \"turned\": %.1f, \"frames\": %" PRIu64 ", \"bytes\": %" PRIu64
            ", \"kept\": %" PRIu64 ", \"sha256\": \"%s\"}\n",
            totals.telemetry, totals.audio, totals.commands, totals.turned, record.frames,
            record.length, record.kept, digest);
    return close_file(file) && rename(unfinished.c_str(), path.c_str()) == 0;
}

bool close_record(Record &record, const RecordTotals &totals) {
    const bool is_video_whole = close_file(record.video);
    const bool are_frames_whole = close_file(record.frames_file);
    if (!is_video_whole || !are_frames_whole || !write_totals(record, totals)) {
        complain("the record in %s is incomplete: %s", record.folder.c_str(), strerror(errno));
        return false;
    }
    return true;
}
