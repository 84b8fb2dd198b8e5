#include "clock.h"

#include <cstdio>
#include <ctime>

namespace common {

moment present() {
    timespec mono{}, wall{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &wall);
    return {static_cast<double>(mono.tv_sec) + static_cast<double>(mono.tv_nsec) / 1e9,
            static_cast<int64_t>(wall.tv_sec) * 1000 + wall.tv_nsec / 1000000};
}

std::string wall_text(int64_t wall_ms) {
    auto seconds = static_cast<time_t>(wall_ms / 1000);
    tm   parts{};
    gmtime_r(&seconds, &parts);
    char day[32], text[48];
    strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text, sizeof text, "%s.%03dZ", day, static_cast<int>(wall_ms % 1000));
    return text;
}

}  // namespace common
