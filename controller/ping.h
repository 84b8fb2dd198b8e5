// One ICMP echo through the tunnel.
#pragma once

#include <cstddef>
#include <string>

namespace wlcctl {

struct ping_result {
    bool        is_answered = false;
    double      seconds     = 0;
    std::string error;
};

// Sends a packet of `size` bytes (28 to 1500, IP and ICMP headers included) from the source address out of the
// interface, with the mark that forbids fragments when asked, and waits for its answer. Needs root. Blocks for at most
// patience seconds.
ping_result ping(const std::string &address, const std::string &source, const std::string &interface, size_t size,
                 bool forbids_fragments, double patience);

}  // namespace wlcctl
