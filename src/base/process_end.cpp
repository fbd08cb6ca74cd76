#include "base/process_end.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

static void (*end_preparation)();

void prepare_process_end(void (*prepare)()) {
    end_preparation = prepare;
}

static void prepare_end() {
    if (end_preparation != nullptr) {
        end_preparation();
    }
}

void end_process(int status) {
    prepare_end();
    _exit(status);
}

void end_process_abnormally(const char *reason) {
    fprintf(stderr, "Fatal: %s\n", reason);
    prepare_end();
    abort();
}
