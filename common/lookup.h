// Looking up names without stopping the loop.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "loop.h"

namespace common {

// What a lookup found. addresses: IPv4 first, then IPv6, each once, in the system's order; error: why there are none.
struct lookup_result {
    std::vector<std::string> addresses;
    std::string              error;
};

// One lookup at a time. When the object goes, or a new lookup starts, the answer of the old one reaches nobody.
class lookup {
public:
    explicit lookup(loop &owner);
    ~lookup();
    lookup(const lookup &)            = delete;
    lookup &operator=(const lookup &) = delete;

    // Looks name up afresh and calls work with the result, or with the error "the lookup takes too long" after
    // patience.
    void start(const std::string &name, milliseconds patience, std::function<void(const lookup_result &)> work);
    void stop();
    bool is_running() const { return request_ != nullptr; }

private:
    struct request;
    void finish(const lookup_result &result);

    loop                                      &owner_;
    timer                                      patience_;
    request                                   *request_ = nullptr;  // null: none under way
    std::function<void(const lookup_result &)> work_;
};

}  // namespace common
