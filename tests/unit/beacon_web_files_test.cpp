#include "beacon_web/byte_range.h"
#include "beacon_web/file_worker.h"
#include "beacon_web/recordings.h"

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

struct Expected {
    const char *header;
    RangeKind kind;
    uint64_t first;
    uint64_t size;
};

// A storage place with a secret beside it.
class Recordings : public testing::Test {
protected:
    Recordings() {
        char name[] = "/tmp/recordings.XXXXXX";
        folder = mkdtemp(name);
        place = folder / "place";
        fs::create_directories(place / "DCIM/20261122");
        fs::create_directories(folder / "other");
        write(folder / "secret.mp4", "secret");
        write(folder / "other/secret.mp4", "secret");
    }
    ~Recordings() override {
        fs::remove_all(folder);
    }

    static void write(const fs::path &path, const std::string &content) {
        std::ofstream(path) << content;
    }
    // "" when it can be opened.
    std::string refusal(std::string_view path) const {
        int reason = 0;
        const auto file = open_recording(place, path, reason);
        return file ? "" : strerrorname_np(reason);
    }
    RecordingList list() const {
        const StoragePlace places[] = {{"internal", place.c_str()}};
        return list_recordings(places);
    }

    fs::path folder, place;
};

} // namespace

TEST(ByteRange, IsWhatTheRequestWants) {
    constexpr Expected table[] = {
        {"", RangeKind::whole, 0, 1000},
        {"bytes=0-", RangeKind::part, 0, 1000},
        {"bytes=0-0", RangeKind::part, 0, 1},
        {"bytes=999-", RangeKind::part, 999, 1},
        {"bytes=100-199", RangeKind::part, 100, 100},
        {"bytes=100-99999", RangeKind::part, 100, 900},
        {"bytes=100-99999999999999999999999", RangeKind::part, 100, 900},
        {"bytes=-1", RangeKind::part, 999, 1},
        {"bytes=-5000", RangeKind::part, 0, 1000},
        {"bytes=1000-", RangeKind::impossible, 0, 0},
        {"bytes=99999999999999999999999-", RangeKind::impossible, 0, 0},
        {"bytes=-0", RangeKind::impossible, 0, 0},
        {"bytes=5-4", RangeKind::whole, 0, 1000},
        {"bytes=-", RangeKind::whole, 0, 1000},
        {"bytes=1", RangeKind::whole, 0, 1000},
        {"bytes=1-2,5-6", RangeKind::whole, 0, 1000},
        {"bytes=+1-2", RangeKind::whole, 0, 1000},
        {"bytes=1-2x", RangeKind::whole, 0, 1000},
        {"pages=1-2", RangeKind::whole, 0, 1000},
    };
    for (const Expected &expected : table) {
        const ByteRange range = wanted_range(expected.header, 1000);
        EXPECT_EQ(range.kind, expected.kind) << expected.header;
        EXPECT_EQ(range.first, expected.first) << expected.header;
        EXPECT_EQ(range.size, expected.size) << expected.header;
    }
    EXPECT_EQ(wanted_range("bytes=0-", 0).kind, RangeKind::impossible);
    EXPECT_EQ(wanted_range("bytes=-1", 0).kind, RangeKind::impossible);
    EXPECT_EQ(wanted_range("bytes=5000000000-", 6000000000).size, 1000000000U);
}

TEST(ByteRange, AVersionIsNamedByTagOrDate) {
    const std::string tag = version_tag(10, 1795344810, 5);
    const std::string date = http_date(1795344810);
    EXPECT_EQ(date, "Sun, 22 Nov 2026 10:53:30 GMT");
    EXPECT_NE(tag, version_tag(11, 1795344810, 5));
    EXPECT_NE(tag, version_tag(10, 1795344811, 5));
    EXPECT_NE(tag, version_tag(10, 1795344810, 6));
    EXPECT_TRUE(names_version("", tag, date));
    EXPECT_TRUE(names_version(tag, tag, date));
    EXPECT_TRUE(names_version(date, tag, date));
    EXPECT_FALSE(names_version("\"other\"", tag, date));
    EXPECT_FALSE(names_version("W/" + tag, tag, date));
}

