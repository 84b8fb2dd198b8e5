#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace gw {

// clang-format off

// What is counted, per connection and in total, in the order in which it is shown.
enum class counter {
    frames_rx, frames_tx, bytes_rx, bytes_tx,
    data_rx, data_tx, data_bytes_rx, data_bytes_tx,
    config_req, config_resp, dpd_req, dpd_resp, invalid,
    drop_queue, drop_source, drop_v6_rs, drop_v6, drop_malformed, drop_early, drop_tun,
    // Only in total.
    accepted, refused, tls_up, tls_failed, closed, tun_rx, tun_no_route, tun_not_ipv4,
    count,
};

constexpr size_t counter_count = static_cast<size_t>(counter::count);
constexpr size_t connection_counter_count = static_cast<size_t>(counter::accepted);

constexpr std::array<const char *, counter_count> counter_names = {
    "frames_rx", "frames_tx", "bytes_rx", "bytes_tx",
    "data_rx", "data_tx", "data_bytes_rx", "data_bytes_tx",
    "config_req", "config_resp", "dpd_req", "dpd_resp", "invalid",
    "drop_queue", "drop_source", "drop_v6_rs", "drop_v6", "drop_malformed", "drop_early", "drop_tun",
    "accepted", "refused", "tls_up", "tls_failed", "closed", "tun_rx", "tun_no_route", "tun_not_ipv4",
};

// clang-format on

class counter_set {
public:
    void     add(counter which, uint64_t amount = 1) { values_[static_cast<size_t>(which)] += amount; }
    uint64_t get(counter which) const { return values_[static_cast<size_t>(which)]; }
    uint64_t at(size_t index) const { return values_[index]; }

private:
    std::array<uint64_t, counter_count> values_{};
};

}  // namespace gw
