#pragma once

// Keeps a copy of a settings file that is about to be replaced.
// Stands on: base/whole_file.

#include "base/whole_file.h"

// Copies the old file of a replacement in progress to NAME.kept, next to it, and reports that in
// one line. Does nothing for an empty or missing file. An existing copy is kept, and the new one
// gets the name NAME.kept2 and so on; only NAME.kept9 is overwritten. Returns 0, or an errno when
// the copy is not complete. Any thread.
int keep_copy(const FileReplacement &replacement);
