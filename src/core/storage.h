#pragma once

// Mounts and chooses the storage that recordings go to, on its own thread.
// Stands on: config/config.

#include <cstdint>

// While a disk or a program that does not answer blocks the thread, the last result remains valid.

// Where recordings go, as the record encodes it.
enum StoragePlace : uint8_t {
    storage_not_examined = 0,
    storage_internal = 1, // /mnt
    storage_external = 2, // /media
    storage_none = 255,   // no free space anywhere
};

struct Storage {
    StoragePlace place;
    uint32_t free_megabytes;
};

// Chooses a place by free megabytes: the larger one, external on a tie, none when both are 0.
Storage choose_storage(uint32_t internal_megabytes, uint32_t external_megabytes);

// Starts the thread. Ten times a second it mounts and chooses, writes the place to
// /run/quillorbeacon/recorder_place for the recorder, and prints a line when there is no free
// space. Waits at most a second for the first result. Returns 0, or -1 when the thread cannot be
// started. Start-up only, not on a slow board.
int init_storage();

// The last result; storage_not_examined while there is none, and on a slow board. Any thread.
Storage chosen_storage();
