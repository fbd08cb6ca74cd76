#include "counters.h"

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

static int open_counter(pid_t pid, bool of_kernel) {
    perf_event_attr attributes{};
    attributes.type = PERF_TYPE_HARDWARE;
    attributes.size = sizeof attributes;
    attributes.config = PERF_COUNT_HW_INSTRUCTIONS;
    attributes.exclude_user = of_kernel ? 1 : 0;
    attributes.exclude_kernel = of_kernel ? 0 : 1;
    attributes.exclude_hv = 1;
    attributes.inherit = 1;
    return static_cast<int>(
        syscall(SYS_perf_event_open, &attributes, pid, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

Counters open_counters(pid_t pid) {
    return {open_counter(pid, false), open_counter(pid, true)};
}

void close_counters(Counters &counters) {
    for (int *counter : {&counters.user, &counters.kernel}) {
        if (*counter >= 0) {
            close(*counter);
        }
        *counter = -1;
    }
}

static double count_of(int counter) {
    uint64_t count = 0;
    return counter >= 0 && read(counter, &count, sizeof count) == sizeof count
               ? static_cast<double>(count)
               : NAN;
}

Instructions counted(const Counters &counters) {
    return {count_of(counters.user), count_of(counters.kernel)};
}
