// Points in time, on both clocks. Called on any thread.
#pragma once

#include <cstdint>
#include <string>

namespace common {

struct moment {
    double  mono = 0;  // seconds, CLOCK_MONOTONIC
    int64_t wall = 0;  // milliseconds since 1970
};

// The present moment.
moment present();

// ISO 8601 in UTC with milliseconds: "2026-01-31T09:30:00.123Z".
std::string wall_text(int64_t wall_ms);

}  // namespace common
