#include "config/disk_space.h"

#include "base/free_space.h"
#include "base/pause.h"
#include "base/relaxed.h"

#include <atomic>
#include <pthread.h>

constexpr uint32_t patience_us = 250000;
constexpr uint32_t look_us = 500;

struct Disk {
    const char *mount_point;
    std::atomic<bool> is_asked; // a thread waits for the answer
    Relaxed<bool> is_slow;      // and somebody has waited for it in vain
    Relaxed<uint32_t> megabytes;
};

static Disk internal{"/mnt", {}, {}, {}};
static Disk external{"/media", {}, {}, {}};

static void *ask_disk(void *given_disk) {
    name_thread("free-space");
    auto *disk = static_cast<Disk *>(given_disk);
    disk->megabytes = free_megabytes(disk->mount_point);
    disk->is_slow = false;
    disk->is_asked.store(false, std::memory_order_release);
    return nullptr;
}

static void begin_question(Disk &disk) {
    pthread_t thread{};
    if (disk.is_asked.exchange(true)) {
        return;
    }
    disk.is_slow = false;
    if (pthread_create(&thread, nullptr, ask_disk, &disk) == 0) {
        pthread_detach(thread);
    } else {
        disk.is_asked = false;
    }
}

static uint32_t megabytes_on(Disk &disk) {
    begin_question(disk);
    uint32_t waited_us = 0;
    while (disk.is_asked.load(std::memory_order_acquire) && !disk.is_slow) {
        sleep_us(look_us);
        waited_us += look_us;
        disk.is_slow = waited_us >= patience_us;
    }
    return disk.megabytes;
}

uint32_t free_internal_megabytes() {
    return megabytes_on(internal);
}

uint32_t free_external_megabytes() {
    return megabytes_on(external);
}
