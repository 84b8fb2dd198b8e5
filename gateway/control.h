#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "commands.h"
#include "gateway.h"

namespace gw {

// The control socket: JSON lines from any number of controllers, answered through commands.cpp, and the events they subscribed to.
class Control {
public:
    Control(const std::string &path, Gateway &gateway, Loop &loop);  // throws RuntimeFailure
    ~Control();                                                      // removes the socket
    Control(const Control &)            = delete;
    Control &operator=(const Control &) = delete;

    void finish_batch();  // writes what waits, forgets controllers that are gone

private:
    // A request that is answered when an event comes, or when its time is over.
    struct Wait {
        Json        id;  // of the request, null when it had none
        EventFilter filter;
        uint64_t    timer = 0;
    };
    struct Controller {
        UniqueFd                 socket;
        uint64_t                 watch = 0;
        std::string              in;
        std::string              out;
        bool                     blocked    = false;  // out waits for EPOLLOUT
        bool                     no_more_in = false;  // the controller has shut its sending side
        bool                     dead       = false;
        bool                     subscribed = false;
        std::set<std::string>    kinds;  // of events; empty: all but data
        std::map<uint64_t, Wait> waits;
    };

    void on_acceptable();
    void on_event(Controller &controller, uint32_t events);
    void read_lines(Controller &controller);
    void take_line(Controller &controller, const std::string &line);
    Json execute(Controller &controller, const Json &request);
    Json subscribe(Controller &controller, const Json &request);
    bool start_wait(Controller &controller, const Json &request, Json &answer);
    void send(Controller &controller, const Json &message);
    void flush(Controller &controller);
    void publish(const Json &event);
    bool wants(const Controller &controller, const Json &event) const;

    std::string                              path_;
    Gateway                                 &gateway_;
    Loop                                    &loop_;
    UniqueFd                                 listener_;
    uint64_t                                 listen_watch_ = 0;
    std::vector<std::unique_ptr<Controller>> controllers_;
    uint64_t                                 next_wait_ = 1;
};

}  // namespace gw
