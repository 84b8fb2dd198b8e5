#include "event_log.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace common {

namespace {

// Sixteen hexadecimal digits that no other life of the program has.
std::string draw_stream() {
    uint64_t value = 0;
    if (getrandom(&value, sizeof value, 0) != sizeof value)
        value = static_cast<uint64_t>(present().wall) << 16 ^ getpid();
    char text[24];
    snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

event_log::event_log(std::vector<event_kind> kinds, size_t most, size_t most_bytes)
    : kinds_(std::move(kinds)), most_(most), most_bytes_(most_bytes), stream_(draw_stream()) {
    head_ = "{\"schema\":" + std::to_string(schema_number) + ",\"stream\":\"" + stream_ + "\",";
}

const event_kind *event_log::find_kind(const char *name) const {
    auto found = std::find_if(kinds_.begin(), kinds_.end(),
                              [&](const event_kind &k) { return strcmp(k.name, name) == 0; });
    return found == kinds_.end() ? nullptr : &*found;
}

uint64_t event_log::add(const moment &when, const char *kind, const json &members) {
    const event_kind *known = find_kind(kind);
    if (!known) throw std::logic_error(std::string("no such kind of event: ") + kind);

    json whole = {{"event", kind},
                  {"number", ++last_},
                  {"time", wall_text(when.wall)},
                  {"mono", std::floor(when.mono * 1000) / 1000}};
    if (members.is_object())
        for (const auto &[name, value] : members.items()) whole[name] = value;

    std::string body = json_line(whole);
    body.pop_back();
    body.erase(0, 1);
    body.shrink_to_fit();
    kept_bytes_ += body.size();
    kept_.push_back({last_, known->name, std::move(body)});
    while (kept_.size() > most_ || (kept_bytes_ > most_bytes_ && kept_.size() > 1)) {
        kept_bytes_ -= kept_.front().body.size();
        kept_.pop_front();
    }
    uint64_t number = last_;
    event    newest = kept_.back();  // a listener may add further events
    for (const listener &each : listeners_) each(newest, whole);
    return number;
}

uint64_t event_log::add(const moment &when, const char *kind) { return add(when, kind, nullptr); }
uint64_t event_log::add(const char *kind, const json &members) { return add(present(), kind, members); }
uint64_t event_log::add(const char *kind) { return add(present(), kind, nullptr); }

uint64_t event_log::lost(uint64_t since) const {
    uint64_t oldest = last_ - kept_.size() + 1;
    return since + 1 < oldest ? oldest - since - 1 : 0;
}

bool event_filter::accepts(const event_log &log, const event &e) const {
    if (!kinds.empty() && !kinds.contains(e.kind)) return false;
    if (match.empty()) return true;
    json members = json::parse(log.text(e), nullptr, false), wanted = json::parse(match, nullptr, false);
    return std::all_of(wanted.items().begin(), wanted.items().end(), [&](const auto &item) {
        auto found = members.find(item.key());
        return found != members.end() && *found == item.value();
    });
}

}  // namespace common
