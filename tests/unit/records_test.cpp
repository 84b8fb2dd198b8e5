// The shared records, seen as the bytes that other programs see: each field is written through the record and looked
// for at the documented place.

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tlsc.h"
#include "wlc.h"

namespace {

using bytes = std::vector<uint8_t>;

template <typename record>
bytes bytes_of(const record &value) {
    bytes all(sizeof(value));
    memcpy(all.data(), &value, sizeof(value));
    return all;
}

// A number as this machine stores it.
template <typename number>
bytes stored(number value) {
    return bytes_of(value);
}

bytes zeros(size_t count) { return bytes(count, 0); }

bytes joined(const std::vector<bytes> &parts) {
    bytes all;
    for (const bytes &part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

bytes text_field(const std::string &text, size_t width) {
    bytes field(text.begin(), text.end());
    field.resize(width, 0);
    return field;
}

}  // namespace

TEST(records, address_record_is_32_bytes_with_ipv4_at_8_and_ipv6_at_12) {
    tlsc_addr addr{};
    addr.kind     = ADDR_IPV6;
    addr.family   = 0x1234;
    addr.port     = 0x5678;
    addr.scope_id = 0x9ABCDEF0;
    const bytes ipv4{192, 0, 2, 33};
    const bytes ipv6{0x20, 0x01, 0x0D, 0xB8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    memcpy(addr.ipv4, ipv4.data(), ipv4.size());
    memcpy(addr.ipv6, ipv6.data(), ipv6.size());

    EXPECT_EQ(bytes_of(addr), joined({stored<int32_t>(2), stored<uint16_t>(0x1234), stored<uint16_t>(0x5678), ipv4,
                                      ipv6, stored<uint32_t>(0x9ABCDEF0)}));
    EXPECT_EQ(bytes_of(addr).size(), 32u);
}

TEST(records, address_kinds_are_1_for_ipv4_and_2_for_ipv6) {
    EXPECT_EQ(ADDR_NONE, 0);
    EXPECT_EQ(ADDR_IPV4, 1);
    EXPECT_EQ(ADDR_IPV6, 2);
}

TEST(records, command_is_36_bytes_id_value_and_28_bytes_of_address) {
    tlsc_cli_cmd cmd{};
    cmd.id    = CLI_CMD_GW_IP;
    cmd.value = -2;
    for (size_t i = 0; i < gw_sockaddr_size; ++i) cmd.gw_sockaddr[i] = static_cast<uint8_t>(0x40 + i);

    bytes expected = joined({stored<int32_t>(4), stored<int32_t>(-2)});
    for (uint8_t i = 0; i < 28; ++i) expected.push_back(static_cast<uint8_t>(0x40 + i));
    EXPECT_EQ(bytes_of(cmd), expected);
    EXPECT_EQ(expected.size(), 36u);
}

TEST(records, command_ids_are_1_exit_2_level_3_destination_4_gateway_address) {
    EXPECT_EQ(CLI_CMD_INVALID, 0);
    EXPECT_EQ(CLI_CMD_EXIT_CLIENT, 1);
    EXPECT_EQ(CLI_CMD_LOG_LEVEL, 2);
    EXPECT_EQ(CLI_CMD_LOG_DEST, 3);
    EXPECT_EQ(CLI_CMD_GW_IP, 4);
}

TEST(records, address_record_behind_its_kind_is_what_a_command_carries) {
    tlsc_gw_addr addr{};
    addr.kind          = ADDR_IPV4;
    const uint8_t ip[] = {203, 0, 113, 7};
    memcpy(addr.ipv4, ip, sizeof(ip));

    tlsc_cli_cmd cmd{};
    memcpy(cmd.gw_sockaddr, reinterpret_cast<const uint8_t *>(&addr) + sizeof(int32_t), gw_sockaddr_size);
    EXPECT_EQ(bytes_of(cmd), joined({zeros(8), zeros(4), {203, 0, 113, 7}, zeros(20)}));
    EXPECT_EQ(memcmp(cmd.gw_sockaddr + gw_sockaddr_ipv4_off, ip, sizeof(ip)), 0);
}

TEST(records, frame_header_is_8_bytes_with_the_length_in_network_order) {
    tlsc_cstp_header header{};
    memcpy(header.magic, "STF", sizeof(header.magic));
    header.version   = 1;
    header.length[0] = 0x05;
    header.length[1] = 0x9C;
    header.type      = CSTP_DPD_REQ;
    header.reserved  = 0;
    EXPECT_EQ(bytes_of(header), (bytes{'S', 'T', 'F', 1, 0x05, 0x9C, 3, 0}));
}

TEST(records, frame_holds_the_largest_read_and_a_terminator_behind_it) {
    EXPECT_EQ(sizeof(tlsc_cstp_frame), 1501u);
    EXPECT_EQ(offsetof(tlsc_cstp_frame, payload), 8u);
    EXPECT_EQ(max_read_size, 1500u);
    EXPECT_EQ(max_packet_size, 1436u);
    EXPECT_EQ(max_req_frame_size, 1440u);
}

TEST(records, frame_types_are_0_data_to_4_dpd_response) {
    EXPECT_EQ(bytes({CSTP_DATA, CSTP_CONFIG_REQ, CSTP_CONFIG_RESPONSE, CSTP_DPD_REQ, CSTP_DPD_RESPONSE}),
              bytes({0, 1, 2, 3, 4}));
}

TEST(records, statistics_are_31_counters_in_wire_order) {
    tlsc_stats stats{};
    uint64_t tlsc_stats::*const in_order[] = {&tlsc_stats::data_pkt_rx,
                                              &tlsc_stats::data_pkt_tx,
                                              &tlsc_stats::ctrl_pkt_rx,
                                              &tlsc_stats::ctrl_pkt_tx,
                                              &tlsc_stats::invalid_rx,
                                              &tlsc_stats::tun_pkt_rx,
                                              &tlsc_stats::tun_pkt_tx,
                                              &tlsc_stats::dpd_req_tx,
                                              &tlsc_stats::dpd_rsp_rx,
                                              &tlsc_stats::rekey_attempts,
                                              &tlsc_stats::rekey_success,
                                              &tlsc_stats::tun_alloc,
                                              &tlsc_stats::tun_freed,
                                              &tlsc_stats::ssl_read_errors_total,
                                              &tlsc_stats::ssl_read_errors_readwouldblock,
                                              &tlsc_stats::ssl_read_errors_writewouldblock,
                                              &tlsc_stats::ssl_read_errors_others,
                                              &tlsc_stats::ssl_write_errors_total,
                                              &tlsc_stats::ssl_write_errors_readwouldblock,
                                              &tlsc_stats::ssl_write_errors_writewouldblock,
                                              &tlsc_stats::ssl_write_errors_others,
                                              &tlsc_stats::tun_read_errors_total,
                                              &tlsc_stats::tun_read_errors_einval,
                                              &tlsc_stats::tun_read_errors_ebadf,
                                              &tlsc_stats::tun_read_errors_efault,
                                              &tlsc_stats::tun_read_errors_others,
                                              &tlsc_stats::tun_write_errors_total,
                                              &tlsc_stats::tun_write_errors_einval,
                                              &tlsc_stats::tun_write_errors_ebadf,
                                              &tlsc_stats::tun_write_errors_efault,
                                              &tlsc_stats::tun_write_errors_others};
    ASSERT_EQ(std::size(in_order), 31u);

    bytes expected;
    for (size_t i = 0; i < std::size(in_order); ++i) {
        const uint64_t value  = 0x0102030405060000u + i;
        stats.*(in_order[i])  = value;
        const bytes in_memory = stored(value);
        expected.insert(expected.end(), in_memory.begin(), in_memory.end());
    }
    EXPECT_EQ(bytes_of(stats), expected);
    EXPECT_EQ(expected.size(), 248u);
}

TEST(records, down_causes_are_0_to_11) {
    EXPECT_EQ(TLSC_DOWN_NO_ERROR, 0);
    EXPECT_EQ(TLSC_DOWN_INIT_FAILED, 1);
    EXPECT_EQ(TLSC_DOWN_START_FAILED, 2);
    EXPECT_EQ(TLSC_DOWN_SOCKET_ERROR, 3);
    EXPECT_EQ(TLSC_DOWN_SSL_WRITE, 4);
    EXPECT_EQ(TLSC_DOWN_SSL_READ, 5);
    EXPECT_EQ(TLSC_DOWN_TCP_CONNECT, 6);
    EXPECT_EQ(TLSC_DOWN_SSL_CONNECT, 7);
    EXPECT_EQ(TLSC_DOWN_PTHREAD, 8);
    EXPECT_EQ(TLSC_DOWN_CSTP_TIMEOUT, 9);
    EXPECT_EQ(TLSC_DOWN_CSTP_RESPONSE, 10);
    EXPECT_EQ(TLSC_DOWN_DPD_TIMEOUT, 11);
}

TEST(records, controller_message_is_520_bytes_id_padding_and_512_bytes_of_payload) {
    tlsc_wlc_msg msg{};
    msg.msgId = WLC_SEC_TUN_MSG_TLSC_TUN_DOWN;
    memcpy(msg.payload, "No Error", 8);
    msg.payload[511] = 0xEE;

    const bytes raw = bytes_of(msg);
    EXPECT_EQ(raw, joined({stored<uint32_t>(25), zeros(4), text_field("No Error", 511), {0xEE}}));
    EXPECT_EQ(raw.size(), 520u);
}

TEST(records, controller_message_ids_are_as_catalogued) {
    EXPECT_EQ(WLC_SEC_TUN_MSG_HELLO, 1u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_BOOTUP, 2u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_CONFIG_UPDATE, 7u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_START, 20u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_STOP, 21u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_RESTART, 22u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_IN_PROG, 23u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_UP, 24u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_DOWN, 25u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_TUN_STATS, 26u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ, 27u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_GW_FQDN_RES, 28u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_DEBUG_SET, 29u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE, 30u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_EXIT, 31u);
    EXPECT_EQ(WLC_MSG_STATS_REQ, 32u);
    EXPECT_EQ(WLC_MSG_STATS_CLEAR, 34u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_DBG_INFO_REQ, 35u);
    EXPECT_EQ(WLC_SEC_TUN_MSG_TLSC_DBG_INFO_UPDATE, 36u);
    EXPECT_EQ(WLC_MSG_EXIT_PROCESS, 37u);
}

TEST(records, debug_set_payload_is_two_texts_of_64_bytes) {
    wlc_debug_set set{};
    memcpy(set.category, "level", 5);
    memcpy(set.value, "debug", 5);
    EXPECT_EQ(bytes_of(set), joined({text_field("level", 64), text_field("debug", 64)}));
}

TEST(records, information_body_starts_at_message_offset_16) {
    wlc_info_header header{};
    header.type = WLC_INFO_STATS;
    EXPECT_EQ(bytes_of(header), joined({stored<uint32_t>(33), zeros(4)}));
    EXPECT_EQ(offsetof(tlsc_wlc_msg, payload) + wlc_info_body_off, 16u);
    EXPECT_EQ(WLC_INFO_DNS_SERVERS, 0u);
    EXPECT_EQ(WLC_INFO_INNER_IP, 1u);
}

TEST(records, dns_information_is_a_count_and_four_entries_of_20_bytes) {
    wlc_dns_info info{};
    info.count = 6;
    for (uint8_t i = 0; i < 4; ++i) {
        info.entries[i].type     = i % 2 == 0 ? WLC_DNS_IPV4 : WLC_DNS_IPV6;
        info.entries[i].addr[0]  = static_cast<uint8_t>(10 + i);
        info.entries[i].addr[15] = static_cast<uint8_t>(20 + i);
    }
    bytes expected = joined({stored<uint16_t>(6), zeros(2)});
    for (uint8_t i = 0; i < 4; ++i)
        expected = joined({expected,
                           stored<uint32_t>(i % 2),
                           {static_cast<uint8_t>(10 + i)},
                           zeros(14),
                           {static_cast<uint8_t>(20 + i)}});
    EXPECT_EQ(bytes_of(info), expected);
    EXPECT_EQ(expected.size(), 84u);
}

TEST(records, configuration_fields_have_the_documented_widths) {
    const tlsc_config conf{};
    EXPECT_EQ(sizeof(conf.svr_addr_ipv4), 50u);
    EXPECT_EQ(sizeof(conf.device_id), 17u);
    EXPECT_EQ(sizeof(conf.device_name), 51u);
    EXPECT_EQ(sizeof(conf.serial_no), 17u);
    EXPECT_EQ(sizeof(conf.management_ip), 50u);
    EXPECT_EQ(sizeof(conf.tun_interface_name), 50u);
    EXPECT_EQ(sizeof(conf.cipher_algo), 50u);
    EXPECT_EQ(std::size(conf.dns_servers), 4u);
    EXPECT_EQ(sizeof(conf.cookie), 12u);
    EXPECT_EQ(sizeof(conf.ssl_certificate), 100u);
    EXPECT_EQ(sizeof(conf.ssl_private_key), 100u);
    EXPECT_EQ(sizeof(conf.ssl_rootca_bundle), 100u);
    EXPECT_EQ(sizeof(conf.ssl_crl), 100u);
    EXPECT_EQ(psk_identity_size, 129u);
    EXPECT_EQ(psk_key_size, 257u);
}

TEST(records, configuration_fields_stand_in_the_documented_order) {
    const size_t in_order[] = {offsetof(tlsc_config, svr_addr_ipv4),
                               offsetof(tlsc_config, inner_addr),
                               offsetof(tlsc_config, device_id),
                               offsetof(tlsc_config, device_name),
                               offsetof(tlsc_config, serial_no),
                               offsetof(tlsc_config, management_ip),
                               offsetof(tlsc_config, tun_interface_name),
                               offsetof(tlsc_config, cipher_algo),
                               offsetof(tlsc_config, reserved_addr),
                               offsetof(tlsc_config, dns_count),
                               offsetof(tlsc_config, dns_servers),
                               offsetof(tlsc_config, prefix),
                               offsetof(tlsc_config, prefix_length),
                               offsetof(tlsc_config, server_port),
                               offsetof(tlsc_config, dpd_interval),
                               offsetof(tlsc_config, rekey_interval),
                               offsetof(tlsc_config, retry_interval),
                               offsetof(tlsc_config, fqdn_resolution_interval),
                               offsetof(tlsc_config, cookie),
                               offsetof(tlsc_config, ssl_auth_mech),
                               offsetof(tlsc_config, ssl_certificate),
                               offsetof(tlsc_config, ssl_private_key),
                               offsetof(tlsc_config, ssl_rootca_bundle),
                               offsetof(tlsc_config, ssl_crl)};
    for (size_t i = 1; i < std::size(in_order); ++i) EXPECT_LT(in_order[i - 1], in_order[i]) << "field " << i;
}

TEST(records, parameter_block_is_twelve_texts_of_64_bytes_and_the_port) {
    wlc_sec_tun_params params{};
    char(wlc_sec_tun_params::*const in_order[])[64] = {
        &wlc_sec_tun_params::server_ip_address, &wlc_sec_tun_params::management_ip,
        &wlc_sec_tun_params::inner_ip,          &wlc_sec_tun_params::tun_interface_name,
        &wlc_sec_tun_params::cipher_algo,       &wlc_sec_tun_params::psk_identity,
        &wlc_sec_tun_params::psk_key,           &wlc_sec_tun_params::log_level,
        &wlc_sec_tun_params::log_dest,          &wlc_sec_tun_params::device_id,
        &wlc_sec_tun_params::serial_num,        &wlc_sec_tun_params::system_name};
    bytes expected;
    for (size_t i = 0; i < std::size(in_order); ++i) {
        (params.*(in_order[i]))[0] = static_cast<char>('a' + i);
        expected                   = joined({expected, text_field(std::string(1, static_cast<char>('a' + i)), 64)});
    }
    params.server_port = 4433;
    EXPECT_EQ(bytes_of(params), joined({expected, stored<int32_t>(4433)}));
}

TEST(records, authentication_mechanisms_are_1_certificate_and_2_psk) {
    EXPECT_EQ(SSL_AUTH_NONE, 0);
    EXPECT_EQ(SSL_AUTH_CERTIFICATE, 1);
    EXPECT_EQ(SSL_AUTH_PSK, 2);
}

TEST(records, descriptor_kinds_are_0_unknown_1_tun_2_tls) {
    EXPECT_EQ(TLSC_FD_UNKNOWN, 0);
    EXPECT_EQ(TLSC_FD_TUN, 1);
    EXPECT_EQ(TLSC_FD_SSL, 2);
}
