#include "logtext.h"

#include <algorithm>
#include <charconv>
#include <ctime>

namespace wlcctl {

namespace {

constexpr std::string_view head        = "\nTLSC[";
constexpr size_t           entry_limit = 4096;  // bytes; the daemon cuts at 1023

// Takes the part up to `end` off the text; false if it is not there within `limit`.
bool take_until(std::string_view &text, std::string_view end, std::string_view &part, size_t limit = 128) {
    size_t at = text.substr(0, limit + end.size()).find(end);
    if (at == std::string_view::npos) return false;
    part = text.substr(0, at);
    text.remove_prefix(at + end.size());
    return true;
}

// "%Y-%m-%d_%H_%M_%S" in local time.
int64_t parse_time(std::string_view text) {
    tm parts{};
    if (text.size() != 19 || !strptime(std::string(text).c_str(), "%Y-%m-%d_%H_%M_%S", &parts)) return 0;
    parts.tm_isdst = -1;
    time_t seconds = mktime(&parts);
    return seconds > 0 ? static_cast<int64_t>(seconds) * 1000 : 0;
}

constexpr const char *level_words[]      = {"ERROR", "WARNING", "INFO", "DEBUG", "SSL_DEBUG"};
constexpr const char *controller_words[] = {"errors", "warnings", "info", "debug", "ssl-dbg"};

}  // namespace

bool parse_log_entry(std::string_view text, log_entry &entry) {
    std::string_view number, time, level, place, function;
    if (text.substr(0, 5) != "TLSC[") return false;
    text.remove_prefix(5);
    if (!take_until(text, "]: ", number, 10) || !take_until(text, " ", time, 20) ||
        !take_until(text, " [", level, 12) || !take_until(text, "] [", place) || !take_until(text, "] ", function))
        return false;
    auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), entry.number);
    if (error != std::errc{} || end != number.data() + number.size()) return false;
    while (!level.empty() && level.back() == ' ') level.remove_suffix(1);
    entry.level = level;
    if (level_rank(entry.level) < 0) return false;
    entry.wall     = parse_time(time);
    entry.place    = place;
    entry.function = function;
    entry.text     = text.substr(0, entry_limit);
    return true;
}

void log_parser::take(std::string_view bytes) {
    pending_ += bytes;
    size_t start = pending_.compare(0, 5, "TLSC[") == 0 ? 0 : pending_.find(head);
    if (start == std::string::npos) {
        if (pending_.size() > entry_limit) pending_.erase(0, pending_.size() - head.size());
        return;
    }
    if (pending_[start] == '\n') start++;
    for (size_t next; (next = pending_.find(head, start)) != std::string::npos; start = next + 1) {
        log_entry entry;
        if (parse_log_entry(std::string_view(pending_).substr(start, next - start), entry)) each_(entry);
    }
    pending_.erase(0, start);
    if (pending_.size() > 4 * entry_limit) pending_.resize(entry_limit);  // one endless line
}

void log_parser::flush() {
    log_entry entry;
    if (parse_log_entry(pending_, entry)) each_(entry);
    pending_.clear();
}

std::string local_time_text(int64_t wall_ms) {
    auto seconds = static_cast<time_t>(wall_ms / 1000);
    tm   parts{};
    char text[64] = "";
    if (!localtime_r(&seconds, &parts)) return "";
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %z", &parts);
    return text;
}

int level_rank(const std::string &word) {
    for (size_t i = 0; i < std::size(level_words); i++)
        if (word == level_words[i] || word == controller_words[i]) return static_cast<int>(i);
    return -1;
}

}  // namespace wlcctl
