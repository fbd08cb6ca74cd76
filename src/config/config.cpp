#include "config/config.h"

// The only record: written by the loader and the update commands, read by all threads.
static ConfigRecord record;

ConfigRecord &config_record() {
    return record;
}
