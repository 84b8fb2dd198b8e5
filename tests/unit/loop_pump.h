// Runs a loop in a test until something is so, or the time is over.
#pragma once

#include "common/loop.h"

#include <functional>

// Returns whether it became so within the milliseconds.
inline bool run_until(common::loop &loop, const std::function<bool()> &is_so, int limit_ms = 5000) {
    common::timer look(loop), limit(loop);
    look.repeat(common::milliseconds(1), [&] {
        if (is_so()) loop.stop();
    });
    limit.start(common::milliseconds(limit_ms), [&] { loop.stop(); });
    loop.run();
    return is_so();
}

// Serves what is due within the milliseconds.
inline void run_for(common::loop &loop, int milliseconds) {
    (void)run_until(
        loop, [] { return false; }, milliseconds);
}
