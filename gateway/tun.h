#pragma once

#include <string>

#include "text.h"
#include "unique_fd.h"

namespace gw {

// The gateway's TUN interface (Linux, Documentation/networking/tuntap.rst): IP packets without any header before them.
class Tun {
public:
    // Creates the interface, gives it address and MTU, brings it up and adds routes for what `pool` has outside `address`.
    // Throws RuntimeFailure. The interface goes away with this object.
    Tun(const std::string &name, const Cidr &address, unsigned mtu, const AddressRange &pool);

    int                fd() const { return fd_.get(); }
    const std::string &name() const { return name_; }

    // One packet into `to`; its length, or 0 when there is none.
    size_t read(std::span<uint8_t> to);

    // False when the kernel refuses the packet.
    bool write(ByteView packet);

private:
    void set_address(const Cidr &address);
    void set_mtu(unsigned mtu);
    void bring_up();
    void add_routes(const Cidr &address, const AddressRange &pool);
    void control(unsigned long request, void *argument, const char *what);

    std::string name_;
    UniqueFd    fd_;
    UniqueFd    control_;  // for the interface ioctls, netdevice(7)
};

// The fewest networks that cover the range exactly.
std::vector<Cidr> networks_of(AddressRange range);

}  // namespace gw
