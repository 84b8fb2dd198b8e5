// Turns what the daemon's log, its messages, the kernel and the agent's own looks say into one view of the tunnel: the
// step that the connection stands at, whether the gateway answers, and why the tunnel is not what it should be. No
// descriptor and no clock of its own. Called on the agent's one thread.
#pragma once

#include "base.h"
#include "logtext.h"
#include "reasons.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace wlcctl {

// The step that the daemon's connection stands at.
enum class phase {
    idle,           // nothing is tried
    read,           // a start was accepted
    connecting,     // TCP
    handshake,      // TLS
    configuration,  // request and response
    up,
    back_off,   // waits for the next attempt
    resolving,  // waits for the gateway's address
};
const char *phase_name(phase step);

struct reason {
    std::string              code;    // of the table; empty: nothing is wrong
    std::string              detail;  // a verdict, a text; may be empty
    std::string              source;  // log, message, kernel, agent
    moment                   since;
    moment                   last;
    std::vector<std::string> lines;  // of the log, the ones behind it
};

// How a TCP connection of the agent's own to the gateway went.
enum class tcp_verdict {
    unknown,
    accepted,
    refused,
    unreachable
};

class diagnosis {
public:
    // Called when the step changed, when the reason changed, and when the number of unanswered requests changed.
    std::function<void(phase step)>           on_phase;
    std::function<void(const reason &now_is)> on_reason;
    std::function<void(unsigned unanswered)>  on_unanswered;

    // A line of the daemon's log; when: its time on both clocks.
    void on_log(const log_entry &entry, const moment &when);

    // What the daemon or the agent did.
    void on_start_accepted(const moment &now);
    void on_up(const moment &now);
    void on_down(const moment &now);
    void on_begun(const moment &now);  // the daemon began, or began afresh: what its log said is old
    void on_name_query(const moment &now);
    void on_tcp_verdict(tcp_verdict verdict, const moment &now);

    // What the daemon's counters say of its requests and the responses. They decide while the log says nothing of them.
    void on_counters(uint64_t requests, uint64_t responses, const moment &now);

    // What an earlier agent counted in this connection, for a log that does not tell it.
    void restore_unanswered(unsigned count, const moment &now);

    // States the reason, or that what was stated under this code is over.
    void state(const char *code, const std::string &detail, const char *source, const moment &now);
    void withdraw(const char *code, const moment &now);

    // Time passes: a step that lasts too long is a reason. Called at least every second.
    void tick(const moment &now);

    // Whether the log tells of requests and responses: the next line about them is not overdue.
    bool is_log_telling(const moment &now) const;

    // True when the gateway has been silent for longer than one lost request explains, whoever was to tell of it.
    bool is_answer_overdue(const moment &now) const;

    // True when the daemon should have closed the connection by now, some seconds in reserve.
    bool is_end_overdue(const moment &now) const;

    // When the daemon will close a connection on which requests stay unanswered, monotonic; nothing: none do.
    std::optional<double> gives_up_at() const;

    // What is known.
    phase                 step = phase::idle;
    moment                step_since;
    reason                why;
    std::string           held;  // a code that lines of the log do not replace: they only tell what follows from it
    unsigned              unanswered = 0;  // DPD requests in a row
    std::optional<moment> first_unanswered;
    double                retry_seconds = 20;  // between two requests, once one stays unanswered
    double                dpd_seconds   = 0;   // between an answer and the next request; 0: not known
    std::string           gateway;             // address in use
    int                   port = 0;
    std::string           interface, cipher, management_ip, inner_ip;  // as the daemon says that it uses them
    std::optional<moment> last_rekey, next_rekey, next_attempt, last_answer;
    moment                inner_ip_at;
    std::optional<bool>   logged_up;             // the last "TUN State changed" of this life of the daemon
    bool                  has_stopped  = false;  // the tunnel thread's orderly end is the last that the log says
    bool                  is_level_low = false;  // the log's level hides what is needed
    uint64_t              attempts     = 0;      // connections tried since the last start
    double                back_off     = 0;      // seconds, of the wait under way
    std::optional<moment> last_line;

private:
    void   enter(phase next, const moment &when);
    void   blame(const char *code, const std::string &detail, const moment &when);
    void   clear_blame(const moment &when);
    void   set_unanswered(unsigned count, const moment &when);
    void   forget_connection(const moment &when);
    void   expect_line(double seconds, const moment &when);
    double answer_seconds(double unknown) const;
    void   on_settings(const std::string &text);
    void   on_server_line(const std::string &text, const moment &when);
    void   on_handshake_error(const std::string &text, const moment &when);
    void   on_handshake_class(const std::string &text, const moment &when);
    void   on_socket_error(const std::string &text, const moment &when);
    void   on_teardown(const moment &when);
    bool   on_step_line(const std::string &text, const moment &when);
    bool   on_timer_line(const std::string &text, const moment &when);
    bool   on_fault_line(const log_entry &entry, const moment &when);

    bool                     has_fault_    = false;   // of the present attempt, named by a line
    bool                     has_response_ = false;   // to the configuration request of the present attempt
    std::string              verdict_;                // of a certificate
    std::vector<std::string> recent_;                 // lines of the present attempt
    std::optional<double>    next_line_;              // monotonic: the next line about requests comes until then
    bool                     is_retry_told_ = false;  // retry_seconds is the log's
    struct {
        bool     is_known = false;
        uint64_t requests = 0, responses = 0;  // as last reported
        unsigned unanswered    = 0;
        double   last_response = 0, gap = 0;  // monotonic seconds; 0: none yet
    } counted_;
    bool is_name_taken_     = false;
    bool is_name_forbidden_ = false;
    bool was_up_            = false;  // the present Rekey Timer line belongs to a tunnel that was up
};

}  // namespace wlcctl
