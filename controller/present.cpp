#include "present.h"

#include "common/log.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

namespace wlcctl {

namespace {

constexpr size_t label_width = 13;  // column of the values in `status`
constexpr size_t value_width = 17;  // column of age and source

json member(const json &object, const char *name) {
    return object.is_object() ? object.value(name, json(nullptr)) : json(nullptr);
}

std::string text(const json &value) {
    if (value.is_string()) return printable(value.get_ref<const std::string &>());
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

// A point in time for people: date and local time, with its zone.
std::string date_of(const std::string &iso) {
    tm parts{};
    if (!strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%S", &parts)) return iso;
    time_t seconds = timegm(&parts);
    char   out[64] = "";
    if (localtime_r(&seconds, &parts)) strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S %z", &parts);
    return out;
}

std::string tunnel_line(const json &fact) {
    json shown = fact;
    if (text(fact, "value") == "in_progress") shown["value"] = "in progress";
    std::string since = fact.contains("since") ? ", so since " + date_of(text(fact, "since")) : "";
    return fact_line("Tunnel", shown, true, since);
}

std::string health_line(const json &health) {
    std::string remark;
    if (health.contains("last_answer_age")) remark = "gateway answered " + ago(number(health, "last_answer_age"));
    if (number(health, "unanswered") > 0)
        remark += (remark.empty() ? "" : ", ") + text(health, "unanswered") + " request(s) unanswered";
    if (health.contains("gives_up_in")) remark += ", given up in " + duration_text(number(health, "gives_up_in"));
    if (health.contains("note")) remark += (remark.empty() ? "" : "; ") + text(health, "note");
    return line("Health", text(health, "value"), remark);
}

std::string reason_lines(const json &reason) {
    if (!reason.is_object()) return "";
    std::string detail = text(reason, "detail");
    return line("Reason",
                text(reason, "code") + ": " + text(reason, "cause") + (detail.empty() ? "" : " (" + detail + ")"), "") +
           line("To do", text(reason, "remedy"), "");
}

std::string gateway_line(const json &gateway) {
    std::string name = text(gateway, "name"), address = text(gateway, "address");
    if (address.empty() && name.empty()) return line("Gateway", "unknown", "");
    return line("Gateway",
                (name.empty() || name == address ? address : name + " = " + address) + " port " + text(gateway, "port"),
                "cipher " + text(gateway, "cipher") + ", " + text(gateway, "source"));
}

std::string interface_line(const json &interface) {
    if (member(interface, "value").is_null()) return line("Interface", "unknown", "");
    std::string state     = member(interface, "exists") != true ? "not there"
                            : member(interface, "up") == true   ? "up"
                                                                : "down";
    std::string addresses = text(interface, "addresses");
    return line("Interface", text(interface, "value"),
                state + (member(interface, "mtu").is_null() ? "" : ", MTU " + text(interface, "mtu")) +
                    (addresses.empty() || addresses == "none" ? "" : ", " + addresses) + " (kernel)");
}

std::string in_text(const json &time) {
    double seconds = number(time, "in");
    return seconds >= 0 ? "in " + duration_text(seconds) : ago(-seconds);
}

std::string times_lines(const json &answer) {
    std::string all;
    json        rekey = member(answer, "rekey"), next = member(answer, "next_attempt");
    json        last = member(rekey, "last"), coming = member(rekey, "next");
    if (!member(coming, "value").is_null())
        all += line("Rekey", "next " + in_text(coming),
                    member(last, "value").is_null() ? "none yet" : "last " + in_text(last));
    if (!member(next, "value").is_null()) all += line("Next attempt", in_text(next), date_of(text(next, "value")));
    return all;
}

std::string hook_lines(const json &hooks) {
    std::string all;
    if (!hooks.is_object()) return all;
    for (const auto &[name, result] : hooks.items()) {
        std::string how   = member(result, "ok") == true   ? "done"
                            : number(result, "signal") > 0 ? "ended by signal " + text(result, "signal")
                                                           : "failed with " + text(result, "status");
        std::string error = text(result, "error");
        all += line(("Hook " + name).c_str(), how, ago(number(result, "age")) + (error.empty() ? "" : ": " + error));
    }
    return all;
}

std::string rates_line(const json &rates) {
    if (member(rates, "Data Pkt Tx").is_null()) return "";
    return line("Packets/s", "out " + text(rates, "Data Pkt Tx") + ", in " + text(rates, "Data Pkt Rx"), "");
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
    all += health_line(member(answer, "health"));
    all += reason_lines(member(answer, "reason"));
    all += times_lines(answer);
    if (!member(cause, "value").is_null()) all += fact_line("Last down", cause, false);
    all += daemon_line(answer);
    all += fact_line("Feature", member(answer, "feature"), true);
    all += gateway_line(member(answer, "gateway"));
    all += fact_line("Inner IP", member(answer, "inner_ip"), false);
    all += fact_line("DNS", member(answer, "dns"), false);
    all += interface_line(member(answer, "interface"));
    all += rates_line(member(answer, "rates"));
    all += statistics_line(member(answer, "statistics"));
    all += hook_lines(member(answer, "hooks"));
    all += command_line(member(answer, "last_command"));
    all += queries_line(member(answer, "name_queries"));
    return all;
}

// Groups of the counters: by their labels' beginnings, in the daemon's order.
const char *group_of(const std::string &label) {
    if (label.starts_with("Data") || label.starts_with("Ctrl") || label.starts_with("Invalid")) return "Tunnel frames";
    if (label.starts_with("Tun Pkt")) return "Interface packets";
    if (label.starts_with("DPD")) return "Keep-alive";
    if (label.starts_with("Rekey")) return "Rekey";
    if (label.starts_with("tun_alloc") || label.starts_with("tun_freed")) return "Interfaces made";
    if (label.starts_with("ssl_read")) return "TLS read errors";
    if (label.starts_with("ssl_write")) return "TLS write errors";
    if (label.starts_with("tun_read")) return "Interface read errors";
    return "Interface write errors";
}

std::string statistics_text(const json &answer) {
    json        fact = member(answer, "statistics"), counters = member(fact, "value");
    json        totals = member(answer, "totals"), rates = member(answer, "rates");
    std::string all, group;
    if (counters.is_null()) return all;
    for (const auto &[label, value] : counters.items()) {
        if (group != group_of(label)) {
            group = group_of(label);
            all += group + "\n";
        }
        std::string rate = rates.is_object() ? text(rates, label.c_str()) + "/s" : "";
        all += "  " + padded(label, 34) + padded(text(value), 14) + padded("total " + text(totals, label.c_str()), 20) +
               rate;
        all.erase(all.find_last_not_of(' ') + 1);
        all += "\n";
    }
    return all + "(" + age_and_source(fact) + (rates.is_object() ? "; rates since the last look" : "") + ")\n";
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
        if (name == "event" || name == "time" || name == "mono" || name == "number" || name == "schema" ||
            name == "stream")
            continue;
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
    std::string all = date_of(text(e, "time")) + "  #" + text(e, "number") + "  " + text(e, "event");
    if (text(e, "event") != "stats") return all + members_text(e);
    json counters = member(e, "statistics");
    return all + "  sent=" + text(counters, "Data Pkt Tx") + "  received=" + text(counters, "Data Pkt Rx");
}

std::string progress_text(const json &e) {
    std::string kind = text(e, "event"), step = text(e, "phase"), address = text(e, "address");
    if (kind == "hook_started") return "running --on-" + text(e, "hook");
    if (kind == "reason" && !member(e, "code").is_null()) return text(e, "code") + ": " + text(e, "cause");
    if (kind != "phase") return "";
    if (step == "read") return "the daemon has read the start";
    if (step == "connecting") return "connecting " + address;
    if (step == "handshake") return "handshake with " + address;
    if (step == "configuration") return "configuration";
    if (step == "up") return "up";
    return step == "back_off" ? "waiting for the next attempt" : "";
}

std::string status_line(const json &answer) {
    json        reason = member(answer, "reason");
    std::string error  = text(answer, "error");
    if (!answer.contains("tunnel")) return error;
    std::string all = "tunnel " + text(member(answer, "tunnel"), "value") + ", health " +
                      text(member(answer, "health"), "value");
    if (reason.is_object()) all += ", " + text(reason, "code") + ": " + text(reason, "cause");
    return all;
}

std::string answer_text(const json &answer) {
    std::string verb = text(answer, "request");
    if (verb == "status" && answer.contains("tunnel")) return status_text(answer);
    if (verb == "stats") return statistics_text(answer);
    if (verb == "conf show") return conf_text(answer);
    if (verb == "info" && member(answer, "exit") == 0)
        return "process " + text(member(answer, "daemon_pid"), "value") + "\n";

    std::string all;
    if (verb == "events")
        for (const json &e : member(answer, "events")) all += event_text(e) + "\n";
    if (answer.contains("note") && member(answer, "sent") == true && member(answer, "tunnel").is_null())
        return text(answer, "note") + "\n";
    if (answer.contains("tunnel")) all += tunnel_line(member(answer, "tunnel"));
    if (answer.contains("probe")) all += line("Probe", text(member(answer, "probe"), "text"), "");
    if (answer.contains("note")) all += text(answer, "note") + "\n";
    return all;
}

}  // namespace wlcctl
