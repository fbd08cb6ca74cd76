#pragma once

// Writes a line on standard error.
// Stands on: nothing else of ours.

// The line begins with the program's name; the format has no line end.
[[gnu::format(printf, 1, 2)]] void complain(const char *format, ...);
