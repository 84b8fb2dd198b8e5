#pragma once

#include <list>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "text.h"

namespace gw {

// What the gateway remembers of a device: who it is, which address it holds, which cookie it was given.
struct address_lease {
    std::string identity;      // of the TLS handshake
    std::string device_id;     // of the configuration request, may be empty
    uint32_t    address = 0;   // host order
    std::string own_cookie{};  // made for the device, empty until the first response
    std::string cookie{};      // what the last response handed out, empty for none
    unsigned    connections = 0;
    uint64_t    used        = 0;  // order of last use, for giving away the address of the device absent for longest
};

// The inner addresses and the devices that hold them. Invariant: no two leases have the same address.
class address_pool {
public:
    // Who asks; the texts come from the handshake and the configuration request.
    struct applicant {
        std::string             identity;
        std::string             device_id;
        std::string             cookie;   // empty when none was shown
        std::optional<uint32_t> address;  // asked for
    };

    address_pool(address_range range, std::set<uint32_t> excluded)
        : range_(range), excluded_(std::move(excluded)), next_(range.first) {}

    // How many addresses it has to give.
    uint64_t size() const;

    // The device's lease, an old one or a new one, with one more connection. The address asked for is granted when it
    // lies in the pool and no other connected device holds it. Null when every address is held by a connected device.
    address_lease *acquire(const applicant &asker);

    // Takes over the lease of an earlier life, without a connection; false when the pool has no such address to give.
    bool restore(const address_lease &lease);

    // Gives the lease another address of the pool; false when that is not possible.
    bool move(address_lease &lease, uint32_t address);

    // One connection of the device is gone. The lease stays, its address can be given away from the last one on.
    void release(address_lease &lease);

    // True when the device was given a cookie and shows it. Clients keep 10 characters of it, and behind a shorter
    // one the end of an earlier one, so what counts is how the text begins.
    static bool is_known_cookie(const address_lease &lease, std::string_view cookie);

    bool contains(uint32_t address) const { return range_.contains(address) && !excluded_.contains(address); }
    const std::list<address_lease> &leases() const { return leases_; }

private:
    using place = std::list<address_lease>::iterator;

    static std::string      device_key(const std::string &identity, const std::string &device_id);
    address_lease          *add(const address_lease &lease);
    address_lease          *find(const applicant &asker);
    address_lease          *holder(uint32_t address);
    std::optional<uint32_t> choose_address(const applicant &asker);
    std::optional<uint32_t> free_address();
    std::optional<uint32_t> take_from_absent();
    void                    erase(address_lease &lease);

    address_range                                                 range_;
    std::set<uint32_t>                                            excluded_;
    uint32_t                                                      next_;  // where the search for a free address starts
    std::list<address_lease>                                      leases_;  // addresses of elements stay valid
    std::map<uint32_t, place>                                     by_address_;
    std::unordered_map<std::string, std::vector<address_lease *>> by_device_;  // oldest first; see device_key
    uint64_t                                                      uses_ = 0;
};

}  // namespace gw
