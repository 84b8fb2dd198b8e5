#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "gateway.h"

namespace gw {

// The control socket: JSON lines from any number of controllers, answered through commands.cpp, and the events they
// subscribed to.
class control_socket {
public:
    control_socket(const std::string &path, tunnel_gateway &gateway, event_loop &loop);  // throws RuntimeFailure
    ~control_socket();                                                                   // removes the socket
    control_socket(const control_socket &)            = delete;
    control_socket &operator=(const control_socket &) = delete;

    void finish_batch();  // writes what waits, forgets controllers that are gone

private:
    // A request that is answered when an event comes, or when its time is over.
    struct pending_wait {
        json         id;  // of the request, null when it had none
        event_filter filter;
        uint64_t     timer = 0;
    };
    struct controller_link {
        unique_fd                        socket;
        uint64_t                         watch = 0;
        std::string                      in;
        std::string                      out;
        bool                             blocked    = false;  // out waits for EPOLLOUT
        bool                             no_more_in = false;  // the controller has shut its sending side
        bool                             dead       = false;
        bool                             subscribed = false;
        std::set<std::string>            kinds;  // of events; empty: all but data
        std::map<uint64_t, pending_wait> waits;
    };

    void on_acceptable();
    void on_event(controller_link &controller, uint32_t events);
    void read_lines(controller_link &controller);
    void take_line(controller_link &controller, const std::string &line);
    json execute(controller_link &controller, const json &request);
    json subscribe(controller_link &controller, const json &request);
    bool start_wait(controller_link &controller, const json &request, json &answer);
    void send(controller_link &controller, const json &message);
    void flush(controller_link &controller);
    void publish(const json &event);
    bool wants(const controller_link &controller, const json &event) const;

    std::string                                   path_;
    tunnel_gateway                               &gateway_;
    event_loop                                   &loop_;
    unique_fd                                     listener_;
    uint64_t                                      listen_watch_ = 0;
    std::vector<std::unique_ptr<controller_link>> controllers_;
    uint64_t                                      next_wait_ = 1;
};

}  // namespace gw
