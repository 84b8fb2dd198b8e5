#pragma once

#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "config_exchange.h"
#include "connection.h"
#include "events.h"
#include "faults.h"
#include "options.h"
#include "pool.h"
#include "tun.h"

namespace gw {

// A connection with what the configuration exchange made of it.
class tunnel_client final : public client_connection {
public:
    using client_connection::client_connection;

    std::string                  identity;  // known from tls_up on
    std::string                  cipher;
    std::string                  device_id;  // these three from the last configuration request
    std::string                  name;
    std::string                  serial;
    address_lease               *lease      = nullptr;  // from the first configuration request on
    uint32_t                     inner      = 0;        // address that the response assigned, host order; 0 before
    bool                         configured = false;    // a configuration response was sent
    bool                         withheld   = false;    // a request waits for config release
    std::optional<common::timer> delay_timer;
    std::optional<bool>          answers_dpd;  // unset: as all others
};

enum class accept_mode {
    normal,
    refuse,
    reset,
    stall,
    stall_tls
};

// What a configuration request gets for an answer.
enum class config_answer {
    normal,
    hold,
    delay,
    drop,
    replace,
    malform
};

struct config_mode {
    config_answer             kind = config_answer::normal;
    std::chrono::milliseconds delay{0};
    byte_vector               bytes;  // payload of replace, raw bytes of malform
    bool                      once = false;
};

// What a controller may turn away from normal.
struct laboratory {
    bool             answers_dpd = true;
    accept_mode      accept      = accept_mode::normal;
    config_mode      config;
    header_overrides overrides;
    bool             data_events = false;
};

// The gateway: accepts, answers, routes. One thread.
//
// Up:   client_connection::receive -> on_frame -> take_packet -> tun_device::write
// Down: on_tun_readable -> deliver -> client_connection::send_data -> (batch over) finish_batch -> flush
//
// Invariants: holders_ maps an inner address to the configured connections that hold it, oldest first; packets go to
// the last. A connection that has ended is in neither clients_ nor holders_; it is destroyed when the batch is over, so
// a reference stays valid until then.
class tunnel_gateway final : public connection_owner {
public:
    tunnel_gateway(const gateway_options &options, common::loop &loop);  // throws usage_error, runtime_failure
    ~tunnel_gateway() override;
    tunnel_gateway(const tunnel_gateway &)            = delete;
    tunnel_gateway &operator=(const tunnel_gateway &) = delete;

    // Orders a fault for the laboratory (faults.h), "none" forgets all of them. Throws std::runtime_error.
    void               order_fault(const std::string &text);
    const fault_table &faults() const { return faults_; }

    // Reads the key file again: SIGHUP and the request reload. Returns what is wrong with it, empty when nothing is;
    // live connections stay in either case, and the old keys when it is wrong.
    std::string read_keys_again();

    void finish_batch();                        // after every batch of events: writes what waits, buries the dead
    void shut_down(const std::string &reason);  // no new clients, close_notify and FIN to the others

    // For the control protocol (commands.cpp).
    laboratory                   lab;
    event_journal                events;
    const gateway_options       &options() const { return options_; }
    std::chrono::milliseconds    uptime() const;
    const counter_set           &totals() const { return totals_; }
    const address_pool          &pool() const { return pool_; }
    std::string                  listen_text() const;
    std::string                  tun_name() const { return tun_ ? tun_->name() : ""; }
    std::vector<tunnel_client *> clients();  // oldest first
    tunnel_client               *find_client(uint64_t id);
    bool                         is_active(const tunnel_client &client) const;
    void                         set_accept(accept_mode mode);  // throws runtime_failure when listening again fails
    size_t                       release_withheld(const tunnel_client *only);
    void                         forget_dpd_choices();

