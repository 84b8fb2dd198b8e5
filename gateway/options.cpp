#include "options.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <limits>

#include "errors.h"

namespace gw {

namespace {

constexpr const char   *version              = "tlsc-gateway " TLSC_GATEWAY_VERSION;
constexpr size_t        cookie_limit         = 10;  // characters that a client keeps
constexpr unsigned long least_dpd            = 5;   // seconds; a client dies of less
constexpr unsigned long longest              = 2147483647;
constexpr size_t        interface_name_limit = 15;

// The texts of options that need more than CLI11's conversions.
struct option_texts {
    std::string listen   = "0.0.0.0:443";
    std::string tun_addr = "10.9.0.1/24";
    std::string pool;
    std::string prefix;
    std::string prefix_length;
    std::string dpd       = "10";
    std::string retry     = "20";
    std::string rekey     = "3600";
    std::string cookie    = "auto";
    unsigned    handshake = 10;
    std::string http;
    bool        http_anywhere = false;
    bool        no_tun        = false;
};

void declare_access(CLI::App &app, gateway_options &o, option_texts &t) {
    app.add_option("--listen", t.listen, "Address and port to accept on, port 0 takes a free one")
        ->option_text("ADDR:PORT [0.0.0.0:443]");
    app.add_option("--psk-file", o.tls.psk_file, "Pre-shared keys, lines \"identity:key text\"")->option_text("FILE");
    app.add_option("--psk-hint", o.tls.psk_hint, "PSK identity hint")->option_text("TEXT");
    app.add_option("--cert", o.tls.cert, "Certificate chain, PEM")->option_text("FILE");
    app.add_option("--key", o.tls.key, "Private key, PEM")->option_text("FILE");
    app.add_option("--client-ca", o.tls.client_ca, "Require client certificates that lead to one of these, PEM")
        ->option_text("FILE");
    app.add_option("--crl", o.tls.crl, "Revoked client certificates, PEM")->option_text("FILE");
    app.add_option("--ciphers", o.tls.ciphers, "TLS 1.2 cipher list (OpenSSL)")->option_text("LIST");
    app.add_option("--max-clients", o.max_clients, "Connections at once")
        ->option_text("N [256]")
        ->check(CLI::Range(1, 100000));
    app.add_option("--handshake-timeout", t.handshake, "Seconds for the TLS handshake")
        ->option_text("S [10]")
        ->check(CLI::Range(1, 3600));
}

void declare_network(CLI::App &app, gateway_options &o, option_texts &t) {
    app.add_option("--tun", o.tun, "Name of the TUN interface")->option_text("NAME [tlsgw0]");
    app.add_option("--tun-addr", t.tun_addr, "Its address")->option_text("ADDR/LEN [10.9.0.1/24]");
    app.add_option("--mtu", o.mtu, "Its MTU")->option_text("BYTES [1406]")->check(CLI::Range(576, 1436));
    app.add_flag("--no-tun", t.no_tun, "No interface: packets are only counted and reported");
    app.add_option("--pool", t.pool, "Inner addresses for clients [network of --tun-addr]")
        ->option_text("ADDR/LEN|ADDR-ADDR");
    app.add_option("--lease-file", o.lease_file, "Keeps the devices' inner addresses over a restart")
        ->option_text("FILE");
    app.add_option("--queue", o.queue, "Packets that wait for one client at most")
        ->option_text("N [1024]")
        ->check(CLI::Range(1, 65536));
}

void declare_response(CLI::App &app, gateway_options &o, option_texts &t) {
    app.add_option("--prefix", t.prefix, "X-CSTP-Address [network of the pool]")->option_text("ADDR|omit");
    app.add_option("--prefix-length", t.prefix_length, "X-CSTP-Prefix-Length [length of the pool]")
        ->option_text("N|omit");
    app.add_option("--dns", o.dns, "X-CSTP-DNS, may be repeated")
        ->option_text("ADDR")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--dpd", t.dpd, "X-CSTP-DPD, seconds, at least 5")->option_text("S|omit [10]");
    app.add_option("--retry", t.retry, "X-CSTP-Retry-Time, seconds")->option_text("S|omit [20]");
    app.add_option("--rekey", t.rekey, "X-CSTP-Rekey-Time, seconds")->option_text("S|omit [3600]");
    app.add_option("--cookie", t.cookie, "X-CSTP-Cookie, at most 10 characters")->option_text("auto|none|TEXT [auto]");
    app.add_flag("--allow-fatal", o.allow_fatal, "Allow a DPD interval below 5, of which a client dies");
}

void declare_operation(CLI::App &app, gateway_options &o, option_texts &t) {
    app.add_option("--log", o.log, "Log file, - is standard error")->option_text("FILE|- [-]");
    app.add_option("--log-level", o.log_level, "trace, debug, info, warn, error, off")
        ->option_text("LEVEL [info]")
        ->check(CLI::IsMember({"trace", "debug", "info", "warn", "error", "off"}));
    app.add_option("--keylog", o.tls.keylog, "Append TLS secrets for packet analysis")->option_text("FILE");
    app.add_option("--ready-file", o.ready_file, "Written when clients are accepted, removed at the end")
        ->option_text("FILE");
    app.add_option("--control", o.control, "Unix socket for the control protocol")->option_text("PATH");
    app.add_option("--http", t.http, "Serve metrics over HTTP there")->option_text("unix:PATH|ADDR:PORT");
    app.add_flag("--http-anywhere", t.http_anywhere, "Allow an address there that others reach");
    app.set_version_flag("--version", version);
}

void take_listen(const std::string &text, gateway_options &o) {
    size_t colon   = text.rfind(':');
    auto   address = parse_ipv4(text.substr(0, colon));
    auto   port    = colon == std::string::npos ? std::nullopt : parse_number(text.substr(colon + 1), 65535);
    if (!address || !port) throw usage_error("--listen: '" + text + "' is not ADDR:PORT");
    o.listen_address = *address;
    o.listen_port    = static_cast<uint16_t>(*port);
}

address_range parse_pool(const std::string &text) {
    if (auto cidr = parse_cidr(text)) {
        if (cidr->length < 8 || cidr->length > 30) throw usage_error("--pool: length must be from 8 to 30");
        return {cidr->network() + 1, cidr->broadcast() - 1};
    }
    size_t dash  = text.find('-');
    auto   first = parse_ipv4(text.substr(0, dash));
    auto   last  = dash == std::string::npos ? std::nullopt : parse_ipv4(text.substr(dash + 1));
    if (!first || !last || *first > *last)
        throw usage_error("--pool: '" + text + "' is neither ADDR/LEN nor ADDR-ADDR");
    if (*last - *first > 0xffffff) throw usage_error("--pool: more than 16777216 addresses");
    return {*first, *last};
}

void take_addresses(const option_texts &t, gateway_options &o) {
    auto tun = parse_cidr(t.tun_addr);
    if (!tun || tun->length < 1 || tun->length > 30)
        throw usage_error("--tun-addr: '" + t.tun_addr + "' is not ADDR/LEN with a length from 1 to 30");
    o.tun_address = *tun;
    if (o.tun.empty() || o.tun.size() > interface_name_limit || o.tun.find_first_of("/ %:") != std::string::npos)
        throw usage_error("--tun: '" + o.tun + "' is not an interface name");
    o.use_tun   = !t.no_tun;
    o.pool_text = t.pool.empty() ? cidr_text({tun->network(), tun->length}) : t.pool;
    o.pool      = parse_pool(o.pool_text);
    if (o.pool.first == o.pool.last && o.pool.first == tun->address)
        throw usage_error("--pool: holds only the gateway's own address");
}

// "omit" leaves the header out; a text that was not given takes the default.
std::optional<std::string> unless_omitted(const std::string &text, const std::string &standard) {
    if (text == "omit") return std::nullopt;
    return text.empty() ? standard : text;
}

std::optional<std::string> seconds(const char *option, const std::string &text, unsigned long least) {
    if (text == "omit") return std::nullopt;
    auto value = parse_number(text, longest);
    if (!value) throw usage_error(std::string(option) + ": '" + text + "' is neither a number of seconds nor omit");
    if (*value < least)
        throw usage_error(std::string(option) + ": below " + std::to_string(least) +
                          " a client dies; --allow-fatal allows it");
    return text;
}

void take_prefix(const option_texts &t, gateway_options &o) {
    ipv4_cidr prefix = parse_cidr(o.pool_text).value_or(o.tun_address);
    o.prefix         = unless_omitted(t.prefix, ipv4_text(prefix.network()));
    o.prefix_length  = unless_omitted(t.prefix_length, std::to_string(prefix.length));
    if (o.prefix && !parse_ipv4(*o.prefix)) throw usage_error("--prefix: '" + *o.prefix + "' is not an address");
    if (o.prefix_length && !parse_number(*o.prefix_length, 32))
        throw usage_error("--prefix-length: '" + *o.prefix_length + "' is not a number up to 32");
}

void take_response(const option_texts &t, gateway_options &o) {
    take_prefix(t, o);
    for (const std::string &dns : o.dns) {
        if (!parse_ipv4(dns)) throw usage_error("--dns: '" + dns + "' is not an address");
    }
    o.dpd         = seconds("--dpd", t.dpd, o.allow_fatal ? 0 : least_dpd);
    o.retry       = seconds("--retry", t.retry, 1);
    o.rekey       = seconds("--rekey", t.rekey, 1);
    o.cookie_auto = t.cookie == "auto";
    if (!o.cookie_auto && t.cookie != "none") o.cookie = t.cookie;
    if (o.cookie.size() > cookie_limit) throw usage_error("--cookie: more than 10 characters");
    if (o.cookie.find('\n') != std::string::npos) throw usage_error("--cookie: line feed");
}

void take_http(const option_texts &t, gateway_options &o) {
    if (t.http.empty()) return;
    common::http_place place;
    if (std::string why = common::parse_http_place(t.http, place); !why.empty()) throw usage_error("--http: " + why);
    if (!place.is_loopback && !t.http_anywhere)
        throw usage_error("--http: " + place.address +
                          " can be reached by others, and answers need no password; --http-anywhere allows it");
    o.http = place;
}

void check_tls(const tls_options &tls) {
    if (tls.psk_file.empty() && tls.cert.empty()) throw usage_error("one of --psk-file and --cert is needed");
    if (tls.cert.empty() != tls.key.empty()) throw usage_error("--cert and --key belong together");
    if (!tls.client_ca.empty() && tls.cert.empty()) throw usage_error("--client-ca needs --cert");
    if (!tls.crl.empty() && tls.client_ca.empty()) throw usage_error("--crl needs --client-ca");
}

// One line, whatever CLI11 has to say.
std::string first_line(const char *text) {
    std::string line(text);
    return line.substr(0, line.find('\n'));
}

}  // namespace

std::optional<gateway_options> parse_options(int argc, const char *const *argv) {
    gateway_options options;
    option_texts    texts;
    CLI::App app("Reference gateway: accepts tunnel clients over TLS 1.2 and moves their packets to and from a TUN "
                 "interface.",
                 "tlsc-gateway");
    app.get_formatter()->column_width(44);
    app.footer("tlsc-gateway ctl --help: what a running gateway can be asked.");
    declare_access(app, options, texts);
    declare_network(app, options, texts);
    declare_response(app, options, texts);
    declare_operation(app, options, texts);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        fputs(app.help().c_str(), stdout);
        return std::nullopt;
    } catch (const CLI::CallForVersion &) {
        printf("%s\n", version);
        return std::nullopt;
    } catch (const CLI::ParseError &error) {
        throw usage_error(first_line(error.what()));
    }
    take_listen(texts.listen, options);
    take_addresses(texts, options);
    take_response(texts, options);
    take_http(texts, options);
    check_tls(options.tls);
    options.handshake_timeout = std::chrono::seconds(texts.handshake);
    return options;
}

}  // namespace gw
