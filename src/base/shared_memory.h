#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

// Can the POSIX shared-memory object be opened for reading and writing?
bool shared_memory_exists(const char *name);

// Maps the POSIX shared-memory object `name` (no leading slash needed) of `size` bytes for reading
// and writing. The object is opened when it exists and keeps its contents, else created with mode
// 0600 and zeros; it is brought to `size` and never unlinked.
//
// `at` is null, or the address of an earlier mapping of the same size, which the new one then
// replaces in place: pointers into it stay valid and no mapping is left behind.
//
// Should another program cut the object short while it is mapped, the first access behind its end
// brings it to `size` again, with zeros and one line on standard error, by a handler of SIGBUS that
// the first mapping installs. Where there is no memory for that, and for any other SIGBUS, the
// signal does what it did before. So whatever is behind an address of a mapping may become zeros
// between two reads. Sixteen mappings are kept so, and a descriptor (close-on-exec) for each.
//
// Returns the address, or null after one line on standard error. Any thread; the mapping belongs
// to the caller and lives as long as the process.
uint8_t *map_shared_memory(const char *name, size_t size, uint8_t *at);

// Numbers of shared memory, little-endian as all the boards are, at addresses that are multiples of
// their size. Each is loaded and stored in one go, so that another process never sees half of one:
// put_u16 and the like are free to go byte by byte, and on 32-bit boards do. Any thread.
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
