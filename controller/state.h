// What is known about the daemon and its tunnel: what was reported, when, and how sure it is.
// No descriptor and no clock of its own: the agent tells it what came, what went, and the time. Called on the agent's
// one thread.
#pragma once

#include "base.h"
#include "wire.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace wlcctl {

enum class source {
    unknown,
    reported,    // the daemon said so in a message
    inferred,    // concluded; the note says from what
    logged,      // the daemon's log says so
    remembered,  // known to an earlier agent, of the same process of the daemon
};
const char *source_name(source how);

// A value with its age and its source. An unknown fact may remember what was known before the daemon began afresh.
template <class T>
struct fact {
    source           how = source::unknown;
    T                value{};
    moment           last;   // when it was last reported or concluded
    moment           since;  // when it became what it is
    std::string      note;   // what it was concluded from, or what to bear in mind
    std::optional<T> old;
    moment           old_last;

    bool known() const { return how != source::unknown; }
    bool is(const T &other) const { return known() && value == other; }

    void set(source by, const T &to, const moment &now, const std::string &why = "") {
        if (!known() || !(value == to)) since = now;
        how   = by;
        value = to;
        last  = now;
        note  = why;
    }

    void forget(const std::string &why) {
        if (known()) {
            old      = value;
            old_last = last;
        }
        how   = source::unknown;
        value = T{};
        note  = why;
    }
};

enum class tunnel {
    down,
    in_progress,
    up
};
const char *tunnel_name(const fact<tunnel> &state);

// A hook to run: which, and the number of the event that caused it.
enum class hook_kind {
    up,
    down,
    dns
};
struct trigger {
    hook_kind kind;
    uint64_t  event;
};

// The last start, stop or restart that was sent.
struct command {
    uint32_t id = 0;  // 0: none
    moment   at;
    bool     answered = false;  // a start was accepted or refused, a stop was read
};

class controller_state {
public:
    // log: takes the events. is_daemon_alive: true when the process whose id was reported certainly still runs.
    controller_state(event_log &log, std::function<bool()> is_daemon_alive)
        : log_(log), is_daemon_alive_(std::move(is_daemon_alive)) {}

    // A record came from the daemon. is_of_second: a process id that another one answered, beside the daemon known.
    void on_message(const message &m, const moment &now, bool is_of_second = false);

    // A record with this id was written to the daemon. The order of calls is the order of writing.
    void on_sent(uint32_t id, const moment &now);

    // The next statistics answer a question of our own, and are no event.
    void expect_quiet_statistics() { is_next_quiet_ = true; }

    // Somebody reads, or nobody reads, the daemon's pipe (checked every second and at every write).
    void on_daemon_reader(bool has_reader, const moment &now);

    // What the messages say, for `status`.
    json describe(const moment &now) const;

    // Takes what was known before as known: no event, no hook.
    void restore_tunnel(tunnel is, source how, const moment &since, const moment &now);

    // A process of the daemon that was looked up.
    void on_process_found(int32_t id, const moment &now);

    // The one sentence that explains the tunnel's state, may be empty.
    std::string explain_tunnel(const moment &now) const;

    // True when the daemon, due to report every minute, has not been heard for so long that an "up" is no longer
    // believed.
    bool is_silent(const moment &now) const;

    // Process queries are answered in the order of the pipe: when the answer to query `number` is there, the
    // daemon has handled everything written before it.
    uint64_t queries_sent() const { return queries_sent_; }
    bool     is_answered(uint64_t number) const { return queries_answered_ >= number; }

    // Takes the hooks that became due, in order.
    std::vector<trigger> take_triggers() { return std::exchange(triggers_, {}); }

    // Facts, read by the agent.
    fact<tunnel>                   tun;
    fact<std::string>              cause;    // of the last down
    fact<bool>                     running;  // the daemon
    fact<int32_t>                  pid;
    fact<bool>                     enabled;  // the feature
    fact<std::string>              inner_ip;
    fact<std::vector<std::string>> dns;
    uint32_t                       dns_count = 0;
    fact<counters>                 stats;
    command                        last_command;
    std::optional<moment>          last_word;  // the daemon's last message

    // Counts of what came, so that a waiting verb can tell what came after it began.
    uint64_t starts_accepted = 0;
    uint64_t starts_refused  = 0;
    uint64_t ups             = 0;
    uint64_t hellos          = 0;
    uint64_t beginnings      = 0;  // times that the daemon began afresh
    uint64_t name_queries    = 0;
    moment   last_name_query;

private:
    void on_hello(const moment &now);
    void on_in_progress(const moment &now);
    void on_up(const moment &now);
    void on_down(const message &m, const moment &now);
    void on_dns(const message &m, const moment &now);
    void on_statistics(const message &m, const moment &now);
    void on_process(const message &m, const moment &now, bool is_of_second);
    void conclude_answered_query(const moment &now);
    void set_tunnel(tunnel to, source how, const moment &now, const std::string &why);
    void begin_afresh(const char *reason, double patience, const moment &now);
    void forget_reports(const std::string &why, double patience, const moment &now);

    event_log                              &log_;
    std::function<bool()>                   is_daemon_alive_;
    std::vector<trigger>                    triggers_;
    std::optional<std::vector<std::string>> dns_of_last_hook_;  // none: the next report runs the hook

    struct query {
        uint64_t number;
        double   sent;  // monotonic seconds
    };
    std::deque<query> outstanding_;  // process queries whose answer is awaited, oldest first
    uint64_t          queries_sent_     = 0;
    uint64_t          queries_answered_ = 0;  // number of the newest answered one
    uint64_t          stop_query_       = 0;  // answered: the daemon has read the stop; 0: none awaited
    uint64_t          probe_query_ = 0;  // answered: a request for statistics before it was handled; 0: none awaited
    moment            probe_at_;         // when statistics were asked for
    bool              is_next_quiet_ = false;
    bool              stats_asked_   = false;  // the next process query completes a probe
    bool              stop_sent_     = false;  // the next process query confirms a stop
    bool              start_sent_    = false;  // an accepted start enables the feature
    moment            hello_sent_;
    unsigned          hellos_expected_  = 0;
    uint64_t          queries_at_start_ = 0;  // name queries up to the last accepted start
};

}  // namespace wlcctl
