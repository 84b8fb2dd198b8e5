#include "tun.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <linux/route.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <bit>
#include <cerrno>
#include <cstring>

#include "errors.h"

namespace gw {

namespace {

sockaddr socket_address(uint32_t address) {
    sockaddr_in in{};
    in.sin_family      = AF_INET;
    in.sin_addr.s_addr = htonl(address);
    sockaddr out;
    static_assert(sizeof in == sizeof out);
    memcpy(&out, &in, sizeof out);
    return out;
}

ifreq request_for(const std::string &name) {
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

}  // namespace

tun_device::tun_device(const std::string &name, const ipv4_cidr &address, unsigned mtu, const address_range &pool)
    : name_(name),
      fd_(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC)),
      control_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (!fd_) throw runtime_failure(std::string("cannot open /dev/net/tun: ") + strerror(errno));
    if (!control_) throw runtime_failure(std::string("cannot create a socket: ") + strerror(errno));
    ifreq request     = request_for(name);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (ioctl(fd_.get(), TUNSETIFF, &request) != 0)
        throw runtime_failure("cannot create the interface " + name + ": " + strerror(errno));
    set_address(address);
    set_mtu(mtu);
    bring_up();
    add_routes(address, pool);
}

void tun_device::control(unsigned long request, void *argument, const char *what) {
    if (ioctl(control_.get(), request, argument) != 0)
        throw runtime_failure(std::string("cannot set the ") + what + " of " + name_ + ": " + strerror(errno));
}

void tun_device::set_address(const ipv4_cidr &address) {
    ifreq request    = request_for(name_);
    request.ifr_addr = socket_address(address.address);
    control(SIOCSIFADDR, &request, "address");
    request.ifr_netmask = socket_address(address.mask());
    control(SIOCSIFNETMASK, &request, "netmask");
}

void tun_device::set_mtu(unsigned mtu) {
    ifreq request   = request_for(name_);
    request.ifr_mtu = static_cast<int>(mtu);
    control(SIOCSIFMTU, &request, "MTU");
}

void tun_device::bring_up() {
    ifreq request = request_for(name_);
    control(SIOCGIFFLAGS, &request, "flags");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    control(SIOCSIFFLAGS, &request, "flags");
}

void tun_device::add_routes(const ipv4_cidr &address, const address_range &pool) {
    for (const ipv4_cidr &network : networks_of(pool)) {
        if (address.range().contains(network.network()) && address.range().contains(network.broadcast())) continue;
        rtentry route{};
        route.rt_dst     = socket_address(network.network());
        route.rt_genmask = socket_address(network.mask());
        route.rt_flags   = RTF_UP;
        route.rt_dev     = name_.data();
        if (ioctl(control_.get(), SIOCADDRT, &route) != 0 && errno != EEXIST)
            throw runtime_failure("cannot add a route to " + cidr_text(network) + ": " + strerror(errno));
    }
}

size_t tun_device::read(std::span<uint8_t> to) {
    ssize_t count = ::read(fd_.get(), to.data(), to.size());
    return count > 0 ? static_cast<size_t>(count) : 0;
}

bool tun_device::write(byte_view packet) {
    return ::write(fd_.get(), packet.data(), packet.size()) == static_cast<ssize_t>(packet.size());
}

std::vector<ipv4_cidr> networks_of(address_range range) {
    std::vector<ipv4_cidr> networks;
    uint64_t               first = range.first;
    while (first <= range.last) {
        unsigned bits = first == 0 ? 32 : static_cast<unsigned>(std::countr_zero(first));
        while (bits > 0 && first + (uint64_t{1} << bits) - 1 > range.last) bits--;
        if (bits > 32) bits = 32;
        networks.push_back({static_cast<uint32_t>(first), 32 - bits});
        first += uint64_t{1} << bits;
    }
    return networks;
}

}  // namespace gw
