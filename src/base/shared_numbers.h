#pragma once

// Loads and stores whole numbers in memory that is shared with another process.
// Stands on: nothing else of ours.

#include <bit>
#include <cstdint>

// Load and store a naturally aligned little-endian number in one access, so that another process
// never sees half of it. put_u16 and the like may go byte by byte, and on 32-bit boards they do.
// Any thread.
static_assert(std::endian::native == std::endian::little);

template <typename T>
T load_whole(const uint8_t *at) {
    T value{};
    __atomic_load(static_cast<const T *>(static_cast<const void *>(at)), &value, __ATOMIC_RELAXED);
    return value;
}

template <typename T>
void store_whole(uint8_t *at, T value) {
    __atomic_store(static_cast<T *>(static_cast<void *>(at)), &value, __ATOMIC_RELAXED);
}
