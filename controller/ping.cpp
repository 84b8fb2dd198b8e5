#include "ping.h"

#include "common/clock.h"
#include "common/unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace wlcctl {

namespace {

constexpr size_t ip_header = 20, icmp_header = 8;

uint16_t checksum(const std::vector<uint8_t> &bytes) {
    uint32_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i += 2)
        sum += static_cast<uint32_t>(bytes[i] << 8) + (i + 1 < bytes.size() ? bytes[i + 1] : 0u);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

std::vector<uint8_t> make_echo(size_t size, uint16_t id) {
    std::vector<uint8_t> packet(std::max(size, ip_header + icmp_header) - ip_header);
    packet[0]    = ICMP_ECHO;
    packet[4]    = static_cast<uint8_t>(id >> 8);
    packet[5]    = static_cast<uint8_t>(id);
    packet[7]    = 1;
    uint16_t sum = checksum(packet);
    packet[2]    = static_cast<uint8_t>(sum >> 8);
    packet[3]    = static_cast<uint8_t>(sum);
    return packet;
}

bool is_answer(const uint8_t *bytes, size_t count, uint16_t id) {
    if (count < ip_header) return false;
    size_t at = static_cast<size_t>(bytes[0] & 15) * 4;
    return count >= at + icmp_header && bytes[at] == ICMP_ECHOREPLY && bytes[at + 4] == (id >> 8) &&
           bytes[at + 5] == (id & 255);
}

bool fill(sockaddr_in &to, const std::string &address) {
    to            = {};
    to.sin_family = AF_INET;
    return inet_pton(AF_INET, address.c_str(), &to.sin_addr) == 1;
}

}  // namespace

ping_result ping(const std::string &address, const std::string &source, const std::string &interface, size_t size,
                 bool forbids_fragments, double patience) {
    ping_result       result;
    sockaddr_in       to, from;
    common::unique_fd fd(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_ICMP));
    auto              failed = [&](const char *what) {
        result.error = std::string(what) + ": " + strerror(errno);
        return result;
    };
    if (!fd) return failed("no raw socket");
    if (!fill(to, address)) return result.error = "no IPv4 address: " + address, result;
    if (fill(from, source) && bind(fd.get(), reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0)
        return failed("the management address is not this device's");
    if (setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                   static_cast<socklen_t>(interface.size())) != 0)
        return failed("the interface cannot be used");
    int discover = forbids_fragments ? IP_PMTUDISC_PROBE : IP_PMTUDISC_DONT;
    setsockopt(fd.get(), IPPROTO_IP, IP_MTU_DISCOVER, &discover, sizeof discover);

    auto                 id     = static_cast<uint16_t>(getpid() ^ static_cast<int>(size));
    std::vector<uint8_t> packet = make_echo(size, id);
    double               begun  = common::present().mono;
    if (sendto(fd.get(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
        return failed("the packet cannot be sent");
    for (;;) {
        double left  = begun + patience - common::present().mono;
        pollfd state = {fd.get(), POLLIN, 0};
        if (left <= 0 || poll(&state, 1, static_cast<int>(left * 1000) + 1) == 0) break;
        uint8_t bytes[2048];
        ssize_t count = recv(fd.get(), bytes, sizeof bytes, 0);
        if (count < 0 && errno != EAGAIN && errno != EINTR) return failed("no answer");
        if (count <= 0 || !is_answer(bytes, static_cast<size_t>(count), id)) continue;
        result.is_answered = true;
        result.seconds     = common::present().mono - begun;
        return result;
    }
    result.error = "no answer within " + std::to_string(static_cast<int>(patience)) + " s";
    return result;
}

}  // namespace wlcctl
