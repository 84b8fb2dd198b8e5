#include "base.h"

namespace wlcctl {

const std::vector<event_kind> event_kinds = {
    {"agent_started", "the agent began; pid, keep_up"},
    {"hello", "HELLO was received; expected"},
    {"tun_in_prog", "received: a start was accepted"},
    {"tun_up", "received: the tunnel is up"},
    {"tun_down", "received: the tunnel is down; cause, code (null for an unknown text)"},
    {"inner_ip", "received: inner address; address"},
    {"dns", "received: DNS servers; count, servers"},
    {"stats", "received: statistics; statistics"},
    {"process", "received: process id; pid"},
    {"name_query", "received: the daemon asks for the gateway's address"},
    {"unknown_message", "received, not understood, ignored; id, info_type (of message 30)"},
    {"garbage", "bytes were received that are no record, and dropped; bytes"},
    {"sent", "a record was written to the daemon; id, name, and the text sent if there is one"},
    {"send_failed", "a record could not be written; id, name, error"},
    {"name_answer", "the gateway's address was chosen; address, name, source (lookup, last_good, file, option)"},
    {"name_answer_failed", "no address could be given; error"},
    {"daemon_appeared", "the daemon's pipe got a reader"},
    {"daemon_gone", "the daemon's pipe lost its reader"},
    {"daemon_began", "the daemon began, or began afresh: what was known of it is old; reason"},
    {"daemon_second", "more than one process reads the daemon's pipe; pids"},
    {"daemon_run", "the agent started the daemon itself; pid"},
    {"daemon_ended", "the daemon that the agent started has ended; status or signal, again_in (seconds)"},
    {"tunnel", "the tunnel's state changed; from, to, source, cause (when down), reason (when down)"},
    {"health", "what to expect of the tunnel changed; from, to, unanswered"},
    {"phase", "a step on the way up; phase (read, connecting, handshake, configuration, up), address"},
    {"reason", "why the tunnel is not what it should be; code (null: nothing is wrong), cause, remedy, detail, source"},
    {"stuck", "the daemon does not come back from a call; waited (seconds), action"},
    {"interface", "the tunnel's interface changed; name, exists, up, mtu, addresses"},
    {"hook_started", "a hook runs; hook, pid, for_event"},
    {"hook_ended", "a hook has ended; hook, pid, status or signal, seconds, timed_out, error (first line)"},
    {"hook_failed", "a hook could not be run, or too many were waiting; hook, error"},
    {"keep_up", "what --keep-up does; action (start, wait, refused, stopped, resumed), detail"},
};

}  // namespace wlcctl
