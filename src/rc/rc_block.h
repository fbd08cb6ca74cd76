#pragma once

#include <cstdint>

// Maps the shared radio-control block (rc_block_layout.h), creating it when it is missing; an
// existing one keeps its contents. Says which on standard error. Returns null after a message when
// it cannot be mapped. Any thread; each call makes a mapping that lives as long as the process.
uint8_t *open_rc_block();