TEST_F(Recordings, AreReadBelowTheirPlaceOnly) {
    write(place / "DCIM/20261122/a b.mp4", "film");
    fs::create_symlink(folder / "secret.mp4", place / "link.mp4");
    fs::create_symlink(place / "DCIM/20261122/a b.mp4", place / "inner.mp4");
    fs::create_symlink(folder / "other", place / "linked");
    ASSERT_EQ(mkfifo((place / "fifo.mp4").c_str(), 0600), 0);
    fs::create_directory(place / "folder.mp4");
    EXPECT_EQ(refusal("DCIM/20261122/a b.mp4"), "");
    const std::string with_zero("DCIM/20261122/a b.mp4\0.mp4", 26);
    for (const std::string &path :
         {std::string("../secret.mp4"), std::string("DCIM/../../secret.mp4"),
          std::string("DCIM/../DCIM/20261122/a b.mp4"), (folder / "secret.mp4").string(),
          std::string("link.mp4"), std::string("inner.mp4"), std::string("linked/secret.mp4"),
          std::string("fifo.mp4"), std::string("folder.mp4"), std::string(""), std::string(".mp4/"),
          std::string("./link.mp4"), std::string("DCIM//20261122/a b.mp4"), with_zero,
          std::string(300, 'a') + ".mp4", std::string(5000, 'a') + ".mp4"}) {
        EXPECT_EQ(refusal(path), "ENOENT") << path;
        EXPECT_EQ(delete_recording(place, path), ENOENT) << path;
    }
    EXPECT_TRUE(fs::exists(place / "DCIM/20261122/a b.mp4"));
    EXPECT_TRUE(fs::exists(folder / "secret.mp4") && fs::exists(folder / "other/secret.mp4"));
    EXPECT_TRUE(fs::is_symlink(place / "link.mp4"));
}

// Puts a link in the place of a film or a folder, and takes it away again, all the time.
class Swapper {
public:
    Swapper(const fs::path &one, const fs::path &other)
        : thread([this, one, other] {
              while (!is_over) {
                  renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
                  ++swaps;
              }
          }) {}
    Swapper(const Swapper &) = delete;
    Swapper &operator=(const Swapper &) = delete;
    ~Swapper() {
        is_over = true;
        thread.join();
    }

    std::atomic<int> swaps = 0;

private:
    std::atomic<bool> is_over = false;
    std::thread thread; // last: it uses the others
};

TEST_F(Recordings, ALinkThatComesBetweenTwoLooksIsNotFollowed) {
    write(place / "a.mp4", "film");
    fs::create_symlink(folder / "secret.mp4", place / "b.link");
    const Swapper swapper(place / "a.mp4", place / "b.link");
    int films = 0;
    int links = 0;
    while (films < 20000 || links < 20000) {
        int reason = 0;
        const auto file = open_recording(place, "a.mp4", reason);
        if (!file) {
            ASSERT_EQ(reason, ENOENT);
            ++links;
            continue;
        }
        char content[10] = "";
        ASSERT_GT(pread(file->fd, content, sizeof content - 1, 0), 0);
        ASSERT_STREQ(content, "film");
        ++films;
    }
}

TEST_F(Recordings, ALinkThatComesInTheWayOfTheListIsNotFollowed) {
    fs::create_directory(place / "day");
    write(place / "day/film.mp4", "film");
    fs::create_symlink(folder / "other", place / "link");
    const Swapper swapper(place / "day", place / "link");
    while (swapper.swaps < 200000) {
        for (const Recording &file : list().files) {
            ASSERT_EQ(fs::path(file.path).filename(), "film.mp4");
        }
    }
}

TEST_F(Recordings, OtherFilesAreNotTouched) {
    for (const char *name : {"notes.txt", "page.html", "noending", ".hidden"}) {
        write(place / name, "x");
        EXPECT_EQ(refusal(name), "ENOENT") << name;
        EXPECT_EQ(delete_recording(place, name), ENOENT) << name;
        EXPECT_TRUE(fs::exists(place / name));
    }
    EXPECT_TRUE(list().files.empty());
}

