#pragma once

// One line on standard error, behind the program's name.
[[gnu::format(printf, 1, 2)]] void complain(const char *format, ...);
