#pragma once

// Gives parts of a sparse file in memory their pages.
// Stands on: nothing else of ours.

#include <cstddef>

// `count` parts of `size` bytes, the first at the start of the file and each `stride` after the one
// before.
struct FileParts {
    size_t size;
    size_t stride;
    size_t count;
};

// Allocates the parts' pages that are missing, as zeros; the others keep what they hold. Returns 0
// or an errno, ENOSPC for a full file system; after that, parts that nobody has written have no
// pages. Any thread.
int allocate_file_parts(int fd, const FileParts &parts);

// Makes sure that `size` bytes at `offset` have their pages, which most ranges have. Returns false
// when the file system is too full. Any thread.
bool has_file_room(int fd, size_t offset, size_t size);
