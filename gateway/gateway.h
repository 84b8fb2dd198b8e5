#pragma once

#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "config_exchange.h"
#include "connection.h"
#include "events.h"
#include "options.h"
#include "pool.h"
#include "tun.h"

namespace gw {

// A connection with what the configuration exchange made of it.
class Client final : public Connection {
public:
    using Connection::Connection;

    std::string         identity;  // known from tls_up on
    std::string         cipher;
    std::string         device_id;  // these three from the last configuration request
    std::string         name;
    std::string         serial;
    Lease              *lease       = nullptr;  // from the first configuration request on
    uint32_t            inner       = 0;        // address that the response assigned, host order; 0 before
    bool                configured  = false;    // a configuration response was sent
    bool                withheld    = false;    // a request waits for config release
    uint64_t            delay_timer = 0;
    std::optional<bool> answers_dpd;  // unset: as all others
};

enum class AcceptMode {
    normal,
    refuse,
    reset,
    stall,
    stall_tls
};

struct ConfigMode {
    enum class Kind {
        normal,
        hold,
        delay,
        drop,
        replace,
        malform
    };
    Kind                      kind = Kind::normal;
    std::chrono::milliseconds delay{0};
    Bytes                     bytes;  // payload of replace, raw bytes of malform
    bool                      once = false;
};

// What a controller may turn away from normal.
struct Laboratory {
    bool       answers_dpd = true;
    AcceptMode accept      = AcceptMode::normal;
    ConfigMode config;
    Overrides  overrides;
    bool       data_events = false;
};

// The gateway: accepts, answers, routes. One thread.
//
// Up:   Connection::receive -> on_frame -> take_packet -> Tun::write
// Down: on_tun_readable -> route_packet -> Connection::send_data -> (batch over) flush_all -> Connection::flush
//
// Invariants: active_ maps an inner address to the newest configured connection that holds it. A connection that has ended is in
// neither clients_ nor active_; it is destroyed when the batch is over, so a reference stays valid until then.
class Gateway final : public ConnectionOwner {
public:
    Gateway(const Options &options, Loop &loop);  // throws UsageError, RuntimeFailure
    ~Gateway() override;
    Gateway(const Gateway &)            = delete;
    Gateway &operator=(const Gateway &) = delete;

    void finish_batch();                        // after every batch of events: writes what waits, buries the dead
    void shut_down(const std::string &reason);  // no new clients, close_notify and FIN to the others

    // For the control protocol (commands.cpp).
    Laboratory                lab;
    EventLog                  events;
    const Options            &options() const { return options_; }
    std::chrono::milliseconds uptime() const;
    const Counters           &totals() const { return totals_; }
    const Pool               &pool() const { return pool_; }
    std::string               listen_text() const;
    std::string               tun_name() const { return tun_ ? tun_->name() : ""; }
    std::vector<Client *>     clients();  // oldest first
    Client                   *find_client(uint64_t id);
    bool                      is_active(const Client &client) const;
    void                      set_accept(AcceptMode mode);  // throws RuntimeFailure when listening again fails
    size_t                    release_withheld(const Client *only);
    void                      forget_dpd_choices();

    // A packet from the site, wrapped into a data frame for `to`, or for the holder of its destination. Null: nobody has that address.
    // `sent` tells whether the queue took it. The packet holds at most FrameRing::slot_size - 8 bytes.
    Client *send_packet(ByteView packet, Client *to, bool &sent);

private:
    // gateway.cpp: listening, life of connections
    void listen();
    void on_acceptable();
    void pause_accepting();
    void take_connection(UniqueFd socket, const std::string &peer);
    void on_tls_up(Connection &connection) override;
    void on_tls_failed(Connection &connection, const std::string &reason) override;
    void on_alert(Connection &connection, int level, int code) override;
    void on_frame(Connection &connection, const Frame &frame) override;
    void on_bad_stream(Connection &connection, FrameParser::Result reason, ByteView bytes) override;
    void on_output(Connection &connection) override;
    void on_ended(Connection &connection, const Ending &ending) override;
    void drop_route(Client &client);

    // gateway_config.cpp: configuration exchange and dead-peer detection
    void    answer_dpd(Client &client);
    void    take_config_request(Client &client, ByteView payload);
    void    respond_by_mode(Client &client);
    void    respond(Client &client, const char *how);
    void    respond_malformed(Client &client, const Bytes &raw);
    void    send_response(Client &client, std::string_view text, const char *how);
    void    withhold(const Client &client, const char *why);
    Headers response_headers(Client &client);
    void    assign(Client &client, std::string_view response);

    // gateway_data.cpp: packets
    void                   on_tun_readable();
    Client                *route(ByteView packet);
    bool                   deliver(Client &client, ByteView frame);
    void                   take_packet(Client &client, ByteView packet);
    std::optional<Counter> refuse_reason(const Client &client, ByteView packet) const;
    void report_packet(const Client &client, const char *direction, ByteView packet, const char *verdict);

    Options                                     options_;
    Loop                                       &loop_;
    TlsContext                                  tls_;
    Pool                                        pool_;
    std::optional<Tun>                          tun_;
    uint64_t                                    tun_watch_ = 0;
    UniqueFd                                    listener_;
    uint64_t                                    listen_watch_ = 0;
    uint16_t                                    port_;  // the one in use, once listening
    uint64_t                                    next_client_ = 1;
    const Loop::Clock::time_point               born_        = Loop::Clock::now();
    Counters                                    totals_;
    std::map<uint64_t, std::unique_ptr<Client>> clients_;  // by number, so oldest first
    std::unordered_map<uint32_t, Client *>      active_;
    std::vector<std::unique_ptr<Client>>        dead_;
    std::vector<uint64_t>                       with_output_;
};

}  // namespace gw
