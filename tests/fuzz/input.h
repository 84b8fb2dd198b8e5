// What every target needs: the input taken apart from its front, the one way to report a finding, and a look for what
// must not be shown.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

// A finding: the fuzzer keeps the input that led to it.
#define MUST(condition)                                                                           \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            fprintf(stderr, "\nfinding: %s:%d: must hold: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                              \
        }                                                                                         \
    } while (0)

// Any eight characters in a row of the secret.
inline bool shows(const std::string &text, std::string_view secret) {
    for (size_t i = 0; i + 8 <= secret.size(); ++i) {
        const size_t at = text.find(secret.substr(i, 8));
        if (at == std::string::npos) continue;
        const size_t from = at < 100 ? 0 : at - 100;
        fprintf(stderr, "\nthe secret shows: ...%s...\n", text.substr(from, 200).c_str());
        return true;
    }
    return false;
}

// Hands out the bytes from the front; behind the end everything is zero.
class fuzz_input {
public:
    fuzz_input(const uint8_t *bytes, size_t size) : bytes_(bytes), left_(size) {}

    bool   empty() const { return left_ == 0; }
    size_t left() const { return left_; }

    uint8_t byte() {
        if (left_ == 0) return 0;
        --left_;
        return *bytes_++;
    }
    uint16_t word() {
        const uint16_t high = byte();
        return static_cast<uint16_t>(high << 8 | byte());
    }
    // 0 to limit - 1.
    size_t below(size_t limit) { return limit < 257 ? byte() % limit : word() % limit; }
    bool   chance(unsigned of_256) { return byte() < of_256; }

    // At most size bytes.
    std::string_view bytes(size_t size) {
        const size_t           count = std::min(size, left_);
        const std::string_view taken(reinterpret_cast<const char *>(bytes_), count);
        bytes_ += count;
        left_ -= count;
        return taken;
    }
    std::string_view rest() { return bytes(left_); }

    template <class record>
    record fill() {
        record                 value{};
        const std::string_view taken = bytes(sizeof(value));
        memcpy(&value, taken.data(), taken.size());
        return value;
    }

private:
    const uint8_t *bytes_;
    size_t         left_;
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
