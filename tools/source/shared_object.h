#pragma once

// Maps the daemon's shared memory.
// Stands on: source/complain.

#include <cstddef>
#include <cstdint>

enum class SharedObjectResult : uint8_t {
    mapped,
    absent, // it does not exist, or does not have its size yet
    failed, // after a message
};

// Maps an existing POSIX shared-memory object for reading and writing; creates nothing. The mapping
// is the caller's, who may keep it as long as the process lives. `fd`: where to put the object's
// descriptor, which then stays open; null: it is closed.
SharedObjectResult map_shared_object(const char *name, size_t size, uint8_t **at,
                                     int *fd = nullptr);

// Can shared memory be used at all? False after a message.
bool check_shared_memory();
