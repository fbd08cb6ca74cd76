#pragma once

#include <cstddef>
#include <cstdint>

enum class SharedObjectResult : uint8_t {
    mapped,
    absent, // it does not exist, or has not got its size yet
    failed, // after a message
};

// Maps an existing POSIX shared-memory object of the daemon's for reading and writing; creates
// nothing. The mapping lives as long as the process.
SharedObjectResult map_shared_object(const char *name, size_t size, uint8_t **at);

// Can shared memory be used at all? False after a message.
bool check_shared_memory();
