#include "orders.h"

#include <cstring>

#include <nlohmann/json.hpp>

namespace wlcctl {

sent orders::send(const record &r) { return send(r, json::object()); }

sent orders::send(const record &r, const json &members) {
    moment   now = present();
    uint32_t id;
    memcpy(&id, r.data(), sizeof id);
    json told = {{"id", id}, {"name", message_name(id)}};
    told.update(members);

    sent result = pipe_.send(r, error_);
    if (result == sent::yes) {
        known_.state.on_daemon_reader(true, now);
        known_.state.on_sent(id, now);
        log_.add(now, "sent", told);
        if (id == msg_tun_start || id == msg_tun_restart) known_.has_been_started = true;
        return result;
    }
    told["error"] = error_;
    log_.add(now, "send_failed", told);
    if (result == sent::no_reader) known_.state.on_daemon_reader(false, now);
    return result;
}

sent orders::send_quietly(const record &r) {
    uint32_t id;
    memcpy(&id, r.data(), sizeof id);
    sent result = pipe_.send(r, error_);
    if (result != sent::yes) return result;
    known_.state.on_sent(id, present());
    known_.state.expect_quiet_statistics();
    return result;
}

}  // namespace wlcctl
