#include "base/text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

void copy_text(char *field, size_t size, const char *source) {
    const size_t length = strnlen(source, size - 1);
    std::memcpy(field, source, length);
    field[length] = '\0';
}

void remove_double_quotes(char *text) {
    char *kept = text;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p != '"') {
            *kept++ = *p;
        }
    }
    *kept = '\0';
}

// strtoll saturates at 64 bits, the clamp at 32: the result of a 32-bit board's strtol.
static int32_t parse_in_base(const char *text, int base) {
    const long long number = std::strtoll(text, nullptr, base);
    return static_cast<int32_t>(std::clamp<long long>(number, std::numeric_limits<int32_t>::min(),
                                                      std::numeric_limits<int32_t>::max()));
}

int32_t parse_number(const char *text) {
    return parse_in_base(text, 10);
}

int32_t parse_hexadecimal(const char *text) {
    return parse_in_base(text, 16);
}

bool begins_with_number(const char *text) {
    char *end = nullptr;
    [[maybe_unused]] const long long number = std::strtoll(text, &end, 10);
    return end != text;
}

bool is_all_digits(const char *text) {
    return *text != '\0' && text[std::strspn(text, "0123456789")] == '\0';
}
