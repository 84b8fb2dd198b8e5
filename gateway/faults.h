#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gw {

// What a fault does.
enum class fault_kind {
    silence,
    stall,
    refuse,
    reset,
    fin,
    notify,
    alert,
    garbage,
    bad_frame,
    no_response,
    bad_response,
    no_address,
    bad_address,
    slow,
    drop_dpd
};

// When it does it.
enum class fault_trigger {
    now,
    connect,  // a connection has come
    tls,      // a handshake is over
    config,   // a configuration request has come
    rekey,    // a configuration request of a device that has another connection has come
    up,       // a configuration response was sent
    dpd,      // a DPD request has come
    frame,    // so many data frames have come since it was armed
    time      // so many seconds after it was armed
};

// A fault that waits for its trigger.
struct armed_fault {
    uint64_t      number = 0;  // of its life; told in answers and events
    std::string   text;        // as it was ordered
    fault_kind    kind    = fault_kind::silence;
    fault_trigger trigger = fault_trigger::now;
    uint64_t      amount  = 0;  // frames or milliseconds of the trigger
    uint64_t      left    = 1;  // how often it still strikes, UINT64_MAX: without end
    uint64_t      seen    = 0;  // frames
};

// Reads NAME[@TRIGGER[=N]][#COUNT|#*]. Throws std::runtime_error that lists what exists.
armed_fault parse_fault(const std::string &text);

const char              *fault_name(fault_kind kind);
std::vector<std::string> fault_names();

// The faults that wait.
class fault_table {
public:
    uint64_t                        arm(armed_fault fault);
    void                            clear() { armed_.clear(); }
    const std::vector<armed_fault> &armed() const { return armed_; }

    // The first fault that this moment triggers, and that is one of `kinds` (empty: any); it has struck then. Nothing,
    // mostly.
    std::optional<armed_fault> strike(fault_trigger trigger, std::initializer_list<fault_kind> kinds = {});

    // The fault of that number, if it still waits; it has struck then.
    std::optional<armed_fault> strike(uint64_t number);

private:
    armed_fault take(std::vector<armed_fault>::iterator which);

    std::vector<armed_fault> armed_;
    uint64_t                 last_ = 0;
};

}  // namespace gw
