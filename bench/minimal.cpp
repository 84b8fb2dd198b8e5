// The least program that carries packets through the gateway the way the daemon does: one packet per readiness event,
// epoll_wait, read, SSL_write one way and epoll_wait, SSL_read, write the other. No log, no counters, no timers, no
// address exchange, no reconnection. What the daemon costs beyond this program is the daemon's own doing.
//
// With --transport it has the daemon's other shape: under the TLS session lies the daemon's own transport, records are
// read ahead, and those of packets out are collected as long as epoll has more events.
//
// usage: bench-minimal [--transport] ADDRESS PORT CIPHERS IDENTITY KEY TUN
//
// Prints "up INNER-ADDRESS" once the interface TUN carries that address, then runs until it is killed.

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tlsc_transport.h"

namespace {

constexpr size_t header_size    = 8;     // "STF", version, 16-bit length, type, reserved
constexpr int    max_packet     = 1436;  // bytes, as the daemon reads from its interface
constexpr int    max_record     = 1500;  // bytes, as the daemon reads from its TLS session
constexpr int    mtu            = 1406;
constexpr int    max_events     = 80;
constexpr int    frame_data     = 0;
constexpr int    frame_request  = 1;
constexpr int    frame_response = 2;

const char *psk_identity;
const char *psk_key;

[[noreturn]] void die(const char *what) {
    perror(what);
    ERR_print_errors_fp(stderr);
    exit(1);
}

unsigned psk_callback(SSL *, const char *, char *identity, unsigned max_identity, unsigned char *psk,
                      unsigned max_psk) {
    const size_t length = strlen(psk_key);
    if (strlen(psk_identity) >= max_identity || length > max_psk) return 0;
    strcpy(identity, psk_identity);
    memcpy(psk, psk_key, length);
    return static_cast<unsigned>(length);
}

void put_header(uint8_t *frame, int type, size_t length) {
    const uint8_t header[header_size] = {
        'S', 'T', 'F', 1, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), static_cast<uint8_t>(type),
        0};
    memcpy(frame, header, header_size);
}

size_t payload_length(const uint8_t *frame) { return static_cast<size_t>(frame[4] << 8 | frame[5]); }

SSL *connect_tls(const char *address, const char *port, const char *ciphers, bool on_transport) {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port   = htons(static_cast<uint16_t>(atoi(port)));
    if (inet_pton(AF_INET, address, &server.sin_addr) != 1) die("address");
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&server), sizeof(server)) != 0) die("connect");

    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    if (!ctx) die("SSL_CTX_new");
    SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_psk_client_callback(ctx, psk_callback);
    if (SSL_CTX_set_cipher_list(ctx, ciphers) != 1) die("cipher list");
    SSL *ssl = SSL_new(ctx);
    if (!ssl) die("SSL_new");
    if ((on_transport ? tlsc_transport_attach(ssl, fd) : SSL_set_fd(ssl, fd)) != 1) die("SSL_set_fd");
    if (SSL_connect(ssl) != 1) die("SSL_connect");
    return ssl;
}

// Asks for an address, as the daemon does, and returns it as text. device: what the gateway knows this one by.
const char *request_address(SSL *ssl, const char *device) {
    uint8_t   frame[max_record + 1];
    char     *request = reinterpret_cast<char *>(frame + header_size);
    const int length  = snprintf(request, max_packet, "X-CSTP-Device-ID:%s\n", device);
    put_header(frame, frame_request, static_cast<size_t>(length));
    if (SSL_write(ssl, frame, static_cast<int>(header_size) + length) < 1) die("request");

    const int count = SSL_read(ssl, frame, max_record);
    if (count < static_cast<int>(header_size) || frame[6] != frame_response) die("response");
    frame[count]          = '\0';
    constexpr char name[] = "X-CSTP-Address-Client:";
    const char    *value  = strstr(reinterpret_cast<const char *>(frame + header_size), name);
    if (!value) die("no address in the response");

    static char address[INET_ADDRSTRLEN];
    value += sizeof(name) - 1;
    snprintf(address, sizeof(address), "%.*s", static_cast<int>(strcspn(value, "\r\n")), value);
    return address;
}

