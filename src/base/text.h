#pragma once

// Copies and parses texts.
// Stands on: nothing else of ours.

#include <cstddef>
#include <cstdint>

// Copies `source` into `field` of `size` bytes, truncated to size - 1 characters. The bytes after
// the terminating zero keep their values.
void copy_text(char *field, size_t size, const char *source);

// Deletes every double quote in place.
void remove_double_quotes(char *text);

// The decimal number that the text begins with (leading blanks and a sign allowed); 0 when there is
// none. A number beyond 32 bits gives the nearest 32-bit value on every machine.
int32_t parse_number(const char *text);

// The same for a hexadecimal number, with or without "0x".
int32_t parse_hexadecimal(const char *text);

// Does the text begin with a decimal number?
bool begins_with_number(const char *text);

// Is the text nothing but decimal digits, at least one?
bool is_all_digits(const char *text);
