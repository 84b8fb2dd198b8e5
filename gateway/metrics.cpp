#include "metrics.h"

#include <sys/resource.h>

#include "common/http_board.h"
#include "common/http_server.h"
#include "common/metrics_text.h"
#include "errors.h"

namespace gw {

namespace {

using common::metrics_text;

constexpr std::chrono::milliseconds fresh{200};  // for which a page that was made is served again

void put_pair(metrics_text &to, const counter_set &totals, const char *label, const char *first, counter a,
              const char *second, counter b) {
    to.sample(totals.get(a), {{label, first}});
    to.sample(totals.get(b), {{label, second}});
}

const char *state_of(const tunnel_gateway &gateway, const tunnel_client &client) {
    if (client.state() == client_connection::phase::stalled) return "stalled";
    if (!client.is_open()) return "handshake";
    if (!client.configured) return "configuring";
    return gateway.is_active(client) ? "active" : "replaced";
}

void put_clients(metrics_text &to, tunnel_gateway &gateway) {
    std::map<std::string, uint64_t> counts;
    for (const tunnel_client *client : gateway.clients()) counts[state_of(gateway, *client)]++;
    to.family("tlsc_gateway_clients", "gauge",
              "Connections by state; replaced are those whose device has a newer one.");
    for (const char *state : {"handshake", "configuring", "active", "replaced", "stalled"})
        to.sample(counts[state], {{"state", state}});
}

void put_connections(metrics_text &to, const counter_set &totals) {
    to.family("tlsc_gateway_accepts_total", "counter", "Connections accepted.");
    to.sample(totals.get(counter::accepted));
    to.family("tlsc_gateway_refusals_total", "counter", "Connections refused because there are too many.");
    to.sample(totals.get(counter::refused));
    to.family("tlsc_gateway_handshakes_total", "counter", "TLS handshakes by result.");
    put_pair(to, totals, "result", "success", counter::tls_up, "failure", counter::tls_failed);
    to.family("tlsc_gateway_closed_total", "counter", "Connections that have ended.");
    to.sample(totals.get(counter::closed));
    to.family("tlsc_gateway_config_total", "counter", "Configuration requests received and responses sent.");
    put_pair(to, totals, "kind", "request", counter::config_req, "response", counter::config_resp);
    to.family("tlsc_gateway_dpd_total", "counter", "Dead-peer-detection requests received and responses sent.");
    put_pair(to, totals, "kind", "request", counter::dpd_req, "response", counter::dpd_resp);
}

void put_traffic(metrics_text &to, const counter_set &totals) {
    constexpr struct {
        counter     which;
        const char *reason;
    } drops[] = {
        {counter::drop_queue, "queue_full"},        {counter::drop_source, "wrong_source"},
        {counter::drop_v6_rs, "ipv6_solicitation"}, {counter::drop_v6, "ipv6"},
        {counter::drop_malformed, "malformed"},     {counter::drop_early, "not_configured"},
        {counter::drop_tun, "tun_write"},           {counter::tun_no_route, "no_client"},
        {counter::tun_not_ipv4, "not_ipv4"},
    };
    to.family("tlsc_gateway_packets_total", "counter", "Packets: in from the clients, and out to them.");
    put_pair(to, totals, "direction", "in", counter::data_rx, "out", counter::data_tx);
    to.family("tlsc_gateway_bytes_total", "counter", "Bytes of these packets.");
    put_pair(to, totals, "direction", "in", counter::data_bytes_rx, "out", counter::data_bytes_tx);
    to.family("tlsc_gateway_drops_total", "counter", "Packets that were not passed on, by reason.");
    for (const auto &each : drops) to.sample(totals.get(each.which), {{"reason", each.reason}});
    to.family("tlsc_gateway_frames_invalid_total", "counter", "Frames from clients that were none.");
    to.sample(totals.get(counter::invalid));
}

void put_pool(metrics_text &to, const tunnel_gateway &gateway) {
    uint64_t used = 0, held = 0;
    for (const address_lease &lease : gateway.pool().leases()) (lease.connections > 0 ? used : held)++;
    to.family("tlsc_gateway_pool_addresses", "gauge",
              "Inner addresses: used by connected devices, held for absent ones, free.");
    to.sample(used, {{"state", "used"}});
    to.sample(held, {{"state", "held"}});
    to.sample(gateway.pool().size() - used - held, {{"state", "free"}});
}

void put_process(metrics_text &to, const tunnel_gateway &gateway) {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    to.family("tlsc_gateway_process_cpu_seconds_total", "counter", "Processor time that the gateway has used.");
    to.sample(seconds(used.ru_utime) + seconds(used.ru_stime));
    to.family("tlsc_gateway_uptime_seconds", "gauge", "Seconds since the gateway began.");
    to.sample(static_cast<double>(gateway.uptime().count()) / 1000);
    to.family("tlsc_gateway_build_info", "gauge", "Always 1; the version of the gateway.");
    to.sample(uint64_t{1}, {{"version", TLSC_GATEWAY_VERSION}});
}

std::string error_json(int status, const std::string &what) {
    return json{{"schema", common::schema_number},
                {"program", "tlsc-gateway"},
                {"version", TLSC_GATEWAY_VERSION},
                {"ok", false},
                {"exit", status < 500 ? 2 : 1},
                {"status", status},
                {"error", what}}
               .dump(-1, ' ', true, json::error_handler_t::replace) +
           "\n";
}

common::http_answer text_answer(common::shared_text text, const char *type) {
    return {200, type, std::move(text), {}, nullptr};
}

class server_room final : public metrics_server {
public:
    server_room(const common::http_place &place, tunnel_gateway &gateway, common::loop &loop)
        : board_(gateway.events.log().stream(), 1), server_(service()), watch_(loop, board_.bell()) {
        watch_.start(common::readable, [this](unsigned) { board_.serve_bell(); });
        board_.offer("metrics", fresh, [&gateway] { return metrics_page(gateway); });
        if (std::string why = server_.open(place); !why.empty()) throw runtime_failure("--http: " + why);
    }
    ~server_room() override { board_.close(); }

private:
    common::http_service service() {
        return {[this](const common::http_request &request) { return answer(request); }, error_json,
                common::guarded_headers("default-src 'none'; frame-ancestors 'none'"), "application/json"};
    }

    common::http_answer answer(const common::http_request &request) {
        if (request.path == "/") {
            auto about = std::make_shared<const std::string>(
                "TLS tunnel gateway: metrics for Prometheus are at /metrics\n");
            return text_answer(std::move(about), "text/plain");
        }
        int         status = request.path == "/metrics" ? 503 : 404;
        const char *what   = status == 503 ? "the gateway did not answer in time" : "there are: /, /metrics";
        auto        text   = status == 503 ? board_.read("metrics") : nullptr;
        if (text) return text_answer(std::move(text), "text/plain; version=0.0.4; charset=utf-8");
        return {status, "application/json", std::make_shared<const std::string>(error_json(status, what)), {}, nullptr};
    }

    common::http_board       board_;
    common::http_server      server_;
    common::descriptor_watch watch_;
};

}  // namespace

std::string metrics_page(tunnel_gateway &gateway) {
    metrics_text page;
    put_clients(page, gateway);
    put_connections(page, gateway.totals());
    put_traffic(page, gateway.totals());
    put_pool(page, gateway);
    put_process(page, gateway);
    return page.text();
}

std::unique_ptr<metrics_server> serve_metrics(const common::http_place &place, tunnel_gateway &gateway,
                                              common::loop &loop) {
    return std::make_unique<server_room>(place, gateway, loop);
}

}  // namespace gw
