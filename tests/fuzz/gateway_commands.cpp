// The gateway's requests, with a device that is connected meanwhile: whatever is asked, each line gets one answer, no
// key is in any, and the gateway serves the next one. Input: whether a device is there, then actions: a request of the
// table, any bytes, a pass of the loop, or something from the device.
#include <csignal>
#include <fstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include "common/log.h"

#include "control.h"
#include "gateway.h"

#include "requests.h"

namespace {

constexpr char key[] = "Zq7#kPw2vXn9!Rt4mJc6@Ls8yHd3&Bg5";

std::vector<std::string> words() {
    std::vector<std::string> all = {
        "all", "dev",    "X-CSTP-DPD", "X-CSTP-Address:", "X-CSTP-DPD:4", "10.9.0.2", "none",
        "STF", "534654", "",           "X\r\nY:1"};
    all.push_back("45000014000000000011"
                  "0000"
                  "01020304"
                  "0a090002");
    size_t number = 0;
    for (const std::string &name : gw::fault_names()) {
        constexpr const char *triggers[] = {"",           "@connect", "@config#*", "@up",
                                            "@frame=2#3", "@time=0",  "@dpd",      "@tls"};
        all.push_back(name + triggers[number++ % std::size(triggers)]);
    }
    return all;
}

std::string key_file(fuzz_directory &directory) {
    const std::string path = directory.file("psk");
    std::ofstream(path) << "dev:" << key << "\n";
    MUST(chmod(path.c_str(), 0600) == 0);
    return path;
}

struct service {
    fuzz_directory                       directory;
    std::string                          path = directory.file("control");
    common::loop                         owner;
    gw::gateway_options                  options;
    std::optional<gw::tunnel_gateway>    gateway;
    std::unique_ptr<common::json_server> server;

    explicit service(const std::string &keys) {
        options.listen_address = INADDR_LOOPBACK;
        options.listen_port    = 0;
        options.tls.psk_file   = keys;
        options.use_tun        = false;
        options.pool           = {0x0a090002, 0x0a090010};
        options.pool_text      = "10.9.0.2-10.9.0.16";
        gateway.emplace(options, owner);
        server = gw::serve_control(path, *gateway, owner);
    }
    uint16_t port() const {
        const std::string text = gateway->listen_text();
        return static_cast<uint16_t>(std::stoi(text.substr(text.rfind(':') + 1)));
    }
    void one_pass() {
        serve_once(owner, [this] { gateway->finish_batch(); });
    }
};

unsigned give_key(SSL *, const char *, char *identity, unsigned, unsigned char *psk, unsigned) {
    memcpy(identity, "dev", 4);
    memcpy(psk, key, sizeof(key) - 1);
    return sizeof(key) - 1;
}

// A tunnel's client that does not wait.
struct device {
    common::unique_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    SSL              *ssl = nullptr;

    explicit device(service &with) {
        static SSL_CTX *const context = [] {
            SSL_CTX *made = SSL_CTX_new(TLS_client_method());
            MUST(SSL_CTX_set_max_proto_version(made, TLS1_2_VERSION) == 1);
            MUST(SSL_CTX_set_cipher_list(made, "PSK-AES128-CBC-SHA256") == 1);
            SSL_CTX_set_psk_client_callback(made, give_key);
            return made;
        }();
        sockaddr_in address{};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(with.port());
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        MUST(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0);
        const linger at_once{1, 0};  // no connection is remembered by the system
        MUST(setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once)) == 0);
        MUST(fcntl(fd.get(), F_SETFL, O_NONBLOCK) == 0);
        ssl = SSL_new(context);
        SSL_set_fd(ssl, fd.get());
        for (unsigned passes = 0; passes < 20 && SSL_connect(ssl) != 1; ++passes) with.one_pass();
        ERR_clear_error();
        with.one_pass();
    }
    ~device() {
        SSL_free(ssl);
        ERR_clear_error();
    }
    device(const device &)            = delete;
    device &operator=(const device &) = delete;

    bool is_up() const { return SSL_is_init_finished(ssl); }
    void send(std::string_view bytes) {
        if (is_up() && !bytes.empty()) (void)SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size()));
        ERR_clear_error();
    }
    void take() {
        char bytes[20000];
        while (is_up() && SSL_read(ssl, bytes, sizeof(bytes)) > 0) {}
        ERR_clear_error();
    }
};

std::string device_bytes(fuzz_input &in) {
    constexpr const char *request = "X-CSTP-Version:1\nX-CSTP-Device-Id:one\nX-CSTP-Device-Name:two\n\n";
    gw::byte_vector       frame;
    switch (in.below(4)) {
    case 0: frame = gw::make_frame(gw::frame_config_request, gw::bytes_of(request)); break;
    case 1: frame = gw::make_frame(in.byte(), gw::bytes_of(std::string(in.bytes(in.below(100))))); break;
    case 2: frame = gw::make_frame(gw::frame_dpd_request, {}); break;
    default: return std::string(in.bytes(in.below(100)));
    }
    return {frame.begin(), frame.end()};
}

const std::string &keys() {
    static fuzz_directory    directory;
    static const std::string path = key_file(directory);
    return path;
}

json table() {
    service one(keys());
    return ask_for_help(one);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    common::open_log("fuzz", "-", "off");
    (void)signal(SIGPIPE, SIG_IGN);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    if (knows_secret(bytes, size, key)) return 0;
    static const request_maker requests(table(), words());
    fuzz_input                 in(bytes, size);
    service                    service(keys());
    conversation               with(service.path);
    std::optional<device>      device;
    std::string                sent;
    if (in.chance(192)) {
        device.emplace(service);
        MUST(device->is_up());
    }
    while (!in.empty() && sent.size() < 20000) {
        std::string text;
        switch (in.below(16)) {
        case 0: text = std::string(in.bytes(in.below(60))); break;
        case 1: text = std::string(in.bytes(in.below(60))) + "\n"; break;
        case 2:
            if (device) device->send(device_bytes(in));
            break;
        case 3:
            if (device) device->take();
            service.one_pass();
            (void)with.take();
            break;
        case 4:
            if (device) device.reset();
            else if (service.gateway->lab.accept != gw::accept_mode::refuse) device.emplace(service);
            break;
        default: text = requests.make(in);
        }
        with.send(text);
        sent += text;
    }
    with.send("\n");
    with.end_input();
    with.serve(20, [&] { service.one_pass(); });
    MUST(check_answers(with.received, "tlsc-gateway") <= count_of_lines(sent + "\n"));
    MUST(!shows(with.received, key));

    conversation next(service.path);
    next.send("{\"request\":\"counters\"}\n{\"request\":\"clients\"}\n{\"request\":\"status\"}\n");
    next.end_input();
    next.serve(20, [&] { service.one_pass(); });
    MUST(next.is_over && check_answers(next.received, "tlsc-gateway") == 3);
    MUST(!shows(next.received, key));
    return 0;
}
