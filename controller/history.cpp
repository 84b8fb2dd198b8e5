#include "history.h"

#include "common/log.h"

#include "memory.h"

#include <algorithm>
#include <cmath>
#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

// Contents: 1 states  2 samples  3 what is shown  4 what is kept

namespace wlcctl {

namespace {

constexpr double soon = 10;  // seconds between two writings of the file that changes of state ask for

constexpr const char *names[] = {"up", "stopped", "unknown", "degraded", "connecting", "down"};

uint8_t place_of(const std::string &code) {
    for (size_t i = 0; i < reason_table.size(); i++)
        if (code == reason_table[i].code) return static_cast<uint8_t>(i + 1);
    return 0;
}

const char *reason_at(uint8_t place) {
    return place == 0 || place > reason_table.size() ? "" : reason_table[place - 1].code;
}

std::array<uint64_t, 4> sums_of(const counter_book &book) {
    uint64_t errors = 0;
    for (size_t i = 0; i < counter_count; i++)
        if (std::string_view(counter_labels[i]).ends_with("_total")) errors += book.totals[i];
    return {book.totals[1], book.totals[0], errors, book.totals[4]};
}

// The present boot of the machine: the monotonic clock goes on as long as it lasts.
std::string boot() {
    char      text[64] = "";
    unique_fd fd(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    ssize_t   count = fd ? read(fd.get(), text, 36) : 0;
    return count == 36 ? text : "";
}

double number_at(const json &list, size_t index) {
    return list.is_array() && index < list.size() && list[index].is_number() ? list[index].get<double>() : -1;
}

int64_t wall_seconds(double at, const moment &now) {
    return std::llround(static_cast<double>(now.wall) / 1000 - (now.mono - at));
}

}  // namespace

// ---- 1 states -------------------------------------------------------------------------------------------------------

const char *shown_name(shown is) { return names[static_cast<size_t>(is)]; }

shown shown_state(const knowledge &known, const moment &now) {
    switch (known.is(now)) {
    case health::up: return shown::up;
    case health::degraded: return shown::degraded;
    case health::connecting: return shown::connecting;
    case health::unknown: return shown::unknown;
    case health::down: break;
    }
    const std::string &code = known.why.why.code;
    return code == "stopped-by-order" || code == "never-started" ? shown::stopped : shown::down;
}

void history::add(const state_change &next) {
    if (!states_.empty() && states_.back().is == next.is && states_.back().reason == next.reason) return;
    // A reason that becomes known a moment later belongs to the same state.
    if (!states_.empty() && states_.back().is == next.is && states_.back().reason == 0 &&
        next.at - states_.back().at < soon)
        states_.back().reason = next.reason;
    else states_.push_back(next);
    if (states_.size() > most_states) join_shortest();
    is_unsaved_ = true;
}

// Too many changes for a day: the shortest state and its neighbour become one, which is the worse of the two. So the
// band keeps its length, and no outage vanishes from it.
void history::join_shortest() {
    size_t shortest = 0;
    for (size_t i = 1; i + 2 < states_.size(); i++)
        if (states_[i + 1].at - states_[i].at < states_[shortest + 1].at - states_[shortest].at) shortest = i;
    state_change &first = states_[shortest], &second = states_[shortest + 1];
    if (second.is > first.is) first = {first.at, second.is, second.reason};
    states_.erase(states_.begin() + static_cast<ptrdiff_t>(shortest) + 1);
}

void history::forget_old(double now) {
    while (states_.size() > 1 && states_[1].at <= now - span) states_.pop_front();
    while (!samples_.empty() && samples_.front().at < now - span) samples_.pop_front();
}

// ---- 2 samples ------------------------------------------------------------------------------------------------------

// A step in which the daemon reported nothing is left out.
void history::end_step(const counter_book &book, double now) {
    sums sum = sums_of(book);
    if (has_reports_) {
        samples_.push_back({step_began_, sum[0] - base_[0], sum[1] - base_[1], sum[2] - base_[2], sum[3] - base_[3]});
        is_unsaved_ = true;
    }
    step_began_  = now - std::fmod(now, step);
    base_        = sum;
    has_reports_ = false;
}

void history::look(const knowledge &known, const moment &now) {
    add({now.mono, shown_state(known, now), place_of(known.why.why.code)});
    double reported = known.state.stats.known() ? known.state.stats.last.mono : 0;
    if (step_began_ < 0) {
        step_began_  = now.mono - std::fmod(now.mono, step);
        base_        = sums_of(known.book);
        last_report_ = reported;
    }
    if (reported > last_report_) has_reports_ = true;
    last_report_ = reported;
    if (now.mono >= step_began_ + step) end_step(known.book, now.mono);
    forget_old(now.mono);
    bool is_due = now.mono >= next_save_ && (is_unsaved_ || now.mono >= next_save_ + step);
    if (!is_due) return;
    std::string error = save(now);
    if (!error.empty() && error != error_) log_failure("history", error.c_str());
    error_ = error;
}

// ---- 3 what is shown ------------------------------------------------------------------------------------------------

json history::describe(const moment &now) const {
    int64_t present_second = now.wall / 1000, begin = present_second - static_cast<int64_t>(span);
    json    states = json::array(), samples = json::array();
    if (states_.empty() || wall_seconds(states_.front().at, now) > begin)
        states.push_back({{"at", begin}, {"state", "unknown"}, {"reason", ""}});
    for (const state_change &each : states_)
        states.push_back({{"at", std::min(wall_seconds(each.at, now), present_second)},
                          {"state", shown_name(each.is)},
                          {"reason", reason_at(each.reason)}});
    for (const sample &each : samples_)
        samples.push_back({{"at", wall_seconds(each.at, now)},
                           {"packets_out", each.packets_out},
                           {"packets_in", each.packets_in},
                           {"errors", each.errors},
                           {"invalid", each.invalid}});
    return {{"now", present_second},
            {"span", static_cast<int>(span)},
            {"step", static_cast<int>(step)},
            {"states", states},
            {"samples", samples}};
}

// ---- 4 what is kept -------------------------------------------------------------------------------------------------

std::string history::save(const moment &now) {
    next_save_  = now.mono + soon;
    is_unsaved_ = false;
    if (path_.empty()) return "";
    json states = json::array(), samples = json::array();
    for (const state_change &each : states_)
        states.push_back({std::round(each.at), names[static_cast<size_t>(each.is)], reason_at(each.reason)});
    for (const sample &each : samples_)
        samples.push_back({std::round(each.at), each.packets_out, each.packets_in, each.errors, each.invalid});
    return write_memory(path_, {{"schema", schema_number},
                                {"boot", boot()},
                                {"mono", now.mono},
                                {"wall", now.wall},
                                {"states", states},
                                {"samples", samples}});
}

// shift: what is added to the kept monotonic times. What would lie in the future, or in no order, is not taken.
void history::take(const json &kept, double shift, const moment &now) {
    double last = -1e18;
    for (const json &each : kept.value("states", json::array())) {
        double at   = number_at(each, 0) + shift;
        bool   good = each.is_array() && each.size() == 3 && each[0].is_number() && each[1].is_string() &&
                    each[2].is_string() && at >= last && at <= now.mono && states_.size() < most_states;
        auto name = good ? std::find(std::begin(names), std::end(names), each[1].get<std::string>()) : std::end(names);
        if (name == std::end(names)) continue;
        last = at;
        states_.push_back({at, static_cast<shown>(name - names), place_of(each[2].get<std::string>())});
    }
    last = -1e18;
    for (const json &each : kept.value("samples", json::array())) {
        double at   = number_at(each, 0) + shift;
        bool   good = each.is_array() && each.size() == 5 && at > last && at <= now.mono &&
                    samples_.size() < static_cast<size_t>(span / step) + 1;
        for (size_t i = 1; good && i < 5; i++) good = each[i].is_number_unsigned();
        if (!good) continue;
        last = at;
        samples_.push_back(
            {at, each[1].get<uint64_t>(), each[2].get<uint64_t>(), each[3].get<uint64_t>(), each[4].get<uint64_t>()});
    }
}

void history::load(const moment &now) {
    if (path_.empty()) return;
    json kept = read_memory(path_);
    if (!kept.is_object()) return;
    json states = kept.value("states", json()), samples = kept.value("samples", json());
    json mono = kept.value("mono", json()), wall = kept.value("wall", json());
    if (!states.is_array() || !samples.is_array() || !mono.is_number() || !wall.is_number_integer()) return;
    // In another boot only the wall's clock tells how long ago it was.
    double shift        = 0;
    bool   is_same_boot = !boot().empty() && kept.value("boot", json("")) == boot();
    if (!is_same_boot)
        shift = now.mono - mono.get<double>() - static_cast<double>(now.wall - wall.get<int64_t>()) / 1000;
    take(kept, shift, now);
    double ended = mono.get<double>() + shift;
    if (!states_.empty() && ended <= now.mono)
        states_.push_back({std::max(ended, states_.back().at), shown::unknown, 0});
    forget_old(now.mono);
}

}  // namespace wlcctl
