#include "beacon_media/ring_link.h"

#include "source/shared_object.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static void give_up(RingLink &link) {
    munmap(link.base, ring_size(link.capacity));
    close(link.fd);
    link.base = nullptr;
    link.fd = -1;
}

static bool has_whole_size(const RingLink &link) {
    struct stat information {};
    return fstat(link.fd, &information) == 0 && information.st_nlink != 0 &&
           information.st_size >= static_cast<off_t>(ring_size(link.capacity));
}

bool ring_is_there(RingLink &link) {
    if (link.base != nullptr) {
        if (has_whole_size(link)) {
            return link.base[ring_mark0_at] == 1;
        }
        // Removed, or truncated: touching what is missing would end this process.
        give_up(link);
    }
    if (map_shared_object(link.name, ring_size(link.capacity), &link.base, &link.fd) !=
        SharedObjectResult::mapped) {
        link.base = nullptr;
        return false;
    }
    if (link.base[ring_mark0_at] != 1) {
        give_up(link);
        return false;
    }
    link.writer = begin_ring(link.base, link.capacity);
    return true;
}

RingRoom ring_room(RingLink &link, size_t size) {
    if (!ring_is_there(link)) {
        return RingRoom::absent;
    }
    if (ring_is_out_of_step(link.writer)) {
        const uint32_t identifier = link.writer.identifier;
        link.writer = begin_ring(link.base, link.capacity);
        link.writer.identifier = identifier;
    }
    if (!ring_has_room(link.writer)) {
        return RingRoom::full;
    }
    return reserve_frame(link.writer, link.fd, size) ? RingRoom::free : RingRoom::no_memory;
}
