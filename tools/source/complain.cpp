#include "source/complain.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

void complain(const char *format, ...) {
    char line[1000];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, line);
}
