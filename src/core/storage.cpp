#include "core/storage.h"

#include "base/free_space.h"
#include "base/pause.h"
#include "base/relaxed.h"
#include "base/shell.h"
#include "base/state_file.h"
#include "config/config.h"

#include <cstdio>
#include <pthread.h>
#include <unistd.h>

constexpr const char *internal_mount = "/mnt";
constexpr const char *external_mount = "/media";
constexpr const char *external_disk = "/dev/sda";
constexpr const char *mount_internal = "mount /dev/mmcblk0p3 /mnt -o noatime > /dev/null 2>&1";
constexpr const char *mount_external[] = {
    "mount /dev/sda0 /media -o noatime > /dev/null 2>&1",
    "mount /dev/sda1 /media -o noatime > /dev/null 2>&1",
    "mount /dev/sda2 /media -o noatime > /dev/null 2>&1",
    "mount /dev/sda3 /media -o noatime > /dev/null 2>&1",
};
constexpr uint32_t period_us = 100000;
constexpr uint32_t first_look_us = 2000;
constexpr unsigned first_looks = 500;

// The place in the upper 32 bits, its free megabytes in the lower; 0: not examined.
static StateFile place_file{"/run/quillorbeacon/recorder_place"};
static Relaxed<uint64_t> last_result;

Storage choose_storage(uint32_t internal_megabytes, uint32_t external_megabytes) {
    if (internal_megabytes == 0 && external_megabytes == 0) {
        return {storage_none, 0};
    }
    if (external_megabytes < internal_megabytes) {
        return {storage_internal, internal_megabytes};
    }
    return {storage_external, external_megabytes};
}

static void mount_external_disk() {
    for (const char *command : mount_external) {
        run_shell(command);
    }
}

static void tell_recorder(const char *mount_point) {
    write_state_file(place_file, mount_point);
}

static Storage use_storage(StoragePlace place, const char *mount_point) {
    const uint32_t megabytes = free_megabytes(mount_point);
    if (megabytes == 0) {
        fprintf(stderr, "No free space on %s or no drive mounted\n", mount_point);
        return {storage_none, 0};
    }
    tell_recorder(mount_point);
    return {place, megabytes};
}

static Storage use_internal() {
    run_shell(mount_internal);
    return use_storage(storage_internal, internal_mount);
}

static Storage use_external() {
    if (access(external_disk, F_OK) != 0) {
        tell_recorder(external_mount);
        return {storage_external, 0};
    }
    mount_external_disk();
    return use_storage(storage_external, external_mount);
}

static Storage use_the_freer_one() {
    run_shell(mount_internal);
    mount_external_disk();
    const Storage chosen =
        choose_storage(free_megabytes(internal_mount), free_megabytes(external_mount));
    if (chosen.place == storage_none) {
        fputs("No free space on any storage\n", stderr);
    } else {
        tell_recorder(chosen.place == storage_internal ? internal_mount : external_mount);
    }
    return chosen;
}

static Storage examine_storage(const ConfigRecord &config) {
    switch (config.recording_place) {
    case storage_internal:
        return use_internal();
    case storage_external:
        return use_external();
    default:
        return use_the_freer_one();
    }
}

[[noreturn]] static void *run_storage_thread(void * /*unused*/) {
    name_thread("storage");
    for (;;) {
        const Storage found = examine_storage(config_record());
        last_result = static_cast<uint64_t>(found.place) << 32 | found.free_megabytes;
        sleep_us(period_us);
    }
}

Storage chosen_storage() {
    const uint64_t value = last_result;
    return {static_cast<StoragePlace>(value >> 32), static_cast<uint32_t>(value)};
}

int init_storage() {
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, run_storage_thread, nullptr) != 0) {
        return -1;
    }
    for (unsigned i = 0; i < first_looks && last_result == 0; ++i) {
        sleep_us(first_look_us);
    }
    return 0;
}
