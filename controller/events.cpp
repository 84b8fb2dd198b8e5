#include "events.h"

#include <ctime>

namespace wlcctl {

moment present() {
    timespec mono{}, wall{};
    clock_gettime(CLOCK_MONOTONIC, &mono);
    clock_gettime(CLOCK_REALTIME, &wall);
    return {static_cast<double>(mono.tv_sec) + static_cast<double>(mono.tv_nsec) / 1e9,
            static_cast<int64_t>(wall.tv_sec) * 1000 + wall.tv_nsec / 1000000};
}

std::string wall_text(int64_t wall_ms) {
    time_t seconds = static_cast<time_t>(wall_ms / 1000);
    tm     parts{};
    gmtime_r(&seconds, &parts);
    char day[32], text[48];
    strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    snprintf(text, sizeof text, "%s.%03dZ", day, static_cast<int>(wall_ms % 1000));
    return text;
}

std::string json_line(const json &value) { return value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n"; }

uint64_t event_log::add(const moment &now, const char *kind, const json &members) {
    json whole = {{"event", ++m_last},
                  {"time", wall_text(now.wall)},
                  {"mono", static_cast<double>(static_cast<int64_t>(now.mono * 1000)) / 1000},
                  {"kind", kind}};
    if (members.is_object())
        for (const auto &[key, value] : members.items()) whole[key] = value;

    m_kept.push_back({m_last, kind, json_line(whole)});
    if (m_kept.size() > events_kept) m_kept.pop_front();
    if (on_event) on_event(m_kept.back(), whole);
    return m_last;
}

}  // namespace wlcctl
