#pragma once

// The files of the page, compressed with gzip, as the build put them into the program.
// Stands on: nothing else of ours.

#include <cstdint>
#include <span>

struct PageFile {
    const char *path; // "/app.js"
    const char *type; // for Content-Type
    std::span<const uint8_t> gzip;
};

std::span<const PageFile> page_files();
