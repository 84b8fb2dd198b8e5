// The shared records, enums and limits of the tunnel client. No functions live here.
// Wire records are plain structs with their sizes and offsets asserted directly beneath.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct ssl_st;
struct ssl_ctx_st;
struct tlsc_session;

// ---- addresses ------------------------------------------------------------------------------------------------------

enum tlsc_addr_kind : int32_t {
    ADDR_NONE = 0,
    ADDR_IPV4 = 1,
    ADDR_IPV6 = 2,
};

// One address. The same 32 bytes serve as the address record (inner address, prefix, DNS server) and as the
// gateway-address record: a kind word followed by an IPv6-sized socket address.
struct tlsc_addr {
    int32_t  kind;      // tlsc_addr_kind; anything but 1 and 2 is none
    uint16_t family;    // AF_INET or AF_INET6 when a text parser filled the record
    uint16_t port;      // of the socket address, network order; unused, zero
    uint8_t  ipv4[4];   // network order, for kind 1
    uint8_t  ipv6[16];  // network order, for kind 2
    uint32_t scope_id;  // of the socket address; unused, zero
};
static_assert(sizeof(tlsc_addr) == 32);
static_assert(offsetof(tlsc_addr, family) == 4);
static_assert(offsetof(tlsc_addr, ipv4) == 8);
static_assert(offsetof(tlsc_addr, ipv6) == 12);
static_assert(offsetof(tlsc_addr, scope_id) == 28);

using tlsc_gw_addr = tlsc_addr;  // the gateway-address record of the command pipe

// ---- configuration --------------------------------------------------------------------------------------------------

enum tlsc_ssl_auth_mech : int32_t {
    SSL_AUTH_NONE        = 0,
    SSL_AUTH_CERTIFICATE = 1,
    SSL_AUTH_PSK         = 2,
};

constexpr int32_t  default_dpd_seconds   = 10;
constexpr int32_t  default_retry_seconds = 20;
constexpr int32_t  default_rekey_seconds = 3600;
constexpr int32_t  default_fqdn_seconds  = 30;
constexpr uint16_t max_dns_servers       = 4;

constexpr size_t addr_text_size    = 50;   // address or host name, interface name, cipher list: 49 characters
constexpr size_t id_text_size      = 17;   // device id, serial number: 16 characters
constexpr size_t name_text_size    = 51;   // device name: 50 characters
constexpr size_t path_text_size    = 100;  // PEM file paths: 99 characters
constexpr size_t cookie_size       = 12;   // 10 characters, the terminator at position 10
constexpr size_t max_cookie_text   = 10;
constexpr size_t psk_identity_size = 129;
constexpr size_t psk_key_size      = 257;
constexpr size_t param_text_size   = 64;  // one value of the parameter block: 63 characters

// All settings of the tunnel client; one static instance, see tlsc_get_config().
struct tlsc_config {
    char      svr_addr_ipv4[addr_text_size];  // gateway, dotted IPv4; a name stands for 0.0.0.0
    tlsc_addr inner_addr;                     // assigned by the gateway
    char      device_id[id_text_size];
    char      device_name[name_text_size];
    char      serial_no[id_text_size];
    char      management_ip[addr_text_size];  // the device's own address, dotted IPv4
    char      tun_interface_name[addr_text_size];
    char      cipher_algo[addr_text_size];  // OpenSSL cipher list
    tlsc_addr reserved_addr;
    uint16_t  dns_count;  // entries of dns_servers in use, at most 4
    tlsc_addr dns_servers[max_dns_servers];
    tlsc_addr prefix;  // its kind is the prefix type
    uint8_t   prefix_length;
    uint16_t  server_port;               // host order
    int32_t   dpd_interval;              // seconds
    int32_t   rekey_interval;            // seconds
    int32_t   retry_interval;            // seconds
    int32_t   fqdn_resolution_interval;  // seconds
    char      cookie[cookie_size];
    int32_t   ssl_auth_mech;  // tlsc_ssl_auth_mech
    char      ssl_certificate[path_text_size];
    char      ssl_private_key[path_text_size];
    char      ssl_rootca_bundle[path_text_size];
    char      ssl_crl[path_text_size];
};
static_assert(std::is_trivially_copyable_v<tlsc_config>);

