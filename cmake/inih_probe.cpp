// Checks at configure time that the installed inih can be set up to read 10000-byte lines, with the
// comments and separators of the configuration file. Exit status 0: it can.
#include <cstdio>
#include <cstring>
#include <ini.h>
#include <string>

static int seen = 0;

static int handle(void *, const char *, const char *name, const char *value) {
    if (std::strcmp(name, "long") == 0 && std::strlen(value) == 9990) {
        seen |= 1;
    }
    if (std::strcmp(name, "colon") == 0 && std::strcmp(value, "2") == 0) {
        seen |= 2;
    }
    return 1;
}

int main() {
    static char start_comments[] = ";#";
    static char inline_comments[] = ";";
    ini_max_line = 10000;
    ini_use_stack = false;
    ini_allow_realloc = false;
    ini_initial_alloc = 10000;
    ini_allow_multiline = false;
    ini_allow_bom = true;
    ini_allow_inline_comments = true;
    ini_allow_no_value = false;
    ini_stop_on_first_error = false;
    ini_start_comment_prefixes = start_comments;
    ini_inline_comment_prefixes = inline_comments;
    const std::string text = "\xEF\xBB\xBFlong=" + std::string(9990, 'x') + "\ncolon: 2 ; x\n#c\n";
    return ini_parse_string(text.c_str(), handle, nullptr) == 0 && seen == 3 ? 0 : 1;
}
