#include "diagnosis.h"

#include "common/log.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ctime>

// Contents: 1 reasons  2 lines of the log  3 what else happens  4 time

namespace wlcctl {

namespace {

constexpr double slow_seconds = 3;     // for a step that takes a moment when all is well
constexpr double line_reserve = 3;     // by which a line about requests may be late
constexpr double end_reserve  = 5;     // by which an answer, and the end of a silent connection, may be late
constexpr double unknown_dpd  = 300;   // seconds between two requests of which nothing is known
constexpr double longest_dpd  = 3600;  // the same, where too short a guess would end a daemon that is well
constexpr size_t recent_limit = 12;    // lines kept as evidence
constexpr size_t shown_width  = 300;
constexpr int    build_year   = (__DATE__[7] - '0') * 1000 + (__DATE__[8] - '0') * 100 + (__DATE__[9] - '0') * 10 +
                           (__DATE__[10] - '0');

bool has(const std::string &text, const char *part) { return text.find(part) != std::string::npos; }
bool begins(const std::string &text, const char *part) { return text.compare(0, strlen(part), part) == 0; }

constexpr long most = 1000000000;  // of a foreign number: as seconds, more than anybody waits

// The number behind `part`, within what makes sense; standard if there is none.
long number_behind(const std::string &text, const char *part, long standard) {
    size_t at = text.find(part);
    if (at == std::string::npos) return standard;
    return std::clamp(strtol(text.c_str() + at + strlen(part), nullptr, 10), -most, most);
}

double seconds_behind(const std::string &text, const char *part, long standard) {
    return static_cast<double>(std::max(number_behind(text, part, standard), 0L));
}

// The word behind `part` up to one of the ends.
std::string word_behind(const std::string &text, const char *part, const char *ends) {
    size_t at = text.find(part);
    if (at == std::string::npos) return "";
    at += strlen(part);
    return printable(text.substr(at, std::min(text.find_first_of(ends, at), text.size()) - at), 128);
}

// What an alert or an error of OpenSSL, of whatever series, means.
constexpr struct {
    const char *part;
    const char *code;
} tls_words[] = {
    {"unknown psk identity", "identity-unknown"},
    {"unknown_psk_identity", "identity-unknown"},
    {"psk identity not found", "identity-unknown"},
    {"bad record mac", "key-mismatch"},
    {"decrypt error", "key-mismatch"},
    {"decryption failed", "key-mismatch"},
    {"handshake failure", "no-common-cipher"},
    {"no shared cipher", "no-common-cipher"},
    {"no ciphers", "no-common-cipher"},
    {"insufficient security", "no-common-cipher"},
    {"certificate", "certificate-rejected"},
    {"unknown ca", "certificate-rejected"},
};

}  // namespace

const char *phase_name(phase step) {
    constexpr const char *names[] = {"idle",          "read", "connecting", "handshake",
                                     "configuration", "up",   "back_off",   "resolving"};
    return names[static_cast<size_t>(step)];
}

// ---- 1 reasons ------------------------------------------------------------------------------------------------------

void diagnosis::state(const char *code, const std::string &detail, const char *source, const moment &now) {
    bool is_from_log = strcmp(source, "log") == 0;
    if (is_from_log && !held.empty()) return;
    bool is_same = why.code == code && why.detail == detail;
    if (why.code != code) why.since = now;
    why.code   = code;
    why.detail = detail;
    why.source = source;
    why.last   = now;
    why.lines  = is_from_log ? recent_ : std::vector<std::string>();
    if (!is_same && on_reason) on_reason(why);
}

void diagnosis::withdraw(const char *code, const moment &now) {
    if (why.code == code) clear_blame(now);
}

void diagnosis::clear_blame(const moment &when) {
    if (why.code.empty()) return;
    why       = {};
    why.since = why.last = when;
    if (on_reason) on_reason(why);
}

// A fault that a line of the log names.
void diagnosis::blame(const char *code, const std::string &detail, const moment &when) {
    has_fault_ = true;
    state(code, detail, "log", when);
}

void diagnosis::enter(phase next, const moment &when) {
    bool is_same = step == next;
    step         = next;
    step_since   = when;
    if (!is_same && on_phase) on_phase(step);
}

void diagnosis::set_unanswered(unsigned count, const moment &when) {
    if (count == 0) first_unanswered.reset();
    else if (unanswered == 0 || !first_unanswered) first_unanswered = when;
    if (unanswered == count) return;
    unanswered = count;
    if (on_unanswered) on_unanswered(count);
}

// What was counted and expected belongs to a connection that is gone.
void diagnosis::forget_connection(const moment &when) {
    set_unanswered(0, when);
    counted_.unanswered = 0;
    last_answer.reset();
    next_line_.reset();
    next_rekey.reset();
}

// ---- 2 lines of the log ---------------------------------------------------------------------------------------------

void diagnosis::on_log(const log_entry &entry, const moment &when) {
    last_line = when;
    recent_.push_back(printable(entry.text, shown_width));
    if (recent_.size() > recent_limit) recent_.erase(recent_.begin());
    if (on_step_line(entry.text, when) || on_timer_line(entry.text, when)) return;
    (void)on_fault_line(entry, when);
}

bool diagnosis::on_step_line(const std::string &text, const moment &when) {
    if (begins(text, "Initialize tls-client")) {
        on_begun(when);
        enter(phase::read, when);
    } else if (begins(text, "tlsc_init called again")) {
        has_stopped = false;
        enter(phase::read, when);
    } else if (has(text, "tlsc_init() - svr_addr_ipv4:")) {
        on_settings(text);
    } else if (begins(text, "Server port = ")) {
        on_server_line(text, when);
    } else if (begins(text, "TCP conn established successfully")) {
        enter(phase::handshake, when);
    } else if (begins(text, "Successfully enabled SSL/TLS session to:")) {
        enter(phase::configuration, when);
    } else if (begins(text, "Process CSTP-CONFIG-RESPONSE")) {
        has_response_ = true;
    } else if (begins(text, "Client inner IP received ")) {
        inner_ip    = word_behind(text, "Client inner IP received ", " \n");
        inner_ip_at = when;
    } else if (begins(text, "TUN State changed to ")) {
        logged_up = text[strlen("TUN State changed to ")] == '1';
    } else if (begins(text, "Closing connection and bringing down tun interface")) {
        on_teardown(when);
    } else if (begins(text, "TLS Client: epoll thread exiting normally")) {
        has_stopped = true;
        last_rekey.reset();
        next_attempt.reset();
        forget_connection(when);
        enter(phase::idle, when);
    } else if (begins(text, "Log level changed to: ")) {
        is_level_low = number_behind(text, "Log level changed to: ", 2) < 2;
    } else {
        return false;
    }
    return true;
}

bool diagnosis::on_timer_line(const std::string &text, const moment &when) {
    auto in = [&](const char *part) {
        double seconds = seconds_behind(text, part, 0);
        return moment{when.mono + seconds, when.wall + static_cast<int64_t>(seconds * 1000)};
    };
    if (begins(text, "Started Rekey Timer for ")) {
        if (was_up_) last_rekey = when;
        next_rekey = in("Started Rekey Timer for ");
    } else if (begins(text, "Started DPD Timer for ")) {  // the gateway has answered
        last_answer = when;
        set_unanswered(0, when);
        dpd_seconds = seconds_behind(text, "Started DPD Timer for ", 0);
        expect_line(dpd_seconds, when);
        if (has_response_) on_up(when);
    } else if (begins(text, "Sending DPD Request [Req Retry Ref #")) {
        set_unanswered(static_cast<unsigned>(std::clamp(number_behind(text, "Ref #", 0), 0L, 1000L)) + 1, when);
        expect_line(retry_seconds, when);
    } else if (begins(text, "Started Retry Timer for ")) {
        retry_seconds  = seconds_behind(text, "Started Retry Timer for ", 20);
        is_retry_told_ = true;
        expect_line(retry_seconds, when);
    } else if (begins(text, "Started Backoff Timer for ")) {
        next_attempt = in("Started Backoff Timer for ");
        back_off     = seconds_behind(text, "Started Backoff Timer for ", 0);
        enter(phase::back_off, when);
    } else if (begins(text, "Started FQDN Resoln Timer for ")) {
        if (step != phase::up) {
            next_attempt = in("Started FQDN Resoln Timer for ");
            enter(phase::resolving, when);
        }
    } else {
        return false;
    }
    return true;
}

bool diagnosis::on_fault_line(const log_entry &entry, const moment &when) {
    const std::string &text = entry.text;
    if (begins(text, "SSL connect failed!! Error = ")) on_handshake_error(text, when);
    else if (begins(text, "ssl-connect error : ")) on_handshake_class(text, when);
    else if (begins(text, "Error [") && has(text, "SSL-Socket-fd")) on_socket_error(text, when);
    else if (begins(text, "Error [") && has(text, "TUN-Socket-fd"))
        blame("tun-missing", "the interface was removed while in use", when);
    else if (begins(text, "TCP connection failed to server") || begins(text, "Sock-fd creation failed")) {
        has_fault_ = true;
        if (why.code != "gateway-refused" && why.code != "gateway-unreachable")
            state("gateway-unreachable", gateway + " port " + std::to_string(port), "log", when);
    } else if (begins(text, "Verification failed for cert, error str = "))
        verdict_ = word_behind(text, "error str = ", "\n");
    else if (begins(text, "Could not open crl file") || begins(text, "Could not open root certificate file"))
        verdict_ = printable(text, 80);
    else if (begins(text, "Could not set the SSL Cipher: ") || begins(text, "Could not get new SSL handle"))
        blame("no-tls-context", printable(text, 120), when);
    else if (begins(text, "Retry count exceeded, no response received from Server")) blame("dpd-timeout", "", when);
    else if (begins(text, "Did not receive IP addr from GW") || begins(text, "Invalid IPv4 Client addr received") ||
             begins(text, "Could not allocate a session for prefix") || begins(text, "Could not process config resp")) {
        if (why.code != "response-rejected" || !has_fault_) blame("response-rejected", printable(text, 80), when);
    } else if (begins(text, "Error cloning tun interface")) blame("tun-missing", "/dev/net/tun cannot be opened", when);
    else if (begins(text, "IOCTL error[16]") || begins(text, "IOCTL error[22]")) is_name_taken_ = true;
    else if (begins(text, "IOCTL error[1]")) is_name_forbidden_ = true;
    else if (begins(text, "Creation of tun-intf failed")) {
        blame(is_name_forbidden_ ? "not-permitted"
              : is_name_taken_   ? "tun-busy"
                                 : "tun-missing",
              is_name_forbidden_ ? "the interface may not be made" : "", when);
        is_name_forbidden_ = is_name_taken_ = false;
    } else if (begins(text, "Successfully set the fd(")) is_name_forbidden_ = is_name_taken_ = false;
    else if (begins(text, "SSL write error received = ") && number_behind(text, "received = ", 0) != 2 &&
             number_behind(text, "received = ", 0) != 3)
        blame("connection-reset", printable(text, 120), when);
    else if (begins(text, "SSL Read error received = ")) {
        long error = number_behind(text, "received = ", 0);
        if (error == 6) blame("gateway-closed", "", when);
        else if (error != 2 && error != 3) blame("connection-reset", printable(text, 120), when);
    } else if (begins(text, "Error: The program must be run as ROOT!!"))
        blame("not-permitted", "the daemon does not run as root", when);
    else if (has(text, "while Renaming file") && has(text, "No space left"))
        blame("disk-full", printable(text, 120), when);
    else return false;
    return true;
}

// "\ntlsc_init() - svr_addr_ipv4:A, svr_port:P, management_ip:A, tun_interface_name:N, cipher_algo:C, ..."
void diagnosis::on_settings(const std::string &text) {
    gateway       = word_behind(text, "svr_addr_ipv4:", ",\n");
    port          = static_cast<int>(std::clamp(number_behind(text, "svr_port:", 0), 0L, 65535L));
    management_ip = word_behind(text, "management_ip:", ",\n");
    interface     = word_behind(text, "tun_interface_name:", ",\n");
    size_t begin = text.find("cipher_algo:"), end = text.find(", tlsc_debug_level:");
    if (begin != std::string::npos && end != std::string::npos && end > begin)
        cipher = printable(text.substr(begin + 12, end - begin - 12), 64);
}

// The port stands there in network byte order.
void diagnosis::on_server_line(const std::string &text, const moment &when) {
    port    = ntohs(static_cast<uint16_t>(number_behind(text, "Server port = ", 0)));
    gateway = word_behind(text, "Server IP(", ")\n");
    attempts++;
    has_fault_ = has_response_ = false;
    was_up_                    = step == phase::up;
    verdict_.clear();
    recent_ = {printable(text, shown_width)};
    next_attempt.reset();
    enter(phase::connecting, when);
}

void diagnosis::on_handshake_error(const std::string &text, const moment &when) {
    std::string told = word_behind(text, "Error = ", "\n"), lower = told;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    if (!verdict_.empty()) {
        time_t seconds = static_cast<time_t>(when.wall / 1000);
        tm     parts{};
        gmtime_r(&seconds, &parts);
        bool is_clock = has(verdict_, "not yet valid") && parts.tm_year + 1900 < build_year;
        return blame(is_clock ? "clock" : "certificate-rejected", verdict_, when);
    }
    for (const auto &word : tls_words)
        if (has(lower, word.part)) return blame(word.code, told, when);
    blame("tls-failed", told, when);
}

// Class 1 is told by the line behind; 5 is the connection's end.
void diagnosis::on_handshake_class(const std::string &text, const moment &when) {
    if (number_behind(text, "ssl-connect error : ", 0) == 1) return;
    bool is_end = number_behind(text, "ret-value = ", 0) == 0;
    blame(is_end ? "gateway-closed" : "connection-reset", "during the TLS handshake", when);
}

// The event mask: 8 is an error, 16 and 8192 the hang-ups.
void diagnosis::on_socket_error(const std::string &text, const moment &when) {
    bool is_reset = number_behind(text, "Error [", 0) & 8;
    blame(is_reset ? "connection-reset" : "gateway-closed", "", when);
}

// The teardown names no cause. Behind a request without a response, and with no other line before it, its guard has
// expired.
void diagnosis::on_teardown(const moment &when) {
    if (step == phase::configuration && !has_response_ && !has_fault_) blame("response-timeout", "", when);
    was_up_ = has_response_ = false;
    last_rekey.reset();
    forget_connection(when);
    inner_ip.clear();
    if (step != phase::back_off) enter(phase::back_off, when);
}

// ---- 3 what else happens --------------------------------------------------------------------------------------------

void diagnosis::on_begun(const moment &now) {
    forget_connection(now);
    counted_ = {};
    logged_up.reset();
    last_rekey.reset();
    next_attempt.reset();
    has_stopped = is_level_low = has_fault_ = has_response_ = was_up_ = false;
    attempts                                                          = 0;
    inner_ip.clear();
    if (held == "stuck") held.clear();
    enter(phase::idle, now);
}

void diagnosis::on_start_accepted(const moment &now) {
    attempts    = 0;
    has_stopped = false;
    if (step == phase::idle) enter(phase::read, now);
}

void diagnosis::on_up(const moment &now) {
    if (step != phase::up) enter(phase::up, now);
    next_attempt.reset();
    attempts    = 0;
    last_answer = now;  // the response to the configuration request
    held.clear();
    if (why.code != "disk-full" && why.code != "daemon-second") clear_blame(now);
}

void diagnosis::on_down(const moment &now) {
    forget_connection(now);
    if (step == phase::up) enter(phase::back_off, now);
}

void diagnosis::on_name_query(const moment &now) {
    if (step != phase::up) enter(phase::resolving, now);
}

// A connection of our own tells apart what the daemon's line does not.
void diagnosis::on_tcp_verdict(tcp_verdict verdict, const moment &now) {
    if (why.code != "gateway-unreachable" && why.code != "gateway-refused") return;
    std::string place = gateway + " port " + std::to_string(port);
    if (verdict == tcp_verdict::refused) state("gateway-refused", place, "agent", now);
    if (verdict == tcp_verdict::unreachable) state("gateway-unreachable", place, "agent", now);
}

// A response makes everything before it answered; requests behind it are those that it does not cover.
void diagnosis::on_counters(uint64_t requests, uint64_t responses, const moment &now) {
    bool     is_further = counted_.is_known && requests >= counted_.requests && responses >= counted_.responses;
    uint64_t asked      = is_further ? requests - counted_.requests : 0,
             told       = is_further ? responses - counted_.responses : 0;
    if (told > 0) {
        if (counted_.last_response > 0) counted_.gap = std::max(counted_.gap, now.mono - counted_.last_response);
        counted_.last_response = now.mono;
        counted_.unanswered    = 0;
    }
    if (asked > told) counted_.unanswered += static_cast<unsigned>(std::min<uint64_t>(asked - told, 1000));
    counted_.is_known  = true;
    counted_.requests  = requests;
    counted_.responses = responses;
    if (is_log_telling(now)) {
        counted_.unanswered = unanswered;
        return;
    }
    if (told > 0) last_answer = now;
    set_unanswered(counted_.unanswered, now);
}

void diagnosis::restore_unanswered(unsigned count, const moment &now) {
    counted_.unanswered = count;
    if (!is_log_telling(now)) set_unanswered(count, now);
}

// ---- 4 time ---------------------------------------------------------------------------------------------------------

void diagnosis::tick(const moment &now) {
    double waited = now.mono - step_since.mono;
    if (waited < slow_seconds) return;
    if (step == phase::connecting && !has_fault_)
        state("gateway-unreachable", gateway + " port " + std::to_string(port), "log", now);
    if (step == phase::handshake && !has_fault_)
        state("handshake-stalled", gateway + " port " + std::to_string(port), "log", now);
}

void diagnosis::expect_line(double seconds, const moment &when) { next_line_ = when.mono + seconds; }

bool diagnosis::is_log_telling(const moment &now) const {
    return !is_level_low && next_line_ && now.mono < *next_line_ + line_reserve;
}

// Seconds between an answer and the next request, as far as they are known.
double diagnosis::answer_seconds(double unknown) const {
    if (dpd_seconds > 0) return dpd_seconds;
    return counted_.gap > 0 ? counted_.gap : unknown;
}

bool diagnosis::is_answer_overdue(const moment &now) const {
    return last_answer && now.mono - last_answer->mono > answer_seconds(unknown_dpd) + retry_seconds + end_reserve;
}

// A daemon that stands in a call says nothing and sends nothing. One whose log is shut and whose times are not known
// may still be asking in its own time.
bool diagnosis::is_end_overdue(const moment &now) const {
    if (auto end = gives_up_at(); end && now.mono > *end + end_reserve) return true;
    bool   is_asking = counted_.unanswered > 0 && !is_retry_told_;
    double allowed   = (is_asking ? longest_dpd : answer_seconds(longest_dpd)) + 4 * retry_seconds + end_reserve;
    return last_answer && now.mono - last_answer->mono > allowed;
}

// Four requests, one retry time apart, and one more retry time.
std::optional<double> diagnosis::gives_up_at() const {
    if (!first_unanswered || unanswered == 0 || !is_retry_told_) return std::nullopt;
    return first_unanswered->mono + 4 * retry_seconds;
}

}  // namespace wlcctl
