// The shared records of the controller interface: the 520-byte message, its catalogue and its payload layouts.
#pragma once

#include "tlsc.h"

// Message identifiers. The name table of the catalogue stands in tlsc_wlc.cpp.
enum wlc_msg_id : uint32_t {
    WLC_SEC_TUN_MSG_HELLO                = 1,  // both ways; answered with HELLO
    WLC_SEC_TUN_MSG_BOOTUP               = 2,  // 2 to 7: not handled
    WLC_SEC_TUN_MSG_ENABLE               = 3,
    WLC_SEC_TUN_MSG_DISABLE              = 4,
    WLC_SEC_TUN_MSG_TUN_RESTART          = 5,
    WLC_SEC_TUN_MSG_CONFIG_ERR           = 6,
    WLC_SEC_TUN_MSG_CONFIG_UPDATE        = 7,
    WLC_SEC_TUN_MSG_TLSC_TUN_START       = 20,  // received
    WLC_SEC_TUN_MSG_TLSC_TUN_STOP        = 21,  // received
    WLC_SEC_TUN_MSG_TLSC_TUN_RESTART     = 22,  // received
    WLC_SEC_TUN_MSG_TLSC_TUN_IN_PROG     = 23,  // sent: a start was accepted
    WLC_SEC_TUN_MSG_TLSC_TUN_UP          = 24,  // sent
    WLC_SEC_TUN_MSG_TLSC_TUN_DOWN        = 25,  // sent, with the cause text
    WLC_SEC_TUN_MSG_TLSC_TUN_STATS       = 26,  // not used
    WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ     = 27,  // sent: resolve the gateway's name
    WLC_SEC_TUN_MSG_TLSC_GW_FQDN_RES     = 28,  // received: the resolved address
    WLC_SEC_TUN_MSG_TLSC_DEBUG_SET       = 29,  // received: log level or destination
    WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE     = 30,  // sent: DNS servers, inner address, statistics
    WLC_SEC_TUN_MSG_EXIT                 = 31,  // named only, not processed
    WLC_MSG_STATS_REQ                    = 32,  // received; without a name
    WLC_MSG_STATS_CLEAR                  = 34,  // received; without a name
    WLC_SEC_TUN_MSG_TLSC_DBG_INFO_REQ    = 35,  // received
    WLC_SEC_TUN_MSG_TLSC_DBG_INFO_UPDATE = 36,  // sent: the process id
    WLC_MSG_EXIT_PROCESS                 = 37,  // received: ends the process; without a name
};

constexpr size_t wlc_msg_size     = 520;
constexpr size_t wlc_payload_size = 512;

// One message, both ways, host byte order, written and read whole.
struct tlsc_wlc_msg {
    uint32_t msgId;                      // wlc_msg_id
    uint32_t padding;                    // zero
    uint8_t  payload[wlc_payload_size];  // unwritten bytes are zero
};
static_assert(sizeof(tlsc_wlc_msg) == wlc_msg_size);
static_assert(offsetof(tlsc_wlc_msg, padding) == 4);
static_assert(offsetof(tlsc_wlc_msg, payload) == 8);
static_assert(std::is_trivially_copyable_v<tlsc_wlc_msg>);

// ---- payloads: each lies at the start of the payload, message offset 8 ----------------------------------------------

constexpr size_t max_cause_text    = 127;  // TUN_DOWN: NUL-terminated cause
constexpr size_t max_inner_ip_text = 46;   // INFO_UPDATE, inner address: NUL-terminated dotted text

// TLSC_DEBUG_SET
struct wlc_debug_set {
    char category[64];  // "level" or "destination"
    char value[64];     // a level or destination word
};
static_assert(sizeof(wlc_debug_set) == 128);
static_assert(offsetof(wlc_debug_set, value) == 64);

enum wlc_info_type : uint32_t {
    WLC_INFO_DNS_SERVERS = 0,
    WLC_INFO_INNER_IP    = 1,
    WLC_INFO_STATS       = 33,
};

// TLSC_INFO_UPDATE
struct wlc_info_header {
    uint32_t type;      // wlc_info_type
    uint32_t reserved;  // zero
};
static_assert(sizeof(wlc_info_header) == 8);
constexpr size_t wlc_info_body_off = sizeof(wlc_info_header);  // in the payload; message offset 16

enum wlc_dns_addr_type : uint32_t {
    WLC_DNS_IPV4 = 0,
    WLC_DNS_IPV6 = 1,
};

struct wlc_dns_entry {
    uint32_t type;      // wlc_dns_addr_type
    uint8_t  addr[16];  // network order; IPv4 uses the first 4, the rest is zero
};
static_assert(sizeof(wlc_dns_entry) == 20);

// TLSC_INFO_UPDATE with type DNS servers, body at message offset 16
struct wlc_dns_info {
    uint16_t      count;     // as given, not limited to the entries
    uint16_t      reserved;  // zero
    wlc_dns_entry entries[max_dns_servers];
};
static_assert(sizeof(wlc_dns_info) == 84);
static_assert(offsetof(wlc_dns_info, entries) == 4);
static_assert(sizeof(wlc_info_header) + sizeof(wlc_dns_info) <= wlc_payload_size);
static_assert(sizeof(wlc_info_header) + sizeof(tlsc_stats) <= wlc_payload_size);