    // A packet from the site, wrapped into a data frame for `to`, or for the holder of its destination. Null: nobody
    // has that address. `sent` tells whether the queue took it. The packet holds at most frame_ring::slot_size - 8
    // bytes.
    tunnel_client *send_packet(byte_view packet, tunnel_client *to, bool &sent);

private:
    // gateway.cpp: listening, life of connections
    void listen();
    void stop_listening();
    void on_acceptable();
    void pause_accepting();
    void take_connection(common::unique_fd socket, const std::string &peer);
    void on_tls_up(client_connection &connection) override;
    void on_tls_failed(client_connection &connection, const std::string &reason) override;
    void on_alert(client_connection &connection, int level, int code) override;
    void on_frame(client_connection &connection, const cstp_frame &frame) override;
    void on_bad_stream(client_connection &connection, frame_parser::result reason, byte_view bytes) override;
    void on_output(client_connection &connection) override;
    void on_ended(client_connection &connection, const connection_end &ending) override;
    void drop_route(tunnel_client &client);

    // gateway_config.cpp: configuration exchange and dead-peer detection
    void        keep_leases();
    void        write_leases();
    void        answer_dpd(tunnel_client &client);
    void        take_config_request(tunnel_client &client, byte_view payload);
    void        respond_by_mode(tunnel_client &client);
    void        respond(tunnel_client &client, const char *how);
    void        respond_malformed(tunnel_client &client, const byte_vector &raw);
    void        send_response(tunnel_client &client, std::string_view text, const char *how);
    void        withhold(const tunnel_client &client, const char *why);
    header_list response_headers(tunnel_client &client);
    void        assign(tunnel_client &client, std::string_view response);

    void respond_later(tunnel_client &client, std::chrono::milliseconds delay);

    // gateway_faults.cpp: what the laboratory ordered
    void forget_faults();
    void start_fault_timer(uint64_t number, std::chrono::milliseconds delay);
    void tell_fault(const armed_fault &fault, uint64_t client);
    void strike_newest(uint64_t number);
    void strike(fault_trigger trigger, tunnel_client &client);
    void afflict(tunnel_client &client, fault_kind kind);
    bool strike_connect(tunnel_client &client);    // true: the connection is not served
    bool strike_dpd(const tunnel_client &client);  // true: the request is not answered
    bool strike_request(tunnel_client &client);    // true: the request was dealt with
    void spoil_response(tunnel_client &client, fault_kind kind);

    // gateway_data.cpp: packets
    void                   on_tun_readable();
    tunnel_client         *route(byte_view packet);
    bool                   deliver(tunnel_client &client, byte_view frame);
    void                   take_packet(tunnel_client &client, byte_view packet);
    std::optional<counter> refuse_reason(const tunnel_client &client, byte_view packet) const;
    void report_packet(const tunnel_client &client, const char *direction, byte_view packet, const char *verdict);

    gateway_options                                            options_;
    common::loop                                              &loop_;
    farewells                                                  leaving_;
    tls_context                                                tls_;
    address_pool                                               pool_;
    std::optional<tun_device>                                  tun_;
    std::optional<common::descriptor_watch>                    tun_watch_;
    common::unique_fd                                          listener_;
    std::optional<common::descriptor_watch>                    listen_watch_;
    common::timer                                              accept_timer_;
    common::timer                                              lease_timer_;
    uint16_t                                                   port_;  // the one in use, once listening
    uint64_t                                                   next_client_ = 1;
    const std::chrono::steady_clock::time_point                born_        = std::chrono::steady_clock::now();
    counter_set                                                totals_;
    std::map<uint64_t, std::unique_ptr<tunnel_client>>         clients_;  // by number, so oldest first
    std::unordered_map<uint32_t, std::vector<tunnel_client *>> holders_;
    std::vector<std::unique_ptr<tunnel_client>>                dead_;
    std::vector<uint64_t>                                      with_output_;
    fault_table                                                faults_;
    std::map<uint64_t, common::timer>                          fault_timers_;  // by the fault's number
};

}  // namespace gw
