// What goes to the daemon: each record is an event, and what is known learns of it. Called on the loop's thread.
#pragma once

#include "base.h"
#include "known.h"
#include "pipe.h"

#include <string>

namespace wlcctl {

class orders {
public:
    orders(event_log &log, knowledge &known, daemon_pipe &pipe) : log_(log), known_(known), pipe_(pipe) {}

    // Sends a record. The second form: members that the event tells beside id and name.
    sent send(const record &r);
    sent send(const record &r, const json &members);

    // A question of our own that nobody is to read of: neither it nor its answer is an event.
    sent send_quietly(const record &r);

    // Asks for the process id: the answer proves that everything sent before was read.
    sent send_query() { return send(encode(msg_process_query)); }

    // Why the last send failed.
    const std::string &error() const { return error_; }

private:
    event_log   &log_;
    knowledge   &known_;
    daemon_pipe &pipe_;
    std::string  error_;
};

}  // namespace wlcctl
