#include "redact.h"

#include "common/log.h"

#include "conf.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

// Marks of the daemon's log in front of a secret, and what ends it.
constexpr struct {
    const char *mark;
    const char *ends;
} log_marks[] = {
    {"X-CSTP-Cookie:", "\n"},
    {"Cookie received in cofig-resp: ", "\n"},
    {"Cookie: ", "\n"},
    {"psk_identity:", ",\n"},
    {"created identity '", "'\n"},
};

std::string in_json(const std::string &text) {
    std::string line = json_line(text);
    return line.substr(1, line.size() - 3);  // without quotes and line end
}

std::string redact_text(const std::string &text, const redactor &secrets) {
    if (!secrets.concerns(text)) return text;
    redactor more = secrets;
    more.hide_logged(text);
    return more.apply(text);
}

}  // namespace

void redactor::hide(const std::string &text) {
    if (text.size() < 3) return;
    for (const std::string &form : {text, in_json(text), printable(text), in_json(printable(text))})
        if (std::find(secrets_.begin(), secrets_.end(), form) == secrets_.end()) secrets_.push_back(form);
    std::sort(secrets_.begin(), secrets_.end(), [](const auto &a, const auto &b) { return a.size() > b.size(); });
}

void redactor::hide_behind(const std::string &text, const std::string &mark, const char *ends) {
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) {
        at += mark.size();
        size_t end = std::min(text.find_first_of(ends, at), text.size());
        if (text.substr(at, end - at) != "***") hide(text.substr(at, end - at));
    }
}

void redactor::hide_logged(const std::string &log_text) {
    for (const auto &each : log_marks) hide_behind(log_text, each.mark, each.ends);
}

void redactor::hide_conf(const std::string &path) {
    hide(conf_value(path, "psk_key"));
    hide(conf_value(path, "psk_identity"));
}

std::string redactor::apply(std::string text) const {
    for (const std::string &secret : secrets_)
        for (size_t at = 0; (at = text.find(secret, at)) != std::string::npos; at += 3)
            text.replace(at, secret.size(), "***");
    return text;
}

bool redactor::concerns(const std::string &text) const {
    auto holds = [&](const auto &part) { return text.find(part) != std::string::npos; };
    return std::any_of(secrets_.begin(), secrets_.end(), holds) ||
           std::any_of(std::begin(log_marks), std::end(log_marks), [&](const auto &each) { return holds(each.mark); });
}

json redacted(const json &value, const redactor &secrets) {
    if (value.is_string()) return redact_text(value.get_ref<const std::string &>(), secrets);
    if (!value.is_structured()) return value;
    json copy = value;
    for (json &each : copy) each = redacted(each, secrets);
    return copy;
}

}  // namespace wlcctl
