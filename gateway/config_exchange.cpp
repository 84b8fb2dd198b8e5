#include "config_exchange.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace gw {

namespace {

constexpr int32_t least_dpd = 5;  // seconds; a fifth of it is the divisor of the client's DPD timer

constexpr struct {
    std::string_view           name;
    std::optional<std::string> config_request::*field;
} request_headers[] = {
    {"X-CSTP-Address:", &config_request::address},        {"X-CSTP-Device-ID:", &config_request::device_id},
    {"X-CSTP-Cookie:", &config_request::cookie},          {"X-CSTP-Device-Name:", &config_request::name},
    {"X-CSTP-Device-SerialNo:", &config_request::serial},
};

void take_request_line(std::string_view line, config_request &request) {
    for (const auto &header : request_headers) {
        if (!line.starts_with(header.name)) continue;
        auto &field = request.*header.field;
        if (!field) field = std::string(line.substr(header.name.size()));
        return;
    }
}

}  // namespace

config_request parse_config_request(std::string_view text) {
    config_request request;
    while (!text.empty()) {
        size_t end = text.find('\n');
        take_request_line(text.substr(0, end), request);
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return request;
}

std::string config_response_text(const header_list &headers) {
    std::string text;
    for (const auto &[name, value] : headers) text += name + ":" + value + "\n";
    return text;
}

std::optional<std::string> response_value(std::string_view text, std::string_view name) {
    text      = text.substr(0, text.find('\0'));  // a client treats the payload as a C string
    size_t at = text.find(std::string(name) + ":");
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view value = text.substr(at + name.size() + 1);
    return std::string(value.substr(0, value.find('\n')));
}

bool has_fatal_dpd(std::string_view text) {
    auto value = response_value(text, "X-CSTP-DPD");
    if (!value) return false;
    return static_cast<int32_t>(strtol(value->c_str(), nullptr, 10)) < least_dpd;
}

void header_overrides::set(const std::string &name, value_list values, bool once) {
    auto same  = [&](const override_entry &entry) { return entry.name == name && entry.once == once; };
    auto found = std::find_if(entries_.begin(), entries_.end(), same);
    if (found != entries_.end()) found->values = std::move(values);
    else entries_.push_back({name, std::move(values), once});
}

bool header_overrides::unset(const std::string &name) {
    return std::erase_if(entries_, [&](const override_entry &entry) { return entry.name == name; }) > 0;
}

void header_overrides::forget_once() {
    std::erase_if(entries_, [](const override_entry &entry) { return entry.once; });
}

namespace {

void replace_header(header_list &headers, const header_overrides::override_entry &entry) {
    auto   is_same = [&](const auto &header) { return header.first == entry.name; };
    size_t at      = static_cast<size_t>(std::find_if(headers.begin(), headers.end(), is_same) - headers.begin());
    std::erase_if(headers, is_same);
    for (const std::string &value : entry.values) {
        headers.insert(headers.begin() + static_cast<ptrdiff_t>(at), {entry.name, value});
        at++;
    }
}

}  // namespace

void header_overrides::apply(header_list &headers) const {
    for (bool once : {false, true}) {
        for (const override_entry &entry : entries_) {
            if (entry.once == once) replace_header(headers, entry);
        }
    }
}

}  // namespace gw
