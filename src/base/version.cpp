#include "base/version.h"

// The version that the project, with its packages and programs, is built as.
constexpr uint8_t project_version[] = {QUILLORBEACON_VERSION};

static_assert(sizeof project_version == sizeof program_version &&
                  project_version[0] == program_version[0] &&
                  project_version[1] == program_version[1] &&
                  project_version[2] == program_version[2],
              "base/version.h and the project's version in CMakeLists.txt differ");
