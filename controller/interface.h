// What the kernel knows of the tunnel's interface, live. Called on the loop's thread.
#pragma once

#include "base.h"

#include "common/loop.h"
#include "common/unique_fd.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace wlcctl {

struct interface_facts {
    bool                     exists = false;
    bool                     is_up  = false;
    unsigned                 mtu    = 0;
    std::vector<std::string> addresses;

    bool operator==(const interface_facts &) const = default;
};

// Asks the kernel now.
interface_facts read_interface(const std::string &name);

// Bytes through an interface, from the device's side; index: tells one that was made anew from the one before.
struct link_bytes {
    int      index = 0;
    uint64_t in    = 0;
    uint64_t out   = 0;
};

// Asks the kernel now; nothing when there is no such interface.
std::optional<link_bytes> read_link_bytes(const std::string &name);

// Calls on_change whenever an interface or an address of this machine changes.
class interface_watch {
public:
    interface_watch(loop &owner, task on_change);  // without a netlink socket nothing is called

private:
    unique_fd                         fd_;
    std::unique_ptr<descriptor_watch> watch_;
};

}  // namespace wlcctl
