#pragma once

// Gives the wired network interface its static address.
// Stands on: config/config.

#include "config/config.h"

// Sets the address and mask of eth0 from the record. Any thread.
void set_static_address(const ConfigRecord &config);
