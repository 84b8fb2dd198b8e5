#include "gateway.h"

#include <openssl/rand.h>

#include <spdlog/spdlog.h>

#include <algorithm>
#include <stdexcept>

#include "lease_file.h"

namespace gw {

// The configuration exchange and dead-peer detection.

namespace {

constexpr std::chrono::milliseconds lease_pause{1000};                    // before leases are written
constexpr size_t payload_limit = client_frame_limit - frame_header_size;  // of a response that we compose
constexpr size_t cookie_bytes  = 5;                                       // 10 characters, see below

// By contract: a cookie has exactly 10 characters, because a client that gets a shorter one keeps the end of an
// earlier one behind it.
std::string new_cookie() {
    uint8_t random[cookie_bytes];
    if (RAND_bytes(random, sizeof random) != 1) return "";
    return to_hex(random);
}

json text_or_null(const std::optional<std::string> &text) { return text ? json(*text) : json(nullptr); }

}  // namespace

void tunnel_gateway::answer_dpd(tunnel_client &client) {
    client.count(counter::dpd_req);
    strike(fault_trigger::dpd, client);
    if (!client.is_open()) return;
    bool answer = client.answers_dpd.value_or(lab.answers_dpd) && !strike_dpd(client);
    events.emit("dpd_req", client.id(), {{"answered", answer}});
    if (!answer) return;
    if (!client.send_frame(frame_dpd_response, {})) return client.count(counter::drop_queue);
    client.count(counter::dpd_resp);
    events.emit("dpd_resp_sent", client.id());
}

void tunnel_gateway::take_config_request(tunnel_client &client, byte_view payload) {
    client.count(counter::config_req);
    std::string    text(text_of(payload));
    config_request request = parse_config_request(text);
    client.device_id       = request.device_id.value_or("");
    client.name            = request.name.value_or("");
    client.serial          = request.serial.value_or("");

    address_pool::applicant asker{client.identity, client.device_id, request.cookie.value_or(""),
                                  parse_ipv4(request.address.value_or(""))};
    address_lease          *before = client.lease;
    client.lease                   = pool_.acquire(asker);
    if (before) pool_.release(*before);
    keep_leases();
    bool cookie_known = client.lease && address_pool::is_known_cookie(*client.lease, asker.cookie);
    json report       = {
              {"text", text},
              {"hex", to_hex(payload)},
              {"address", text_or_null(request.address)},
              {"device_id", text_or_null(request.device_id)},
              {"cookie", text_or_null(request.cookie)},
              {"name", text_or_null(request.name)},
              {"serial", text_or_null(request.serial)},
              {"cookie_known", cookie_known},
    };
    events.emit("config_req", client.id(), report);
    if (!strike_request(client)) respond_by_mode(client);
}

// What changes within a second is written together.
void tunnel_gateway::keep_leases() {
    if (options_.lease_file.empty() || lease_timer_.is_running()) return;
    lease_timer_.start(lease_pause, [this] { write_leases(); });
}

void tunnel_gateway::write_leases() {
    if (options_.lease_file.empty()) return;
    std::string failure = write_lease_file(options_.lease_file, pool_);
    if (!failure.empty()) spdlog::warn("{}", failure);
}

void tunnel_gateway::respond_by_mode(tunnel_client &client) {
    config_mode mode = lab.config;
    if (mode.once) lab.config = {};
    client.withheld = false;
    switch (mode.kind) {
    case config_answer::normal: return respond(client, "normal");
    case config_answer::hold: client.withheld = true; return withhold(client, "hold");
    case config_answer::delay: return respond_later(client, mode.delay);
    case config_answer::drop: return withhold(client, "drop");
    case config_answer::replace: return send_response(client, text_of(mode.bytes), "replaced");
    case config_answer::malform: return respond_malformed(client, mode.bytes);
    }
}

void tunnel_gateway::respond_later(tunnel_client &client, std::chrono::milliseconds delay) {
    withhold(client, "delay");
    client.delay_timer.emplace(loop_);
    client.delay_timer->start(delay, [this, &client] { respond(client, "delayed"); });  // gone when the client ends
}

void tunnel_gateway::withhold(const tunnel_client &client, const char *why) {
    events.emit("config_resp_withheld", client.id(), {{"why", why}});
}

void tunnel_gateway::respond(tunnel_client &client, const char *how) {
    if (!client.lease) return withhold(client, "pool_exhausted");
    header_list headers = response_headers(client);
    lab.overrides.apply(headers);
    lab.overrides.forget_once();
    std::string text = config_response_text(headers);
    if (text.size() > payload_limit) return withhold(client, "too_long");
    send_response(client, text, how);
}

header_list tunnel_gateway::response_headers(tunnel_client &client) {
    if (client.lease->own_cookie.empty())
        client.lease->own_cookie = options_.cookie_auto ? new_cookie() : options_.cookie;

    header_list headers;
    auto        add = [&](const char *name, const std::optional<std::string> &value) {
        if (value) headers.emplace_back(name, *value);
    };
    add("X-CSTP-Address", options_.prefix);
    add("X-CSTP-Prefix-Length", options_.prefix_length);
    add("X-CSTP-DPD", options_.dpd);
    add("X-CSTP-Address-Client", ipv4_text(client.lease->address));
    add("X-CSTP-Retry-Time", options_.retry);
    add("X-CSTP-Rekey-Time", options_.rekey);
    if (!client.lease->own_cookie.empty()) add("X-CSTP-Cookie", client.lease->own_cookie);
    for (const std::string &dns : options_.dns) add("X-CSTP-DNS", dns);
    return headers;
}

void tunnel_gateway::send_response(tunnel_client &client, std::string_view text, const char *how) {
    if (!options_.allow_fatal && has_fatal_dpd(text)) return withhold(client, "fatal_dpd");
    if (!client.send_frame(frame_config_response, bytes_of(text))) return withhold(client, "not_sent");
    client.count(counter::config_resp);
    assign(client, text);
    events.emit("config_resp_sent", client.id(),
                {{"text", text},
                 {"inner", client.inner ? ipv4_text(client.inner) : ""},
                 {"device_id", client.device_id},
                 {"how", how}});
    strike(fault_trigger::up, client);
}

// What the response says is what the client will use, whoever wrote it.
void tunnel_gateway::assign(tunnel_client &client, std::string_view response) {
    auto cookie = response_value(response, "X-CSTP-Cookie");
    if (client.lease && cookie) client.lease->cookie = *cookie;
    keep_leases();
    auto inner = parse_ipv4(response_value(response, "X-CSTP-Address-Client").value_or(""));
    if (!inner) return;
    drop_route(client);
    client.inner      = *inner;
    client.configured = true;
    if (client.lease && client.lease->address != *inner) (void)pool_.move(*client.lease, *inner);
    auto &holders = holders_[*inner];
    auto  newer   = std::find_if(holders.begin(), holders.end(), [&](const auto *h) { return h->id() > client.id(); });
    holders.insert(newer, &client);
}

void tunnel_gateway::respond_malformed(tunnel_client &client, const byte_vector &raw) {
    try {
        client.send_record(SSL3_RT_APPLICATION_DATA, raw);
    } catch (const std::runtime_error &) {
        return withhold(client, "not_sent");
    }
    events.emit("config_resp_sent", client.id(),
                {{"hex", to_hex(raw)}, {"inner", ""}, {"device_id", client.device_id}, {"how", "malformed"}});
}

size_t tunnel_gateway::release_withheld(const tunnel_client *only) {
    size_t released = 0;
    for (tunnel_client *client : clients()) {
        if (!client->withheld || (only && only != client)) continue;
        client->withheld = false;
        respond(*client, "released");
        released++;
    }
    return released;
}

}  // namespace gw
