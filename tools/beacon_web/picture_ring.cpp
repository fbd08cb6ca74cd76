#include "beacon_web/picture_ring.h"

#include <utility>

static void drop_first(PictureRing &ring) {
    ring.bytes -= ring.pictures.front().data->size();
    ring.pictures.pop_front();
    ++ring.first;
}

void add_picture(PictureRing &ring, Fragment picture) {
    const uint64_t number = ring.first + ring.pictures.size();
    if (picture.is_key) {
        ring.key = number;
        ring.has_key = true;
    }
    ring.bytes += picture.data->size();
    ring.pictures.push_back(std::move(picture));
    while (ring.first + pictures_before_key < ring.key) {
        drop_first(ring);
    }
    while (ring.bytes > largest_ring || ring.pictures.size() > most_pictures) {
        drop_first(ring);
    }
    ring.has_key = ring.has_key && ring.first <= ring.key;
}

const Fragment *next_picture(const PictureRing &ring, Viewing &viewing) {
    const uint64_t end = ring.first + ring.pictures.size();
    if (!viewing.has_begun || viewing.next < ring.first) {
        if (!ring.has_key) {
            return nullptr;
        }
        if (viewing.has_begun) {
            viewing.skipped += ring.key - viewing.next;
        }
        viewing.has_begun = true;
        viewing.next = ring.key;
    }
    const auto at = static_cast<size_t>(viewing.next - ring.first);
    return viewing.next < end ? &ring.pictures[at] : nullptr;
}

void pass_picture(Viewing &viewing, const Fragment &picture, uint8_t *copy) {
    stamp_fragment(copy, ++viewing.sequence, viewing.time, picture.duration);
    viewing.time += picture.duration;
    ++viewing.next;
}
