#include "faults.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include "common/log.h"
#include "common/request.h"
#include "text.h"

namespace gw {

namespace {

using triggers = std::set<fault_trigger>;

constexpr unsigned long longest  = 3600;     // seconds
constexpr unsigned long furthest = 1000000;  // frames

// With a connection at hand a fault of a connection can strike at any moment of its life.
const triggers any_moment = {fault_trigger::now, fault_trigger::tls, fault_trigger::config, fault_trigger::rekey,
                             fault_trigger::up,  fault_trigger::dpd, fault_trigger::frame,  fault_trigger::time};
const triggers at_request = {fault_trigger::config, fault_trigger::rekey};

const struct {
    const char   *name;
    fault_kind    kind;
    fault_trigger standard;
    triggers      possible;
} faults[] = {
    {"silence", fault_kind::silence, fault_trigger::now, any_moment},
    {"stall", fault_kind::stall, fault_trigger::connect, {fault_trigger::connect}},
    {"refuse", fault_kind::refuse, fault_trigger::now, {fault_trigger::now, fault_trigger::time}},
    {"reset", fault_kind::reset, fault_trigger::now, any_moment},
    {"fin", fault_kind::fin, fault_trigger::now, any_moment},
    {"notify", fault_kind::notify, fault_trigger::now, any_moment},
    {"alert", fault_kind::alert, fault_trigger::now, any_moment},
    {"garbage", fault_kind::garbage, fault_trigger::now, any_moment},
    {"bad-frame", fault_kind::bad_frame, fault_trigger::now, any_moment},
    {"no-response", fault_kind::no_response, fault_trigger::config, at_request},
    {"bad-response", fault_kind::bad_response, fault_trigger::config, at_request},
    {"no-address", fault_kind::no_address, fault_trigger::config, at_request},
    {"bad-address", fault_kind::bad_address, fault_trigger::config, at_request},
    {"slow", fault_kind::slow, fault_trigger::config, at_request},
    {"drop-dpd", fault_kind::drop_dpd, fault_trigger::dpd, {fault_trigger::dpd}},
};

constexpr struct {
    const char   *name;
    fault_trigger trigger;
} trigger_names[] = {
    {"now", fault_trigger::now},       {"connect", fault_trigger::connect}, {"tls", fault_trigger::tls},
    {"config", fault_trigger::config}, {"rekey", fault_trigger::rekey},     {"up", fault_trigger::up},
    {"dpd", fault_trigger::dpd},       {"frame", fault_trigger::frame},     {"time", fault_trigger::time},
};

std::string possible_text(const triggers &possible) {
    std::vector<std::string> words;
    for (const auto &entry : trigger_names) {
        bool counts = entry.trigger == fault_trigger::frame || entry.trigger == fault_trigger::time;
        if (possible.contains(entry.trigger)) words.push_back(std::string(entry.name) + (counts ? "=N" : ""));
    }
    return common::list_text(words);
}

uint64_t parse_count(const std::string &text) {
    if (text == "*") return UINT64_MAX;
    auto count = parse_number(text, furthest);
    if (!count || *count == 0)
        throw std::runtime_error("#" + common::printable(text, 32) + ": a count from 1 on, or #* for ever");
    return *count;
}

void take_trigger(const std::string &text, const triggers &possible, armed_fault &fault) {
    size_t      equals = text.find('=');
    std::string name   = text.substr(0, equals);
    auto        found  = std::find_if(std::begin(trigger_names), std::end(trigger_names),
                                      [&](const auto &entry) { return name == entry.name; });
    if (found == std::end(trigger_names) || !possible.contains(found->trigger))
        throw std::runtime_error("@" + common::printable(name, 32) + " does not go with " + fault_name(fault.kind) +
                                 "; there are: " + possible_text(possible));
    fault.trigger = found->trigger;
    bool is_time = found->trigger == fault_trigger::time, is_frame = found->trigger == fault_trigger::frame;
    if (!is_time && !is_frame) {
        if (equals != std::string::npos) throw std::runtime_error("@" + name + " takes no number");
        return;
    }
    auto number = parse_number(equals == std::string::npos ? "" : text.substr(equals + 1),
                               is_time ? longest : furthest);
    if (!number || (is_frame && *number == 0))
        throw std::runtime_error("@" + name + "=N needs a number" + (is_time ? " of seconds" : " from 1 on"));
    fault.amount = is_time ? *number * 1000 : *number;
}

}  // namespace

const char *fault_name(fault_kind kind) {
    for (const auto &entry : faults) {
        if (entry.kind == kind) return entry.name;
    }
    return "";
}

std::vector<std::string> fault_names() {
    std::vector<std::string> names;
    for (const auto &entry : faults) names.emplace_back(entry.name);
    return names;
}

armed_fault parse_fault(const std::string &text) {
    size_t      hash = text.find('#'), at = text.find('@');
    std::string name  = text.substr(0, std::min(hash, at));
    auto        found = std::find_if(std::begin(faults), std::end(faults),
                                     [&](const auto &entry) { return name == entry.name; });
    if (found == std::end(faults))
        throw std::runtime_error("there is no fault \"" + common::printable(name, 32) +
                                 "\"; there are: " + common::list_text(fault_names()) + ", none");
    armed_fault fault;
    fault.text    = text;
    fault.kind    = found->kind;
    fault.trigger = found->standard;
    if (at < hash)
        take_trigger(text.substr(at + 1, hash == std::string::npos ? hash : hash - at - 1), found->possible, fault);
    if (hash != std::string::npos) fault.left = parse_count(text.substr(hash + 1));
    if (fault.trigger == fault_trigger::time && fault.amount == 0 && fault.left > 1)
        throw std::runtime_error("@time=0 strikes once; a count needs a second between two strikes");
    return fault;
}

uint64_t fault_table::arm(armed_fault fault) {
    fault.number = ++last_;
    armed_.push_back(std::move(fault));
    return last_;
}

armed_fault fault_table::take(std::vector<armed_fault>::iterator which) {
    if (which->left != UINT64_MAX) which->left--;
    which->seen       = 0;
    armed_fault taken = *which;
    if (which->left == 0) armed_.erase(which);
    return taken;
}

std::optional<armed_fault> fault_table::strike(fault_trigger trigger, std::initializer_list<fault_kind> kinds) {
    for (auto fault = armed_.begin(); fault != armed_.end(); ++fault) {
        if (fault->trigger != trigger) continue;
        if (kinds.size() && std::find(kinds.begin(), kinds.end(), fault->kind) == kinds.end()) continue;
        if (trigger == fault_trigger::frame && ++fault->seen < fault->amount) continue;
        return take(fault);
    }
    return std::nullopt;
}

std::optional<armed_fault> fault_table::strike(uint64_t number) {
    auto found = std::find_if(armed_.begin(), armed_.end(), [&](const auto &fault) { return fault.number == number; });
    return found == armed_.end() ? std::nullopt : std::optional(take(found));
}

}  // namespace gw
