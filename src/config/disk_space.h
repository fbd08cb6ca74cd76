#pragma once

// Free space on the disks for recordings, without waiting for a disk that does not answer.
// Stands on: base/free_space, base/pause, base/relaxed.

#include <cstdint>

// Decimal megabytes available on /mnt and on /media. The question is put by a thread that ends with
// the answer. If that takes longer than 250 ms, these return the last answer, 0 at first, and until
// it comes nothing else is asked. Any thread.
uint32_t free_internal_megabytes();
uint32_t free_external_megabytes();
