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

double number_at(const json &object, const char *name) {
    auto at = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && at != object.end() && at->is_number() ? at->get<double>() : -1e18;
}

uint64_t count_at(const json &object, const char *name) {
    double value = number_at(object, name);
    return value >= 0 && value < 1e18 ? static_cast<uint64_t>(value) : 0;
}

std::string text_at(const json &object, const char *name) {
    auto at = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && at != object.end() && at->is_string() ? at->get<std::string>() : "";
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

// Too many changes for a day: the two neighbours that are shortest together become one, which is the worse of the two.
// So the band keeps its length, and no outage vanishes from it.
void history::join_shortest() {
    auto   length   = [this](size_t i) { return states_[i + 2].at - states_[i].at; };
    size_t shortest = 0;
    for (size_t i = 1; i + 2 < states_.size(); i++)
        if (length(i) < length(shortest)) shortest = i;
    state_change &first = states_[shortest], &second = states_[shortest + 1];
    if (second.is > first.is) first = {first.at, second.is, second.reason};
    states_.erase(states_.begin() + static_cast<ptrdiff_t>(shortest) + 1);
}

void history::forget_old(double now) {
    while (states_.size() > 1 && states_[1].at <= now - span) states_.erase(states_.begin());
    while (!samples_.empty() && samples_.front().at < now - span) samples_.erase(samples_.begin());
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

// All of it is numbers and words of our own: nothing needs escaping.
std::string history::states_text(const moment &now) const {
    int64_t     present_second = now.wall / 1000, begin = present_second - static_cast<int64_t>(span);
    char        line[120];
    std::string all;
    if (states_.empty() || wall_seconds(states_.front().at, now) > begin) {
        snprintf(line, sizeof line, "{\"at\":%lld,\"state\":\"unknown\",\"reason\":\"\"},",
                 static_cast<long long>(begin));
        all = line;
    }
    for (const state_change &each : states_) {
        snprintf(line, sizeof line, "{\"at\":%lld,\"state\":\"%s\",\"reason\":\"%s\"},",
                 static_cast<long long>(std::min(wall_seconds(each.at, now), present_second)), shown_name(each.is),
                 reason_at(each.reason));
        all += line;
    }
    if (!all.empty()) all.pop_back();
    return all;
}

std::string history::samples_text(const moment &now) const {
    char        line[200];
    std::string all;
    for (const sample &each : samples_) {
        snprintf(line, sizeof line,
                 "{\"at\":%lld,\"packets_out\":%llu,\"packets_in\":%llu,\"errors\":%llu,\"invalid\":%llu},",
                 static_cast<long long>(wall_seconds(each.at, now)), static_cast<unsigned long long>(each.packets_out),
                 static_cast<unsigned long long>(each.packets_in), static_cast<unsigned long long>(each.errors),
                 static_cast<unsigned long long>(each.invalid));
        all += line;
    }
    if (!all.empty()) all.pop_back();
    return all;
}

std::string history::describe(const moment &now) const {
    char head[80];
    snprintf(head, sizeof head, "\"now\":%lld,\"span\":%d,\"step\":%d", static_cast<long long>(now.wall / 1000),
             static_cast<int>(span), static_cast<int>(step));
    return head + (",\"states\":[" + states_text(now) + "],\"samples\":[" + samples_text(now) + "]");
}

// ---- 4 what is kept -------------------------------------------------------------------------------------------------

std::string history::save(const moment &now) {
    next_save_  = now.mono + soon;
    is_unsaved_ = false;
    if (path_.empty()) return "";
    return write_memory(path_, "{\"schema\":" + std::to_string(schema_number) + ",\"boot\":\"" + boot() +
                                   "\",\"mono\":" + std::to_string(now.mono) + "," + describe(now) + "}\n");
}

// shift: from the wall's seconds to the present monotonic clock. What would lie in the future, or in no order, is not
// taken.
void history::take(const json &kept, double shift, const moment &now) {
    double last = -1e15;
    for (const json &each : kept["states"]) {
        double      at   = number_at(each, "at") + shift;
        std::string word = text_at(each, "state");
        auto        name = std::find(std::begin(names), std::end(names), word);
        if (at < last || at > now.mono || name == std::end(names) || states_.size() >= most_states) continue;
        last = at;
        states_.push_back({at, static_cast<shown>(name - names), place_of(text_at(each, "reason"))});
    }
    last = -1e15;
    for (const json &each : kept["samples"]) {
        double at = number_at(each, "at") + shift;
        if (at <= last || at > now.mono || samples_.size() > static_cast<size_t>(span / step)) continue;
        last = at;
        samples_.push_back({at, count_at(each, "packets_out"), count_at(each, "packets_in"), count_at(each, "errors"),
                            count_at(each, "invalid")});
    }
}

void history::load(const moment &now) {
    if (path_.empty()) return;
    json kept = read_memory(path_);
    if (!kept.is_object() || !kept.contains("states") || !kept["states"].is_array() || !kept.contains("samples") ||
        !kept["samples"].is_array())
        return;
    // In another boot only the wall's clock tells how long ago it was.
    double mono = number_at(kept, "mono"), wall = number_at(kept, "now");
    bool   is_same_boot = !boot().empty() && text_at(kept, "boot") == boot();
    double shift        = is_same_boot ? mono - wall : now.mono - static_cast<double>(now.wall) / 1000;
    take(kept, shift, now);
    double ended = wall + shift;
    if (!states_.empty() && ended <= now.mono)
        states_.push_back({std::max(ended, states_.back().at), shown::unknown, 0});
    forget_old(now.mono);
}

}  // namespace wlcctl