TEST_F(Recordings, AreListedWithTheirPreviews) {
    write(place / "DCIM/20261122/101500.mp4", "a film");
    write(place / "DCIM/20261122/101500.jpg", "its preview");
    write(place / "DCIM/20261122/101600.jpg", "a photo");
    write(place / "DCIM/20261122/\xff.mp4", "no text");
    fs::create_directories(place / "1/2/3/4/5");
    write(place / "1/2/3/deep.mp4", "seen");
    write(place / "1/2/3/4/deeper.mp4", "too deep");
    fs::create_symlink(folder / "other", place / "linked");
    const auto now = fs::file_time_type::clock::now();
    fs::last_write_time(place / "DCIM/20261122/101600.jpg", now - std::chrono::hours(1));
    fs::last_write_time(place / "1/2/3/deep.mp4", now - std::chrono::hours(2));
    const RecordingList found = list();
    ASSERT_EQ(found.files.size(), 3U);
    EXPECT_TRUE(found.is_complete);
    EXPECT_EQ(found.files[0].path, "DCIM/20261122/101500.mp4");
    EXPECT_EQ(found.files[0].preview, "DCIM/20261122/101500.jpg");
    EXPECT_EQ(found.files[0].size, 6U);
    EXPECT_EQ(found.files[1].path, "DCIM/20261122/101600.jpg");
    EXPECT_EQ(found.files[2].path, "1/2/3/deep.mp4");
}

TEST_F(Recordings, OfVeryManyTheNewestAreListed) {
    for (size_t i = 0; i < most_recordings + 5; ++i) {
        write(place / (std::to_string(i) + ".mp4"), "");
    }
    const auto now = fs::file_time_type::clock::now();
    fs::last_write_time(place / "7.mp4", now + std::chrono::hours(1));
    const RecordingList found = list();
    EXPECT_EQ(found.files.size(), most_recordings);
    EXPECT_FALSE(found.is_complete);
    EXPECT_EQ(found.files[0].path, "7.mp4");
}

TEST_F(Recordings, APreviewIsDeletedWithItsFilm) {
    for (const char *name : {"a.mp4", "a.jpg", "b.jpg", "a.txt"}) {
        write(place / name, "x");
    }
    EXPECT_EQ(delete_recording(place, "a.mp4"), 0);
    EXPECT_FALSE(fs::exists(place / "a.mp4") || fs::exists(place / "a.jpg"));
    EXPECT_TRUE(fs::exists(place / "b.jpg") && fs::exists(place / "a.txt"));
    EXPECT_EQ(delete_recording(place, "a.mp4"), ENOENT);
}

namespace {

std::mutex wake_mutex;
std::condition_variable woken;
int wakes = 0; // under the mutex

void wake() {
    const std::lock_guard lock(wake_mutex);
    ++wakes;
    woken.notify_one();
}

} // namespace

TEST(FileWorker, HandsBackItsResultsInOrder) {
    ASSERT_TRUE(start_file_worker(wake));
    {
        const std::lock_guard lock(wake_mutex);
        wakes = 0;
    }
    std::vector<int> done;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(give_file_work([i, &done] { return [i, &done] { done.push_back(i); }; }));
    }
    {
        std::unique_lock lock(wake_mutex);
        woken.wait(lock, [] { return wakes == 3; });
    }
    EXPECT_TRUE(done.empty());
    take_file_results();
    EXPECT_EQ(done, (std::vector<int>{0, 1, 2}));
}

TEST(FileWorker, TakesOnlySoMuch) {
    ASSERT_TRUE(start_file_worker(wake));
    std::mutex stuck;
    std::unique_lock hold(stuck);
    const FileWork wait = [&stuck]() -> FileResult {
        const std::lock_guard lock(stuck);
        return [] {};
    };
    size_t taken = 0;
    while (taken < 2 * most_file_work && give_file_work(wait)) {
        ++taken;
    }
    EXPECT_GE(taken, most_file_work);
    EXPECT_LE(taken, most_file_work + 1);
    {
        const std::lock_guard lock(wake_mutex);
        wakes = 0;
    }
    hold.unlock();
    std::unique_lock lock(wake_mutex);
    woken.wait(lock, [taken] { return wakes == static_cast<int>(taken); });
    lock.unlock();
    take_file_results();
}
