// Frame rings with any bytes: a frame that is taken lies in its slot, and the reader moves on.
#include "input.h"
#include "media/frame_ring.h"
#include "media/frame_ring_layout.h"

#include <algorithm>
#include <cstring>
#include <vector>

// Small slots, so that an input reaches many of them.
constexpr uint32_t capacity = 16;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    alignas(8) static uint8_t ring[ring_size(capacity)];
    Input input{data, size};
    std::memset(ring, 0, sizeof ring);
    FrameIdentifier last;
    while (input.left > 0) {
        const size_t at =
            input.byte() % 2 == 0 ? input.byte() % ring_header_size : input.word() % sizeof ring;
        const std::string bytes = input.text();
        std::memcpy(ring + at, bytes.data(), std::min(bytes.size(), sizeof ring - at));
        more_frames_wait(ring, capacity, input.byte());
        for (uint32_t i = input.byte() % 16; i > 0; --i) {
            const TakenFrame taken = take_frame(ring, capacity, last);
            if (taken.result == TakeResult::frame) {
                check(taken.length >= 1 && taken.length <= capacity && taken.data >= ring &&
                      taken.data + taken.length <= ring + sizeof ring);
                check(std::count(taken.data, taken.data + taken.length, 0) >= 0); // all readable
            }
        }
    }
    return 0;
}
