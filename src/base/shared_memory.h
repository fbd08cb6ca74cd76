#pragma once

// Maps POSIX shared memory.
// Stands on: base/error_stream, base/sparse_file.

#include "base/sparse_file.h"

#include <cstddef>
#include <cstdint>

// Can the POSIX shared-memory object be opened for reading and writing?
bool shared_memory_exists(const char *name);

// A POSIX shared-memory object.
struct SharedMemory {
    const char *name; // no leading slash needed
    size_t size;      // bytes
    FileParts used;   // what the daemon itself reads and writes
};

// An object of which the daemon uses all.
constexpr SharedMemory whole_object(const char *name, size_t size) {
    return {name, size, {size, size, 1}};
}

enum class MapTry : uint8_t {
    first,
    again, // after one that failed: prints no further failure, but a line when it is mapped
};

// Maps the object for reading and writing. An existing object is opened and keeps its contents; a
// missing one is created with mode 0600 and filled with zeros. The object is resized to its size
// and never unlinked.
//
// The parts that the daemon uses get their memory now, since an access to a page that finds none
// raises SIGBUS. The rest gets it when it is written: a frame ring is mostly empty. When /dev/shm
// is too full for the parts, nothing is mapped.
//
// `at` is null, or the address of an earlier mapping of the same size. The new mapping then
// replaces that one in place: pointers into it stay valid and no mapping leaks.
//
// Another program may truncate the object while it is mapped. The first access past its new end
// then raises SIGBUS, and a handler that the first mapping installs restores the lost part with
// zeros and prints one line on standard error. So mapped bytes may turn to zeros between two reads.
// If there is no memory to restore it, the mapping is detached: private zeros take the object's
// place, and one line tells it. When the SIGBUS has another cause, the signal's previous action is
// taken. At most sixteen mappings are guarded this way; each keeps a close-on-exec descriptor.
//
// Returns the address, or null after one line on standard error. Any thread. The mapping belongs to
// the caller and lives as long as the process.
uint8_t *map_shared_memory(const SharedMemory &object, uint8_t *at, MapTry which = MapTry::first);

// Maps the objects of detached mappings again, in place, when /dev/shm has room for them; a line
// tells it. Call it now and then. One thread.
void map_detached_memory();

// Makes sure that reading or writing `size` bytes at `at`, which are in a mapping, finds memory.
// Returns false when /dev/shm is too full for that. Any thread.
bool shared_memory_has_room(const uint8_t *at, size_t size);

// How often the guarded mapping at `at` has been restored after a truncation, or mapped again after
// it was detached. Any thread.
uint32_t shared_memory_restorations(const uint8_t *at);
