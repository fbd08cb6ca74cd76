#include "beaconctl/text_file.h"

#include <cerrno>
#include <cstdio>
#include <memory>

int read_text_file(const std::string &name, std::string &text) {
    const std::unique_ptr<FILE, int (*)(FILE *)> file(
        name == "-" ? stdin : fopen(name.c_str(), "re"), fclose);
    if (file == nullptr) {
        return errno;
    }
    text.clear();
    char part[4096];
    for (size_t got = 0; (got = fread(part, 1, sizeof part, file.get())) > 0;) {
        text.append(part, got);
    }
    return ferror(file.get()) == 0 ? 0 : errno;
}
