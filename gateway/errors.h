#pragma once

#include <stdexcept>

namespace gw {

// A wrong option or file: one line on standard error, exit status 2.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The machine refuses something that the gateway needs: one line on standard error, exit status 1.
struct runtime_failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace gw
