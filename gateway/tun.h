#pragma once

#include <string>

#include "text.h"
#include "common/unique_fd.h"

namespace gw {

// The gateway's TUN interface (Linux, Documentation/networking/tuntap.rst): IP packets without any header before them.
//
// Its queue keeps the kernel's length, which is the length of a client's: two streams in opposite directions wait in
// both queues and see one round trip time, so each gets a share in proportion to the queue before which its packets are
// lost.
class tun_device {
public:
    // Creates the interface, gives it address and MTU, brings it up and adds routes for what `pool` has outside
    // `address`. Throws runtime_failure. The interface goes away with this object.
    tun_device(const std::string &name, const ipv4_cidr &address, unsigned mtu, const address_range &pool);

    int                fd() const { return fd_.get(); }
    const std::string &name() const { return name_; }

    // One packet into `to`; its length, or 0 when there is none.
    size_t read(std::span<uint8_t> to);

    // False when the kernel refuses the packet.
    bool write(byte_view packet);

private:
    void set_address(const ipv4_cidr &address);
    void set_mtu(unsigned mtu);
    void bring_up();
    void add_routes(const ipv4_cidr &address, const address_range &pool);
    void control(unsigned long request, void *argument, const char *what);

    std::string       name_;
    common::unique_fd fd_;
    common::unique_fd control_;  // for the interface ioctls, netdevice(7)
};

// The fewest networks that cover the range exactly.
std::vector<ipv4_cidr> networks_of(address_range range);

}  // namespace gw
