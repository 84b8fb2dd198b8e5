#include "gateway.h"

#include <algorithm>

#include "common/request.h"
#include "errors.h"

namespace gw {

// Faults that were ordered, and what they do. Contents: 1 ordering  2 striking

namespace {

constexpr std::chrono::milliseconds slowness{3000};  // of the response of a slow gateway
constexpr uint8_t                   unknown_frame = 9;
constexpr uint8_t                   garbage[32]   = {0x16, 0x03};
constexpr uint8_t                   zeros[8]      = {};

const auto response_faults = {fault_kind::no_response, fault_kind::bad_response, fault_kind::no_address,
                              fault_kind::bad_address, fault_kind::slow};

}  // namespace

// ---- 1 Ordering -----------------------------------------------------------------------------------------------------

void tunnel_gateway::order_fault(const std::string &text) {
    if (text == "none") return forget_faults();
    armed_fault fault = parse_fault(text);
    if (fault.trigger == fault_trigger::now && fault.left != 1)
        throw common::refusal("a fault strikes once now; a count needs a trigger");
    if (fault.trigger == fault_trigger::now && fault.kind != fault_kind::refuse && clients_.empty())
        throw common::refusal("no client, and \"" + text + "\" strikes now");
    uint64_t number = faults_.arm(fault);
    if (fault.trigger == fault_trigger::now) return strike_newest(number);
    if (fault.trigger == fault_trigger::time) start_fault_timer(number, std::chrono::milliseconds(fault.amount));
}

void tunnel_gateway::forget_faults() {
    faults_.clear();
    fault_timers_.clear();
    if (lab.accept == accept_mode::refuse) set_accept(accept_mode::normal);
}

void tunnel_gateway::start_fault_timer(uint64_t number, std::chrono::milliseconds delay) {
    auto &timer = fault_timers_.try_emplace(number, loop_).first->second;
    timer.start(delay, [this, number, delay] {
        strike_newest(number);
        const auto &armed = faults_.armed();
        bool again = std::any_of(armed.begin(), armed.end(), [&](const auto &fault) { return fault.number == number; });
        if (again) start_fault_timer(number, delay);
        else fault_timers_.erase(number);
    });
}

// ---- 2 Striking -----------------------------------------------------------------------------------------------------

void tunnel_gateway::tell_fault(const armed_fault &fault, uint64_t client) {
    events.emit("fault", client, {{"fault", fault.text}});
}

void tunnel_gateway::strike_newest(uint64_t number) {
    auto fault = faults_.strike(number);
    if (!fault) return;
    tunnel_client *newest = clients_.empty() ? nullptr : clients_.rbegin()->second.get();
    tell_fault(*fault, newest && fault->kind != fault_kind::refuse ? newest->id() : 0);
    if (fault->kind == fault_kind::refuse) set_accept(accept_mode::refuse);
    else if (newest) afflict(*newest, fault->kind);
}

void tunnel_gateway::strike(fault_trigger trigger, tunnel_client &client) {
    if (faults_.armed().empty()) return;
    auto fault = faults_.strike(trigger, {fault_kind::silence, fault_kind::reset, fault_kind::fin, fault_kind::notify,
                                          fault_kind::alert, fault_kind::garbage, fault_kind::bad_frame});
    if (!fault) return;
    tell_fault(*fault, client.id());
    afflict(client, fault->kind);
}

void tunnel_gateway::afflict(tunnel_client &client, fault_kind kind) {
    switch (kind) {
    case fault_kind::silence: return client.set_silent(true);
    case fault_kind::reset: return client.end_with_reset("fault");
    case fault_kind::fin: return client.end_with_fin("fault");
    case fault_kind::notify: return client.end_with_notify("fault");
    case fault_kind::alert: return client.end_with_alert(SSL3_AL_FATAL, SSL_AD_INTERNAL_ERROR);
    case fault_kind::garbage: return client.send_raw(garbage);
    case fault_kind::bad_frame: return (void)client.send_frame(unknown_frame, {});
    default: return;  // those of a request, a connection to come or a DPD request strike where these are served
    }
}

bool tunnel_gateway::strike_connect(tunnel_client &client) {
    auto fault = faults_.strike(fault_trigger::connect);
    if (!fault) return false;
    tell_fault(*fault, client.id());
    client.stall(true);
    return true;
}

bool tunnel_gateway::strike_dpd(const tunnel_client &client) {
    auto fault = faults_.strike(fault_trigger::dpd, {fault_kind::drop_dpd});
    if (fault) tell_fault(*fault, client.id());
    return fault.has_value();
}

bool tunnel_gateway::strike_request(tunnel_client &client) {
    bool is_rekey = client.lease && client.lease->connections > 1;
    if (is_rekey) strike(fault_trigger::rekey, client);
    if (client.is_open()) strike(fault_trigger::config, client);
    if (!client.is_open()) return true;

    auto fault = is_rekey ? faults_.strike(fault_trigger::rekey, response_faults) : std::nullopt;
    if (!fault) fault = faults_.strike(fault_trigger::config, response_faults);
    if (!fault) return false;
    tell_fault(*fault, client.id());
    spoil_response(client, fault->kind);
    return true;
}

void tunnel_gateway::spoil_response(tunnel_client &client, fault_kind kind) {
    if (!client.lease) return withhold(client, "pool_exhausted");
    if (kind == fault_kind::no_response) return withhold(client, "drop");
    if (kind == fault_kind::bad_response) return respond_malformed(client, byte_vector(zeros, zeros + sizeof zeros));
    if (kind == fault_kind::slow) return respond_later(client, slowness);
    header_list headers = response_headers(client);
    for (auto header = headers.begin(); header != headers.end(); ++header) {
        if (header->first != "X-CSTP-Address-Client") continue;
        if (kind == fault_kind::bad_address) header->second = "no.address";
        else headers.erase(header);
        break;
    }
    send_response(client, config_response_text(headers), "replaced");
}

}  // namespace gw