int open_interface(const char *name, const char *address) {
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    snprintf(request.ifr_name, sizeof(request.ifr_name), "%s", name);
    const int tun = open("/dev/net/tun", O_RDWR);
    if (tun < 0 || ioctl(tun, TUNSETIFF, &request) != 0) die("interface");

    const int control = socket(AF_INET, SOCK_DGRAM, 0);
    request.ifr_mtu   = mtu;
    if (ioctl(control, SIOCSIFMTU, &request) != 0) die("MTU");
    sockaddr_in inner{};
    inner.sin_family = AF_INET;
    if (inet_pton(AF_INET, address, &inner.sin_addr) != 1) die("inner address");
    memcpy(&request.ifr_addr, &inner, sizeof(inner));
    if (ioctl(control, SIOCSIFADDR, &request) != 0) die("interface address");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(control, SIOCSIFFLAGS, &request) != 0) die("interface up");
    close(control);
    return tun;
}

void watch(int epoll, int fd) {
    epoll_event event{};
    event.events  = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) die("epoll_ctl");
}

void carry_up(int tun, SSL *ssl) {
    uint8_t       frame[header_size + max_packet];
    const ssize_t count = read(tun, frame + header_size, max_packet);
    if (count < 1) die("read");
    put_header(frame, frame_data, static_cast<size_t>(count));
    if (SSL_write(ssl, frame, static_cast<int>(header_size + static_cast<size_t>(count))) < 1) die("SSL_write");
}

void carry_down(SSL *ssl, int tun) {
    uint8_t   frame[max_record];
    const int count = SSL_read(ssl, frame, sizeof(frame));
    if (count < 1) die("SSL_read");
    if (frame[6] == frame_data && write(tun, frame + header_size, payload_length(frame)) < 0) die("write");
}

// One packet per readiness event.
[[noreturn]] void run_plain(int epoll, int tun, SSL *ssl) {
    for (;;) {
        epoll_event events[max_events];
        const int   count = epoll_wait(epoll, events, max_events, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == tun) carry_up(tun, ssl);
            else carry_down(ssl, tun);
        }
    }
}

// One packet out per readiness event, the records of several in one write; in, what one read has brought.
[[noreturn]] void run_on_transport(int epoll, int tun, SSL *ssl) {
    tlsc_transport_collect(true);
    for (;;) {
        epoll_event events[max_events];
        const int   count = epoll_wait(epoll, events, max_events, tlsc_transport_has_collected() ? 0 : -1);
        if (count == 0 && tlsc_transport_flush(true) != 1) die("write");
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == tun) carry_up(tun, ssl);
            else
                for (bool more = tlsc_transport_take_in(ssl); more; more = tlsc_transport_is_readable(ssl))
                    carry_down(ssl, tun);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    const bool on_transport = argc > 1 && strcmp(argv[1], "--transport") == 0;
    if (argc != (on_transport ? 8 : 7)) {
        fprintf(stderr, "usage: %s [--transport] ADDRESS PORT CIPHERS IDENTITY KEY TUN\n", argv[0]);
        return 2;
    }
    if (on_transport) ++argv;
    psk_identity = argv[4];
    psk_key      = argv[5];

    SSL        *ssl     = connect_tls(argv[1], argv[2], argv[3], on_transport);
    const char *address = request_address(ssl, argv[6]);  // several may run at once: each is a device of its own
    const int   tun     = open_interface(argv[6], address);
    const int   epoll   = epoll_create1(0);
    watch(epoll, tun);
    watch(epoll, SSL_get_fd(ssl));
    printf("up %s\n", address);
    fflush(stdout);
    if (on_transport) run_on_transport(epoll, tun, ssl);
    run_plain(epoll, tun, ssl);
}
