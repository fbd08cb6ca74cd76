#pragma once

#include "config/config.h"

// Gives eth0 the static address and mask of the record. Any thread.
void set_static_address(const ConfigRecord &config);
