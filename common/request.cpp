#include "request.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "log.h"

namespace common {

namespace {

constexpr size_t shown_width = 64;     // bytes of a foreign word in a sentence
constexpr double day         = 86400;  // seconds

double      highest_of(const member &m) { return m.highest == 0 ? day : m.highest; }
std::string whole_text(double value) { return std::to_string(static_cast<uint64_t>(value)); }

const char *type_word(member_type type) {
    switch (type) {
    case member_type::flag: return "flag";
    case member_type::text: return "text";
    case member_type::number: return "number";
    case member_type::seconds: return "seconds";
    case member_type::texts: return "texts";
    case member_type::object: return "object";
    case member_type::any: break;
    }
    return "any";
}

void check_word(const member &m, const json &value) {
    if (!value.is_string()) throw refusal(std::string("\"") + m.name + "\" must be a text");
    const auto &word = value.get_ref<const std::string &>();
    if (m.words.empty() || std::find(m.words.begin(), m.words.end(), word) != m.words.end()) return;
    throw refusal(std::string("\"") + m.name + "\" cannot be \"" + printable(word, shown_width) +
                  "\"; there are: " + list_text(m.words));
}

void check_texts(const member &m, const json &value) {
    if (value.is_string()) return check_word(m, value);
    if (!value.is_array()) throw refusal(std::string("\"") + m.name + "\" must be a list of texts");
    for (const json &each : value) check_word(m, each);
}

bool is_in_range(const member &m, const json &value) {
    if (m.type == member_type::seconds) {
        double seconds = value.is_number() ? value.get<double>() : -1;
        return seconds >= 0 && seconds <= highest_of(m);
    }
    return value.is_number_unsigned() && (m.highest == 0 || value.get<double>() <= m.highest);
}

void check_member(const member &m, const json &value) {
    std::string name = std::string("\"") + m.name + "\"";
    switch (m.type) {
    case member_type::flag:
        if (!value.is_boolean()) throw refusal(name + " must be true or false");
        return;
    case member_type::text: return check_word(m, value);
    case member_type::texts: return check_texts(m, value);
    case member_type::object:
        if (!value.is_object()) throw refusal(name + " must be an object");
        return;
    case member_type::seconds:
        if (!value.is_null() && !is_in_range(m, value))
            throw refusal(name + " must be a number of seconds from 0 to " + whole_text(highest_of(m)));
        return;
    case member_type::number:
        if (!is_in_range(m, value))
            throw refusal(name + " must be a whole number, not below 0" +
                          (m.highest == 0 ? "" : " and not above " + whole_text(m.highest)));
        return;
    case member_type::any: return;
    }
}

}  // namespace

std::string list_text(const std::vector<std::string> &words) {
    std::string list;
    for (const std::string &word : words) list += (list.empty() ? "" : ", ") + word;
    return list.empty() ? "none" : list;
}

void check_request(const json &request, const request_type &type) {
    std::vector<std::string> names;
    for (const member &m : type.members) names.emplace_back(m.name);

    for (const auto &[name, value] : request.items()) {
        if (name == "request" || name == "id") continue;
        auto at = std::find(names.begin(), names.end(), name);
        if (at == names.end())
            throw refusal(std::string("\"") + type.name + "\" has no member \"" + printable(name, shown_width) +
                          "\"; there are: " + list_text(names));
        check_member(type.members[static_cast<size_t>(at - names.begin())], value);
    }
    for (const member &m : type.members)
        if (m.is_needed && !request.contains(m.name))
            throw refusal(std::string("\"") + type.name + "\" needs the member \"" + m.name + "\"");
}

json describe_request(const request_type &type) {
    json members = json::array();
    for (const member &m : type.members) {
        json each = {{"name", m.name}, {"type", type_word(m.type)}, {"needed", m.is_needed}, {"help", m.help}};
        if (!m.words.empty()) each["words"] = m.words;
        members.push_back(each);
    }
    return {{"request", type.name}, {"help", type.help}, {"reading", type.is_reading}, {"members", members}};
}

namespace {

const json *find(const json &request, const char *member) {
    auto at = request.find(member);
    return at == request.end() || at->is_null() ? nullptr : &*at;
}

}  // namespace

bool flag_of(const json &request, const char *member, bool standard) {
    const json *value = find(request, member);
    return value ? value->get<bool>() : standard;
}

std::string text_of(const json &request, const char *member, const std::string &standard) {
    const json *value = find(request, member);
    return value ? value->get<std::string>() : standard;
}

uint64_t number_of(const json &request, const char *member, uint64_t standard) {
    const json *value = find(request, member);
    return value ? value->get<uint64_t>() : standard;
}

std::optional<double> seconds_of(const json &request, const char *member) {
    const json *value = find(request, member);
    return value ? std::optional<double>(value->get<double>()) : std::nullopt;
}

std::set<std::string> texts_of(const json &request, const char *member) {
    const json *value = find(request, member);
    if (!value) return {};
    if (value->is_string()) return {value->get<std::string>()};
    std::set<std::string> texts;
    for (const json &each : *value) texts.insert(each.get<std::string>());
    return texts;
}

}  // namespace common
