#include "rc/rc_block.h"

#include "base/shared_memory.h"
#include "rc/rc_block_layout.h"

#include <cstdio>

uint8_t *open_rc_block() {
    fputs(shared_memory_exists(rc_block_name) ? "Shared raw RC mem opened\n"
                                              : "Creating new shared raw RC\n",
          stderr);
    return map_shared_memory(rc_block_name, rc_block_size, nullptr);
}
