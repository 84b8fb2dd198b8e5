// Small packets for the benchmark: sends UDP datagrams as fast as the socket takes them or at a steady rate, or is
// where they end. What arrives is counted elsewhere, by the interfaces.
//
// usage: bench-flood send FROM TO PORT BYTES RATE SECONDS     BYTES: of the IP packet; RATE: a second, 0 for no limit
//        bench-flood sink PORT                                holds the port open and reads nothing, until it is killed
//
// "send" prints how many it has sent.

#include <arpa/inet.h>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int     headers_size = 28;  // bytes of IP and UDP
constexpr int     max_packet   = 1500;
constexpr int64_t second       = 1'000'000'000;  // nanoseconds

[[noreturn]] void die(const char *what) {
    perror(what);
    exit(1);
}

int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * second + time.tv_nsec;
}

void sleep_until(int64_t moment) {
    const timespec time{.tv_sec = moment / second, .tv_nsec = moment % second};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {}
}

sockaddr_in endpoint(const char *address, const char *port) {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port   = htons(static_cast<uint16_t>(atoi(port)));
    if (inet_pton(AF_INET, address, &place.sin_addr) != 1) die(address);
    return place;
}

int bound_socket(const char *address, const char *port) {
    const int         fd    = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in place = endpoint(address, port);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&place), sizeof(place)) != 0) die("bind");
    return fd;
}

// A full queue of the interface is told as ENOBUFS, which is no reason to end.
bool send_one(int fd, size_t length) {
    static const char payload[max_packet] = {};
    return send(fd, payload, length, 0) >= 0 || errno == ENOBUFS || errno == EAGAIN || errno == ECONNREFUSED;
}

uint64_t send_packets(int fd, size_t length, int64_t rate, int64_t duration) {
    const int64_t began = now();
    uint64_t      sent  = 0;
    for (int64_t time = began; time - began < duration; time = now(), ++sent) {
        if (rate > 0) sleep_until(began + static_cast<int64_t>(sent) * second / rate);
        if (!send_one(fd, length)) die("send");
    }
    return sent;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "sink") == 0) {
        bound_socket("0.0.0.0", argv[2]);
        for (;;) pause();
    }
    if (argc != 8 || strcmp(argv[1], "send") != 0) {
        fprintf(stderr, "usage: %s send FROM TO PORT BYTES RATE SECONDS | sink PORT\n", argv[0]);
        return 2;
    }
    const int bytes = atoi(argv[5]);
    if (bytes < headers_size || bytes > max_packet) die("BYTES");

    const int         fd     = bound_socket(argv[2], "0");
    const sockaddr_in target = endpoint(argv[3], argv[4]);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&target), sizeof(target)) != 0) die("connect");
    const auto duration = static_cast<int64_t>(atof(argv[7]) * static_cast<double>(second));
    printf("%llu\n", static_cast<unsigned long long>(
                         send_packets(fd, static_cast<size_t>(bytes - headers_size), atoll(argv[6]), duration)));
}
