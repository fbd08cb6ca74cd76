#pragma once

// Cuts a fuzzer's input into the values that a target needs.
// Stands on: nothing else of ours.

#include <cstdint>
#include <cstdlib>
#include <string>

struct Input {
    const uint8_t *at;
    size_t left;

    uint32_t byte() {
        if (left == 0) {
            return 0;
        }
        --left;
        return *at++;
    }
    uint32_t word() {
        const uint32_t low = byte();
        return low | (byte() << 8);
    }
    uint32_t number() {
        const uint32_t low = word();
        return low | (word() << 16);
    }
    // A number near `base`; now and then any number.
    uint32_t near(uint32_t base) {
        const uint32_t offset = byte();
        return offset == 255 ? (word() << 16) | word() : base + offset - 64;
    }
    // The bytes up to the next 255, which is dropped.
    std::string text() {
        std::string found;
        while (left > 0) {
            const auto next = static_cast<char>(byte());
            if (static_cast<uint8_t>(next) == 255) {
                break;
            }
            found += next;
        }
        return found;
    }
    // The same without zeros, as a C string.
    std::string c_text() {
        std::string found = text();
        return std::string(found.c_str());
    }
    std::string rest() {
        std::string found(reinterpret_cast<const char *>(at), left);
        left = 0;
        return found;
    }
};

// What must hold whatever the input is.
inline void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}