// The controller's raw values, one per key of its file.
struct wlc_sec_tun_params {
    char    server_ip_address[param_text_size];
    char    management_ip[param_text_size];
    char    inner_ip[param_text_size];
    char    tun_interface_name[param_text_size];
    char    cipher_algo[param_text_size];
    char    psk_identity[param_text_size];
    char    psk_key[param_text_size];
    char    log_level[param_text_size];
    char    log_dest[param_text_size];
    char    device_id[param_text_size];
    char    serial_num[param_text_size];
    char    system_name[param_text_size];  // becomes the configuration's device_name
    int32_t server_port;
};
static_assert(std::is_trivially_copyable_v<wlc_sec_tun_params>);

// ---- connection and session -----------------------------------------------------------------------------------------

// The client connection context; one process-wide instance, zero at process start. A descriptor is open only above 0.
struct tlsc_sock {
    int32_t       sockfd;    // TCP socket of the current connection
    int32_t       ssl_up;    // 1 once the TLS handshake has succeeded
    ssl_st       *ssl;       // TLS session of the current connection
    ssl_ctx_st   *ssl_ctx;   // the process's TLS context
    tlsc_session *sess;      // the tunnel session, attached by the tunnel thread
    uint16_t      svr_port;  // host order
    int32_t       ssl_fd;    // the descriptor that counts as the TLS socket; follows sockfd
};

// The tunnel session; one process-wide instance.
struct tlsc_session {
    uint32_t    reserved;
    int32_t     tun_state;  // 0 down, 1 up
    tlsc_sock  *conn;       // the connection that carries the session's packets
    int32_t     tun_fd;     // descriptor on the clone device, -1 when none
    const char *if_name;    // the configured interface name while the interface exists, else null
    tlsc_addr   prefix;     // "X-CSTP-Address:" of the last response
};

enum tlsc_fd_type : int32_t {
    TLSC_FD_UNKNOWN = 0,
    TLSC_FD_TUN     = 1,
    TLSC_FD_SSL     = 2,
};

// ---- command pipe ---------------------------------------------------------------------------------------------------

enum tlsc_cli_cmd_id : int32_t {
    CLI_CMD_INVALID     = 0,
    CLI_CMD_EXIT_CLIENT = 1,
    CLI_CMD_LOG_LEVEL   = 2,
    CLI_CMD_LOG_DEST    = 3,
    CLI_CMD_GW_IP       = 4,
};

constexpr size_t gw_sockaddr_size     = 28;  // an IPv6-sized socket address
constexpr size_t gw_sockaddr_ipv4_off = 4;   // where its IPv4 address lies

// One message on the command pipe, host byte order, written and read whole.
struct tlsc_cli_cmd {
    int32_t id;                             // tlsc_cli_cmd_id
    int32_t value;                          // level, destination, or the kind of the gateway address
    uint8_t gw_sockaddr[gw_sockaddr_size];  // bytes 4 to 31 of the gateway-address record, else zero
};
static_assert(sizeof(tlsc_cli_cmd) == 36);
static_assert(offsetof(tlsc_cli_cmd, value) == 4);
static_assert(offsetof(tlsc_cli_cmd, gw_sockaddr) == 8);
static_assert(sizeof(tlsc_gw_addr) == sizeof(int32_t) + gw_sockaddr_size);

// ---- CSTP -----------------------------------------------------------------------------------------------------------

enum tlsc_cstp_type : uint8_t {
    CSTP_DATA            = 0,
    CSTP_CONFIG_REQ      = 1,
    CSTP_CONFIG_RESPONSE = 2,
    CSTP_DPD_REQ         = 3,
    CSTP_DPD_RESPONSE    = 4,
};

constexpr size_t max_packet_size    = 1436;  // one IP packet between TUN and TLS
constexpr size_t max_read_size      = 1500;  // one TLS read, header included
constexpr size_t max_req_frame_size = 1440;  // the configuration request, header included

struct tlsc_cstp_header {
    char    magic[3];   // "STF"
    uint8_t version;    // 1
    uint8_t length[2];  // of the payload, big-endian
    uint8_t type;       // tlsc_cstp_type
    uint8_t reserved;   // 0
};
static_assert(sizeof(tlsc_cstp_header) == 8);
static_assert(offsetof(tlsc_cstp_header, version) == 3);
static_assert(offsetof(tlsc_cstp_header, length) == 4);
static_assert(offsetof(tlsc_cstp_header, type) == 6);
static_assert(offsetof(tlsc_cstp_header, reserved) == 7);

constexpr size_t max_payload_size = max_read_size - sizeof(tlsc_cstp_header);

