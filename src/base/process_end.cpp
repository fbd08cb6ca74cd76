#include "base/process_end.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

void end_process(int status) {
    _exit(status);
}

void end_process_abnormally(const char *reason) {
    fprintf(stderr, "Fatal: %s\n", reason);
    abort();
}
