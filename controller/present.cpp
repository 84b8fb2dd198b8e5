#include "present.h"

#include <cmath>
#include <cstdio>

namespace wlcctl {

namespace {

constexpr size_t label_width = 13;  // column of the values in `status`
constexpr size_t value_width = 17;  // column of age and source

json member(const json &object, const char *name) {
    return object.is_object() ? object.value(name, json(nullptr)) : json(nullptr);
}

std::string text(const json &value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_null()) return "";
    if (!value.is_array()) return value.dump();
    std::string list;
    for (const json &each : value) list += (list.empty() ? "" : " ") + text(each);
    return list.empty() ? "none" : list;
}

std::string text(const json &object, const char *name) { return text(member(object, name)); }

double number(const json &object, const char *name) {
    json value = member(object, name);
    return value.is_number() ? value.get<double>() : 0;
}

std::string padded(std::string s, size_t width) {
    if (s.size() < width) s.resize(width, ' ');
    return s + " ";
}

std::string ago(double seconds) { return duration_text(seconds) + " ago"; }

// "reported 12 s ago", "inferred 3 s ago", "unknown", and the value of earlier times if that is all there is.
std::string age_and_source(const json &fact) {
    std::string how = text(fact, "source");
    if (fact.contains("age")) return how + " " + ago(number(fact, "age"));
    if (!fact.contains("last")) return how == "unknown" ? "" : how;
    json        last = member(fact, "last"), value = member(last, "value");
    std::string was = value.is_object() ? "" : text(value) + ", ";
    return "last known: " + was + ago(number(last, "age"));
}

std::string line(const char *label, const std::string &value, const std::string &remark) {
    std::string all = padded(label, label_width) + (remark.empty() ? value : padded(value, value_width) + remark);
    return all + "\n";
}

std::string fact_line(const char *label, const json &fact, bool has_note, const std::string &extra = "") {
    json        value  = member(fact, "value");
    std::string remark = age_and_source(fact) + extra;
    if (has_note && fact.contains("note")) remark += (remark.empty() ? "" : "; ") + text(fact, "note");
    return line(label, value.is_null() ? "unknown" : text(value), remark);
}

// The time of day of an ISO time: 8 characters to the second, 12 to the millisecond.
std::string clock_of(const std::string &iso, size_t length) {
    return iso.size() >= 11 + length ? iso.substr(11, length) : iso;
}

std::string tunnel_line(const json &fact) {
    json shown = fact;
    if (text(fact, "value") == "in_progress") shown["value"] = "in progress";
    std::string since = fact.contains("since") ? ", so since " + clock_of(text(fact, "since"), 8) + " UTC" : "";
    return fact_line("Tunnel", shown, true, since);
}

std::string daemon_line(const json &answer) {
    json daemon = member(answer, "daemon");
    if (text(daemon, "value") == "not_running") daemon["value"] = "not running";
    std::string extra;
    if (json pid = member(member(answer, "daemon_pid"), "value"); !pid.is_null()) extra += ", process " + text(pid);
    if (!member(answer, "last_word_age").is_null()) extra += ", last heard " + ago(number(answer, "last_word_age"));
    return fact_line("Daemon", daemon, true, extra);
}

// A digest of the counters: the traffic, and whatever counts an error and is not zero.
std::string statistics_line(const json &fact) {
    json counters = member(fact, "value");
    if (counters.is_null()) return fact_line("Statistics", fact, false);
    std::string digest = "sent " + text(counters, "Data Pkt Tx") + ", received " + text(counters, "Data Pkt Rx") +
                         " data packets; rekeys " + text(counters, "Rekey Success") + " of " +
                         text(counters, "Rekey Attempts");
    for (const auto &[label, value] : counters.items()) {
        bool is_total = label.size() > 6 && label.compare(label.size() - 6, 6, "_total") == 0;
        if ((is_total || label == "Invalid Rx") && value != 0) digest += "; " + label + " " + text(value);
    }
    return line("Statistics", digest, "(" + age_and_source(fact) + ")");
}

std::string command_line(const json &command) {
    if (command.is_null()) return "";
    bool is_answered = member(command, "answered") == true;
    return line("Last command", text(command, "command"),
                "sent " + ago(number(command, "age")) + (is_answered ? ", answered" : ", not answered"));
}

std::string queries_line(const json &queries) {
    std::string mode  = text(queries, "mode");
    std::string how   = mode == "none"    ? "not answered"
                        : mode == "fixed" ? "answered with " + text(queries, "value")
                                          : "answered by looking up " + text(queries, "value");
    std::string asked = text(queries, "asked") + " asked, " + text(queries, "answered") + " answered";
    if (number(queries, "failed") > 0) asked += ", " + text(queries, "failed") + " failed";
    if (!member(queries, "last_asked_age").is_null()) asked += ", last " + ago(number(queries, "last_asked_age"));
    return line("Name queries", how, "(" + asked + ")");
}

std::string status_text(const json &answer) {
    json        cause = member(answer, "cause");
    std::string all   = tunnel_line(member(answer, "tunnel"));
    if (!member(cause, "value").is_null()) all += fact_line("Last down", cause, false);
    all += daemon_line(answer);
    all += fact_line("Feature", member(answer, "feature"), true);
    all += fact_line("Inner IP", member(answer, "inner_ip"), false);
    all += fact_line("DNS", member(answer, "dns"), false);
    all += fact_line("Interface", member(answer, "interface"), true);
    all += statistics_line(member(answer, "statistics"));
    all += command_line(member(answer, "last_command"));
    all += queries_line(member(answer, "name_queries"));
    return all;
}

std::string statistics_text(const json &fact) {
    json        counters = member(fact, "value");
    std::string all;
    if (counters.is_null()) return all;
    for (const auto &[label, value] : counters.items()) all += padded(label, 34) + text(value) + "\n";
    return all + "(" + age_and_source(fact) + ")\n";
}

std::string conf_text(const json &answer) {
    if (!answer.contains("entries")) return "";
    std::string all = text(answer, "path") + "\n";
    for (const json &entry : member(answer, "entries"))
        all += "  " + padded(text(entry, "key"), 20) + padded(text(entry, "value"), 32) +
               (member(entry, "flag") == 0 ? "read by the daemon" : "not yet read") + "\n";
    if (number(answer, "skipped") > 0)
        all += "  (" + text(answer, "skipped") + " line(s) that the daemon skips and drops)\n";
    return all;
}

// All members that follow the four common ones, as "name=value".
std::string members_text(const json &e) {
    std::string all;
    for (const auto &[name, value] : e.items()) {
        if (name == "event" || name == "time" || name == "mono" || name == "kind") continue;
        all += "  " + name + "=" +
               (value.is_string()  ? "\"" + text(value) + "\""
                : value.is_array() ? "[" + text(value) + "]"
                                   : value.dump());
    }
    return all;
}

}  // namespace

