// Prints "width height" of the SPS on standard input, which begins with profile_idc.

#include "h264parse.h"

#include <cstddef>
#include <cstdio>

int main() {
    static unsigned char sps[65536];
    const size_t length = std::fread(sps, 1, sizeof sps, stdin);
    if (std::ferror(stdin) != 0 || std::feof(stdin) == 0) {
        std::fputs("h264parse_print: cannot read the whole SPS\n", stderr);
        return 1;
    }
    int width = 0;
    int height = 0;
    h264parse(sps, static_cast<unsigned int>(length), &width, &height);
    std::printf("%d %d\n", width, height);
    return 0;
}