// One received frame, with room for the NUL behind a configuration response.
struct tlsc_cstp_frame {
    tlsc_cstp_header header;
    uint8_t          payload[max_payload_size + 1];
};
static_assert(sizeof(tlsc_cstp_frame) == 8 + 1492 + 1);
static_assert(offsetof(tlsc_cstp_frame, payload) == 8);

enum tlsc_cstp_resp : int32_t {
    TLSC_CSTP_RESP_ERR_NONE       = 0,
    TLSC_CSTP_START_TIMER_FAILED  = 1,
    TLSC_CSTP_INVALID_FRAME_RECVD = 2,
    TLSC_CSTP_FRAME_SIZE_TOO_BIG  = 3,
    TLSC_CSTP_DATA_WRITE_FAILED   = 4,
    TLSC_CSTP_EPOLL_CTL_FAILED    = 5,
    TLSC_CSTP_NULL_PTR_RECVD      = 6,
    TLSC_CSTP_INVALID_ADDR        = 7,
    TLSC_CSTP_ADDR_NOT_RECVD      = 8,
    TLSC_CSTP_SESS_NOT_FOUND      = 9,
    TLSC_CSTP_REQ_WRITE_FAILED    = 12,  // without a name of its own
    TLSC_CSTP_REQ_GUARD_FAILED    = 13,  // without a name of its own
};

// Outcome of one TLS read or write, as the callers see it.
enum tlsc_ssl_result : int32_t {
    TLSC_SSL_ERROR      = 0,
    TLSC_SSL_OK         = 1,
    TLSC_SSL_WANT_READ  = 2,
    TLSC_SSL_WANT_WRITE = 3,
};

// ---- statistics and causes ------------------------------------------------------------------------------------------

// 31 counters; the order is the wire order of the statistics message.
struct tlsc_stats {
    uint64_t data_pkt_rx;
    uint64_t data_pkt_tx;
    uint64_t ctrl_pkt_rx;
    uint64_t ctrl_pkt_tx;
    uint64_t invalid_rx;
    uint64_t tun_pkt_rx;
    uint64_t tun_pkt_tx;
    uint64_t dpd_req_tx;
    uint64_t dpd_rsp_rx;
    uint64_t rekey_attempts;
    uint64_t rekey_success;
    uint64_t tun_alloc;
    uint64_t tun_freed;
    uint64_t ssl_read_errors_total;
    uint64_t ssl_read_errors_readwouldblock;
    uint64_t ssl_read_errors_writewouldblock;
    uint64_t ssl_read_errors_others;
    uint64_t ssl_write_errors_total;
    uint64_t ssl_write_errors_readwouldblock;
    uint64_t ssl_write_errors_writewouldblock;
    uint64_t ssl_write_errors_others;
    uint64_t tun_read_errors_total;
    uint64_t tun_read_errors_einval;
    uint64_t tun_read_errors_ebadf;
    uint64_t tun_read_errors_efault;
    uint64_t tun_read_errors_others;
    uint64_t tun_write_errors_total;
    uint64_t tun_write_errors_einval;
    uint64_t tun_write_errors_ebadf;
    uint64_t tun_write_errors_efault;
    uint64_t tun_write_errors_others;
};
constexpr size_t stats_counters = 31;
static_assert(sizeof(tlsc_stats) == stats_counters * sizeof(uint64_t));
static_assert(sizeof(tlsc_stats) == 248);
static_assert(offsetof(tlsc_stats, ssl_read_errors_total) == 13 * 8);
static_assert(offsetof(tlsc_stats, tun_write_errors_others) == 30 * 8);

enum tlsc_tun_down_cause : int32_t {
    TLSC_DOWN_NO_ERROR      = 0,
    TLSC_DOWN_INIT_FAILED   = 1,
    TLSC_DOWN_START_FAILED  = 2,
    TLSC_DOWN_SOCKET_ERROR  = 3,
    TLSC_DOWN_SSL_WRITE     = 4,
    TLSC_DOWN_SSL_READ      = 5,
    TLSC_DOWN_TCP_CONNECT   = 6,
    TLSC_DOWN_SSL_CONNECT   = 7,
    TLSC_DOWN_PTHREAD       = 8,
    TLSC_DOWN_CSTP_TIMEOUT  = 9,
    TLSC_DOWN_CSTP_RESPONSE = 10,
    TLSC_DOWN_DPD_TIMEOUT   = 11,
};

// The DNS servers of one configuration response, handed upward by value.
struct tlsc_dns_list {
    uint16_t  count;  // as received from the caller, may exceed the entries
    tlsc_addr servers[max_dns_servers];
};
