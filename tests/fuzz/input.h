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

// Where any eight characters in a row of the secret stand; npos when none do.
inline size_t find_secret(std::string_view text, std::string_view secret) {
    for (size_t i = 0; i + 8 <= secret.size(); ++i)
        if (const size_t at = text.find(secret.substr(i, 8)); at != std::string_view::npos) return at;
    return std::string_view::npos;
}

// True when they do; says so.
inline bool shows(const std::string &text, std::string_view secret) {
    const size_t at = find_secret(text, secret);
    if (at == std::string::npos) return false;
    const size_t from = at < 100 ? 0 : at - 100;
    fprintf(stderr, "\nthe secret shows: ...%s...\n", text.substr(from, 200).c_str());
    return true;
}

// An input that brings a piece of the secret itself, as the fuzzer may have learnt it from comparisons, proves nothing.
inline bool knows_secret(const uint8_t *bytes, size_t size, std::string_view secret) {
    return size > 0 && find_secret({reinterpret_cast<const char *>(bytes), size}, secret) != std::string_view::npos;
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