std::string duration_text(double seconds) {
    char out[64];
    long whole = std::lround(seconds);
    if (seconds < 9.95) snprintf(out, sizeof out, "%.1f s", seconds < 0 ? 0 : seconds);
    else if (whole < 60) snprintf(out, sizeof out, "%ld s", whole);
    else if (whole < 3600) snprintf(out, sizeof out, "%ld min %ld s", whole / 60, whole % 60);
    else if (whole < 86400) snprintf(out, sizeof out, "%ld h %ld min", whole / 3600, whole % 3600 / 60);
    else snprintf(out, sizeof out, "%ld d %ld h", whole / 86400, whole % 86400 / 3600);
    return out;
}

std::string event_text(const json &e) {
    std::string all = clock_of(text(e, "time"), 12) + "  #" + text(e, "event") + "  " + text(e, "kind");
    if (text(e, "kind") != "stats") return all + members_text(e);
    json counters = member(e, "statistics");
    return all + "  sent=" + text(counters, "Data Pkt Tx") + "  received=" + text(counters, "Data Pkt Rx");
}

std::string answer_text(const json &answer) {
    std::string verb = text(answer, "verb");
    if (verb == "status" && answer.contains("tunnel")) return status_text(answer);
    if (verb == "stats") return statistics_text(member(answer, "statistics"));
    if (verb == "conf show") return conf_text(answer);
    if (verb == "info" && member(answer, "exit") == 0)
        return "process " + text(member(answer, "daemon_pid"), "value") + "\n";

    std::string all;
    if (verb == "events")
        for (const json &e : member(answer, "events")) all += event_text(e) + "\n";
    if (answer.contains("note") && member(answer, "sent") == true && member(answer, "tunnel").is_null())
        return text(answer, "note") + "\n";
    if (answer.contains("tunnel")) all += tunnel_line(member(answer, "tunnel"));
    if (answer.contains("note")) all += text(answer, "note") + "\n";
    return all;
}

}  // namespace wlcctl
