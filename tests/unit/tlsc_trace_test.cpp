// The TLS protocol trace: the message callback fed with single messages, and both callbacks on a real handshake that
// runs in memory.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "tlsc_debug.h"
#include "tlsc_openssl.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr int received           = 0;
constexpr int sent               = 1;
constexpr int tls_1_2            = 0x0303;
constexpr int change_cipher_spec = 20;
constexpr int alert              = 21;
constexpr int handshake          = 22;
constexpr int application_data   = 23;
constexpr int heartbeat          = 24;

// The message part of the one line that the callback prints at level "ssl-dbg".
std::string traced(int write_p, int version, int content_type, const bytes &message) {
    log_capture log(LOG_SSL_DBG);
    tlsc_ssl_msg_cb(write_p, version, content_type, message.data(), message.size(), nullptr, nullptr);
    const auto lines = log.entries();
    if (lines.size() != 1) return "not one line";
    EXPECT_EQ(lines[0].severity, "SSL_DEBUG");
    EXPECT_EQ(lines[0].file, "tlsc_debug.c");
    EXPECT_EQ(lines[0].function, "tlsc_ssl_msg_cb");
    return lines[0].message;
}

bytes with_first(uint8_t first, size_t length) {
    bytes message(length, 0);
    message[0] = first;
    return message;
}

// ---- a client and a server in memory --------------------------------------------------------------------------------

constexpr char cipher_list[] = "PSK-AES256-CBC-SHA";
constexpr char key_text[]    = "abcd1234";

unsigned give_client_key(SSL *, const char *, char *identity, unsigned, unsigned char *psk, unsigned) {
    strcpy(identity, "device");
    memcpy(psk, key_text, 8);
    return 8;
}

unsigned give_server_key(SSL *, const char *, unsigned char *psk, unsigned) {
    memcpy(psk, key_text, 8);
    return 8;
}

unsigned give_wrong_key(SSL *, const char *, unsigned char *psk, unsigned) {
    memcpy(psk, "00000000", 8);
    return 8;
}

// Two ends joined by a pair of memory buffers of the given size in bytes.
struct memory_link {
    explicit memory_link(size_t buffer = 65536, bool right_key = true) {
        tlsc_ossl_early_init();
        SSL_library_init();
        SSL_load_error_strings();
        client_ctx = SSL_CTX_new(TLSv1_2_client_method());
        server_ctx = SSL_CTX_new(TLSv1_2_server_method());
        SSL_CTX_set_cipher_list(client_ctx, cipher_list);
        SSL_CTX_set_cipher_list(server_ctx, cipher_list);
        SSL_CTX_set_psk_client_callback(client_ctx, give_client_key);
        SSL_CTX_set_psk_server_callback(server_ctx, right_key ? give_server_key : give_wrong_key);
        client          = SSL_new(client_ctx);
        server          = SSL_new(server_ctx);
        BIO *client_end = nullptr, *server_end = nullptr;
        BIO_new_bio_pair(&client_end, buffer, &server_end, buffer);
        SSL_set_bio(client, client_end, client_end);
        SSL_set_bio(server, server_end, server_end);
        SSL_set_connect_state(client);
        SSL_set_accept_state(server);
    }
    memory_link(const memory_link &)            = delete;
    memory_link &operator=(const memory_link &) = delete;
    ~memory_link() {
        SSL_free(client);
        SSL_free(server);
        SSL_CTX_free(client_ctx);
        SSL_CTX_free(server_ctx);
        ERR_clear_error();
    }

    void trace(SSL *ssl) {
        SSL_set_msg_callback(ssl, tlsc_ossl_traced<tlsc_ssl_msg_cb>);
        SSL_set_info_callback(ssl, tlsc_ssl_info_cb);
    }

    // Lets both ends take turns until the handshake is over or stuck. Returns true when both are done.
    bool shake_hands() {
        bool client_done = false, server_done = false;
        for (int turn = 0; turn < 100 && !(client_done && server_done); ++turn) {
            client_done = client_done || SSL_do_handshake(client) == 1;
            server_done = server_done || SSL_do_handshake(server) == 1;
        }
        return client_done && server_done;
    }

    SSL_CTX *client_ctx;
    SSL_CTX *server_ctx;
    SSL     *client;
    SSL     *server;
};

bool has_message(const std::vector<std::string> &messages, const std::string &wanted) {
    for (const std::string &message : messages)
        if (message == wanted) return true;
    return false;
}

// True for "front", four hexadecimal digits, "back".
bool has_message_with_length(const std::vector<std::string> &messages, const std::string &front,
                             const std::string &back) {
    for (const std::string &message : messages)
        if (message.size() == front.size() + 4 + back.size() && message.starts_with(front) && message.ends_with(back))
            return true;
    return false;
}

size_t count_starting(const std::vector<std::string> &messages, const std::string &front) {
    size_t count = 0;
    for (const std::string &message : messages) count += message.starts_with(front);
    return count;
}

}  // namespace

// ---- message callback: the line -------------------------------------------------------------------------------------

TEST(tlsc_trace, sent_client_hello_of_52_bytes_is_one_line) {
    EXPECT_EQ(traced(sent, tls_1_2, handshake, with_first(1, 52)), ">>> TLS 1.2 Handshake [length 0034], ClientHello");
}

TEST(tlsc_trace, whole_line_carries_the_severity_word_uncut) {
    log_capture log(LOG_SSL_DBG);
    tlsc_ssl_msg_cb(received, tls_1_2, change_cipher_spec, "\1", 1, nullptr, nullptr);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(is_log_line(log.lines()[0], "SSL_DEBUG", "tlsc_debug.c", "tlsc_ssl_msg_cb",
                            "<<< TLS 1.2 ChangeCipherSpec [length 0001]"));
}

TEST(tlsc_trace, direction_is_received_for_0_and_sent_for_anything_else) {
    EXPECT_EQ(traced(0, tls_1_2, application_data, {1}), "<<< TLS 1.2  [length 0001]");
    EXPECT_EQ(traced(1, tls_1_2, application_data, {1}), ">>> TLS 1.2  [length 0001]");
    EXPECT_EQ(traced(2, tls_1_2, application_data, {1}), ">>> TLS 1.2  [length 0001]");
}

TEST(tlsc_trace, versions_have_their_texts_with_their_trailing_blanks) {
    const std::vector<std::pair<int, std::string>> table{{0x0002, "SSL 2.0"},
                                                         {0x0300, "SSL 3.0 "},
                                                         {0x0301, "TLS 1.0 "},
                                                         {0x0302, "TLS 1.1 "},
                                                         {0x0303, "TLS 1.2 "},
                                                         {0xFEFF, "DTLS 1.0"},
                                                         {0x0100, "DTLS 1.0 (quill-link)"},
                                                         {0x0304, "???"},
                                                         {0x0000, "???"},
                                                         {0x0003, "???"},
                                                         {0x02FF, "???"},
                                                         {0xFEFE, "???"},
                                                         {-1, "???"}};
    for (const auto &[version, text] : table)
        EXPECT_EQ(traced(received, version, application_data, {1, 2, 3}), "<<< " + text + " [length 0003]") << version;
}

TEST(tlsc_trace, unknown_version_with_the_length_of_a_record_header_is_a_header) {
    for (int version : {0, 0x0304})
        for (size_t length : {4u, 5u, 6u, 12u, 13u, 14u}) {
            char expected[64];
            snprintf(expected, sizeof(expected), ">>> %s [length %04zx]",
                     length == 5 || length == 13 ? "TLS Header" : "???", length);
            EXPECT_EQ(traced(sent, version, application_data, bytes(length)), expected);
        }
    EXPECT_EQ(traced(sent, 0x0002, application_data, bytes(5)), ">>> SSL 2.0 [length 0005]")
        << "known versions keep their text";
}

TEST(tlsc_trace, content_type_of_a_record_header_changes_nothing_in_the_table) {
    EXPECT_EQ(traced(sent, 0, 256, bytes(5)), ">>> TLS Header [length 0005]");
    EXPECT_EQ(traced(sent, tls_1_2, 256, bytes(5)), ">>> TLS 1.2  [length 0005]");
}

TEST(tlsc_trace, installed_callback_hears_of_a_record_header_alike_on_both_openssl_series) {
    log_capture log(LOG_SSL_DBG);
    for (int version : {0, TLSC_OPENSSL_1_0 ? 0 : tls_1_2})
        tlsc_ossl_traced<tlsc_ssl_msg_cb>(sent, version, 256, "\x16\x03\x03\x00\x34", 5, nullptr, nullptr);
    tlsc_ossl_traced<tlsc_ssl_msg_cb>(received, tls_1_2, alert, "\2\50", 2, nullptr, nullptr);
    EXPECT_EQ(log.messages(), (std::vector<std::string>{">>> TLS Header [length 0005]", ">>> TLS Header [length 0005]",
                                                        "<<< TLS 1.2 Alert [length 0002], fatal handshake_failure"}));
}

TEST(tlsc_trace, null_message_with_a_length_and_a_null_session_are_refused) {
    log_capture log(LOG_BUF_PRINT);
    tlsc_ssl_msg_cb(sent, tls_1_2, handshake, nullptr, 5, nullptr, nullptr);
    tlsc_ssl_info_cb(nullptr, SSL_CB_HANDSHAKE_DONE, 1);
    tlsc_ssl_info_cb(nullptr, SSL_ST_CONNECT | SSL_CB_LOOP, 1);
    tlsc_ssl_debug = 0;
    tlsc_ssl_info_cb(nullptr, 0, 0);
    tlsc_ssl_debug = 1;
    EXPECT_EQ(log.entries().size(), 4u);
    EXPECT_EQ(log.count("ERROR", "tlsc_debug.c", "tlsc_ssl_msg_cb", "Null ptr received for buf"), 1u);
    EXPECT_EQ(log.count("ERROR", "tlsc_debug.c", "tlsc_ssl_info_cb", "Null ptr received for ssl"), 3u);
}

TEST(tlsc_trace, only_five_versions_have_content_types) {
    for (int version : {0x0300, 0x0301, 0x0302, 0x0303, 0xFEFF})
        EXPECT_TRUE(traced(sent, version, alert, {2, 40}).ends_with("Alert [length 0002], fatal handshake_failure"))
            << version;
    EXPECT_EQ(traced(sent, 0x0100, alert, {2, 40}), ">>> DTLS 1.0 (quill-link) [length 0002]");
    EXPECT_EQ(traced(sent, 0x0002, handshake, {1}), ">>> SSL 2.0 [length 0001]");
    EXPECT_EQ(traced(sent, 0x0304, change_cipher_spec, {1}), ">>> ??? [length 0001]");
    EXPECT_EQ(traced(sent, 0x02FF, heartbeat, {1}), ">>> ??? [length 0001]");
}

TEST(tlsc_trace, other_content_types_have_no_text) {
    for (int type : {0, 19, 23, 25, 255, -1})
        EXPECT_EQ(traced(sent, tls_1_2, type, {1, 2}), ">>> TLS 1.2  [length 0002]") << type;
}

TEST(tlsc_trace, length_has_at_least_four_hexadecimal_digits) {
    EXPECT_EQ(traced(sent, tls_1_2, application_data, bytes(0xABC)), ">>> TLS 1.2  [length 0abc]");
    EXPECT_EQ(traced(sent, tls_1_2, application_data, bytes(0x12345)), ">>> TLS 1.2  [length 12345]");
}

// ---- message callback: alerts, handshake messages, heartbeats -------------------------------------------------------

TEST(tlsc_trace, every_alert_description_has_its_text) {
    const std::vector<std::pair<uint8_t, std::string>> table{{0, "close_notify"},
                                                             {10, "unexpected_message"},
                                                             {20, "bad_record_mac"},
                                                             {21, "decryption_failed"},
                                                             {22, "record_overflow"},
                                                             {30, "decompression_failure"},
                                                             {40, "handshake_failure"},
                                                             {42, "bad_certificate"},
                                                             {43, "unsupported_certificate"},
                                                             {44, "certificate_revoked"},
                                                             {45, "certificate_expired"},
                                                             {46, "certificate_unknown"},
                                                             {47, "illegal_parameter"},
                                                             {48, "unknown_ca"},
                                                             {49, "access_denied"},
                                                             {50, "decode_error"},
                                                             {51, "decrypt_error"},
                                                             {60, "export_restriction"},
                                                             {70, "protocol_version"},
                                                             {71, "insufficient_security"},
                                                             {80, "internal_error"},
                                                             {90, "user_canceled"},
                                                             {100, "no_renegotiation"},
                                                             {110, "unsupported_extension"},
                                                             {111, "certificate_unobtainable"},
                                                             {112, "unrecognized_name"},
                                                             {113, "bad_certificate_status_response"},
                                                             {114, "bad_certificate_hash_value"},
                                                             {115, "unknown_psk_identity"}};
    std::vector<std::string>                           texts(256, "???");
    for (const auto &[code, text] : table) texts[code] = text;
    for (int code = 0; code < 256; ++code)
        EXPECT_EQ(traced(received, tls_1_2, alert, {2, static_cast<uint8_t>(code)}),
                  "<<< TLS 1.2 Alert [length 0002], fatal " + texts[static_cast<size_t>(code)]);
}

TEST(tlsc_trace, alert_level_is_warning_for_1_fatal_for_2_and_unknown_otherwise) {
    EXPECT_EQ(traced(received, tls_1_2, alert, {1, 0}), "<<< TLS 1.2 Alert [length 0002], warning close_notify");
    EXPECT_EQ(traced(received, tls_1_2, alert, {2, 0}), "<<< TLS 1.2 Alert [length 0002], fatal close_notify");
    EXPECT_EQ(traced(received, tls_1_2, alert, {0, 0}), "<<< TLS 1.2 Alert [length 0002], ??? close_notify");
    EXPECT_EQ(traced(received, tls_1_2, alert, {3, 99}), "<<< TLS 1.2 Alert [length 0002], ??? ???");
}

TEST(tlsc_trace, alert_of_another_length_has_no_description) {
    EXPECT_EQ(traced(received, tls_1_2, alert, {}), "<<< TLS 1.2 Alert [length 0000], ???");
    EXPECT_EQ(traced(received, tls_1_2, alert, {2}), "<<< TLS 1.2 Alert [length 0001], ???");
    EXPECT_EQ(traced(received, tls_1_2, alert, {2, 40, 0}), "<<< TLS 1.2 Alert [length 0003], ???");
}

TEST(tlsc_trace, every_handshake_message_has_its_text) {
    const std::vector<std::pair<uint8_t, std::string>> table{
        {0, ", HelloRequest"},        {1, ", ClientHello"},      {2, ", ServerHello"},
        {3, ", HelloVerifyRequest"},  {11, ", Certificate"},     {12, ", ServerKeyExchange"},
        {13, ", CertificateRequest"}, {14, ", ServerHelloDone"}, {15, ", CertificateVerify"},
        {16, ", ClientKeyExchange"},  {20, ", Finished"}};
    std::vector<std::string> texts(256, "???");
    for (const auto &[type, text] : table) texts[type] = text;
    for (int type = 0; type < 256; ++type)
        EXPECT_EQ(traced(sent, tls_1_2, handshake, with_first(static_cast<uint8_t>(type), 4)),
                  ">>> TLS 1.2 Handshake [length 0004]" + texts[static_cast<size_t>(type)]);
}

TEST(tlsc_trace, handshake_message_of_length_0_is_unknown_and_has_no_dump) {
    EXPECT_EQ(traced(sent, tls_1_2, handshake, {}), ">>> TLS 1.2 Handshake [length 0000]???");
    log_capture log(LOG_BUF_PRINT);
    tlsc_ssl_msg_cb(sent, tls_1_2, handshake, nullptr, 0, nullptr, nullptr);
    EXPECT_TRUE(log.text().ends_with("[length 0000]???"));
}

TEST(tlsc_trace, heartbeat_has_details_but_no_type_text) {
    EXPECT_EQ(traced(sent, tls_1_2, heartbeat, {1, 0}), ">>> TLS 1.2  [length 0002], HeartbeatRequest");
    EXPECT_EQ(traced(sent, tls_1_2, heartbeat, {2, 0}), ">>> TLS 1.2  [length 0002], HeartbeatResponse");
    EXPECT_EQ(traced(sent, tls_1_2, heartbeat, {3, 0}), ">>> TLS 1.2  [length 0002], Heartbeat");
    EXPECT_EQ(traced(sent, tls_1_2, heartbeat, {}), ">>> TLS 1.2  [length 0000], Heartbeat");
}

// ---- message callback: levels, dump, switch -------------------------------------------------------------------------

TEST(tlsc_trace, message_is_dumped_whole_at_level_5_between_a_line_start_and_a_line_end) {
    log_capture log(LOG_BUF_PRINT);
    bytes       message(34);
    for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<uint8_t>(i + 0xF0);
    tlsc_ssl_msg_cb(sent, tls_1_2, application_data, message.data(), message.size(), nullptr, nullptr);
    EXPECT_TRUE(log.text().ends_with("[length 0022]"
                                     "\n    f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff"
                                     "\n    00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f"
                                     "\n    10 11"
                                     "\n"))
        << log.text();
}

TEST(tlsc_trace, dump_of_16_bytes_is_one_row) {
    log_capture log(LOG_BUF_PRINT);
    tlsc_ssl_msg_cb(sent, tls_1_2, application_data, "0123456789abcdef", 16, nullptr, nullptr);
    EXPECT_TRUE(log.text().ends_with("]\n    30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66\n"));
}

TEST(tlsc_trace, dump_of_a_long_message_has_no_limit) {
    log_capture log(LOG_BUF_PRINT);
    const bytes message(5000, 0x5A);
    tlsc_ssl_msg_cb(sent, tls_1_2, application_data, message.data(), message.size(), nullptr, nullptr);
    const std::string text  = log.text();
    size_t            count = 0;
    for (size_t at = text.find(" 5a"); at != std::string::npos; at = text.find(" 5a", at + 1)) ++count;
    EXPECT_EQ(count, 5000u);
}

TEST(tlsc_trace, level_4_prints_the_line_without_a_dump_and_level_3_nothing) {
    log_capture log(LOG_SSL_DBG);
    tlsc_ssl_msg_cb(sent, tls_1_2, application_data, "abc", 3, nullptr, nullptr);
    EXPECT_TRUE(log.text().ends_with("[length 0003]"));
    tlsc_log_level = LOG_DEBUG;
    log.clear();
    tlsc_ssl_msg_cb(sent, tls_1_2, application_data, "abc", 3, nullptr, nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(tlsc_trace, callbacks_that_are_switched_off_say_so_at_debug_level_and_do_nothing) {
    memory_link link;
    log_capture log(LOG_BUF_PRINT);
    tlsc_ssl_debug = 0;
    tlsc_ssl_msg_cb(sent, tls_1_2, alert, "\2\50", 2, nullptr, nullptr);
    tlsc_ssl_info_cb(link.client, SSL_CB_HANDSHAKE_START, 1);
    tlsc_ssl_debug   = 1;
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(is_log_line(lines[0], "DEBUG", "tlsc_debug.c", "tlsc_ssl_msg_cb",
                            "SSL Debug is turned off... Return without debugging SSL-PROTOCOL-MSG !!!"));
    EXPECT_TRUE(is_log_line(lines[1], "DEBUG", "tlsc_debug.c", "tlsc_ssl_info_cb",
                            "SSL Debug is turned off... Return without debugging SSL-INFO-CB !!!"));
}

// ---- info callback, called directly ---------------------------------------------------------------------------------

namespace {

// The message part of the one line that the info callback prints, or "nothing".
std::string informed(const SSL *ssl, int where, int ret) {
    log_capture log(LOG_SSL_DBG);
    tlsc_ssl_info_cb(ssl, where, ret);
    const auto lines = log.entries();
    if (lines.empty()) return "nothing";
    EXPECT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, "SSL_DEBUG");
    EXPECT_EQ(lines[0].file, "tlsc_debug.c");
    EXPECT_EQ(lines[0].function, "tlsc_ssl_info_cb");
    return lines[0].message;
}

}  // namespace

TEST(tlsc_trace, role_is_connect_then_accept_then_undefined) {
    memory_link       link;
    const std::string state = SSL_state_string_long(link.client);
    EXPECT_EQ(informed(link.client, SSL_CB_LOOP | SSL_ST_CONNECT, 1), "SSL_connect:" + state);
    EXPECT_EQ(informed(link.client, SSL_CB_LOOP | SSL_ST_ACCEPT, 1), "SSL_accept:" + state);
    EXPECT_EQ(informed(link.client, SSL_CB_LOOP | SSL_ST_CONNECT | SSL_ST_ACCEPT, 1), "SSL_connect:" + state);
    EXPECT_EQ(informed(link.client, SSL_CB_LOOP, 1), "undefined:" + state);
}

TEST(tlsc_trace, cases_are_tried_in_the_order_loop_alert_exit_start_done) {
    memory_link       link;
    const std::string state = SSL_state_string_long(link.client);
    const int         all   = SSL_CB_LOOP | SSL_CB_ALERT | SSL_CB_EXIT | SSL_CB_HANDSHAKE_START | SSL_CB_HANDSHAKE_DONE;
    const int         fatal = (SSL3_AL_FATAL << 8) | 20;
    EXPECT_EQ(informed(link.client, all, 0), "undefined:" + state);
    EXPECT_EQ(informed(link.client, all & ~SSL_CB_LOOP, fatal), "SSL3 alert write:fatal:bad record mac");
    EXPECT_EQ(informed(link.client, all & ~(SSL_CB_LOOP | SSL_CB_ALERT), 0), "undefined:failed in " + state);
    EXPECT_EQ(informed(link.client, SSL_CB_HANDSHAKE_START | SSL_CB_HANDSHAKE_DONE, 1), "Handshake start: " + state);
    EXPECT_EQ(informed(link.client, SSL_CB_HANDSHAKE_DONE, 1), "Handshake done: " + state);
    EXPECT_EQ(informed(link.client, 0, 1), "nothing");
}

TEST(tlsc_trace, alert_says_its_direction_level_and_description) {
    memory_link link;
    EXPECT_EQ(informed(link.client, SSL_CB_READ_ALERT, (SSL3_AL_FATAL << 8) | 40),
              "SSL3 alert read:fatal:handshake failure");
    EXPECT_EQ(informed(link.client, SSL_CB_WRITE_ALERT, (SSL3_AL_WARNING << 8) | 0),
              "SSL3 alert write:warning:close notify");
}

TEST(tlsc_trace, exit_prints_failures_only) {
    memory_link       link;
    const std::string state = SSL_state_string_long(link.client);
    EXPECT_EQ(informed(link.client, SSL_CB_CONNECT_EXIT, 0), "SSL_connect:failed in " + state);
    EXPECT_EQ(informed(link.client, SSL_CB_ACCEPT_EXIT, 0), "SSL_accept:failed in " + state);
    EXPECT_EQ(informed(link.client, SSL_CB_CONNECT_EXIT, 1), "nothing");
    EXPECT_EQ(informed(link.client, SSL_CB_CONNECT_EXIT, 7), "nothing");
}

TEST(tlsc_trace, info_callback_prints_nothing_below_level_4) {
    memory_link link;
    log_capture log(LOG_DEBUG);
    tlsc_ssl_info_cb(link.client, SSL_CB_HANDSHAKE_START, 1);
    EXPECT_EQ(log.text(), "");
}

// ---- both callbacks on a handshake ----------------------------------------------------------------------------------

TEST(tlsc_trace, handshake_is_narrated_from_start_to_done) {
    memory_link link;
    link.trace(link.client);
    log_capture log(LOG_SSL_DBG);
    ASSERT_TRUE(link.shake_hands());
    const auto all = log.messages();
    EXPECT_TRUE(has_message_with_length(all, ">>> TLS 1.2 Handshake [length ", "], ClientHello"));
    EXPECT_TRUE(has_message_with_length(all, "<<< TLS 1.2 Handshake [length ", "], ServerHello"));
    EXPECT_TRUE(has_message_with_length(all, "<<< TLS 1.2 Handshake [length ", "], ServerHelloDone"));
    EXPECT_TRUE(has_message_with_length(all, ">>> TLS 1.2 Handshake [length ", "], ClientKeyExchange"));
    EXPECT_TRUE(has_message(all, ">>> TLS 1.2 ChangeCipherSpec [length 0001]"));
    EXPECT_TRUE(has_message(all, ">>> TLS 1.2 Handshake [length 0010], Finished"));
    EXPECT_TRUE(has_message(all, "<<< TLS 1.2 Handshake [length 0010], Finished"));
    EXPECT_TRUE(has_message(all, ">>> TLS Header [length 0005]"));
    EXPECT_TRUE(has_message(all, "<<< TLS Header [length 0005]"));
    EXPECT_EQ(count_starting(all, "Handshake start: before"), 1u);
    EXPECT_GE(count_starting(all, "SSL_connect:SSLv3"), 3u);
    EXPECT_TRUE(has_message(all, "Handshake done: SSL negotiation finished successfully"));
}

TEST(tlsc_trace, server_side_is_narrated_as_accept) {
    memory_link link;
    link.trace(link.server);
    log_capture log(LOG_SSL_DBG);
    ASSERT_TRUE(link.shake_hands());
    EXPECT_GE(count_starting(log.messages(), "SSL_accept:SSLv3"), 3u);
}

TEST(tlsc_trace, handshake_that_waits_for_input_would_block_on_read) {
    memory_link link;
    link.trace(link.client);
    log_capture log(LOG_SSL_DBG);
    EXPECT_EQ(SSL_do_handshake(link.client), -1);
    const std::string state = SSL_state_string_long(link.client);
    EXPECT_TRUE(is_log_line(log.lines().back(), "SSL_DEBUG", "tlsc_debug.c", "tlsc_ssl_info_cb",
                            "SSL_connect:would block on read in " + state));
}

TEST(tlsc_trace, handshake_that_waits_for_room_would_block_on_write) {
    memory_link link(16);
    link.trace(link.client);
    log_capture log(LOG_SSL_DBG);
    EXPECT_EQ(SSL_do_handshake(link.client), -1);
    const std::string state = SSL_state_string_long(link.client);
    EXPECT_TRUE(is_log_line(log.lines().back(), "SSL_DEBUG", "tlsc_debug.c", "tlsc_ssl_info_cb",
                            "SSL_connect:would block on write in " + state));
}

TEST(tlsc_trace, wrong_key_is_seen_as_a_fatal_alert) {
    memory_link link(65536, false);
    link.trace(link.client);
    log_capture log(LOG_SSL_DBG);
    EXPECT_FALSE(link.shake_hands());
    const auto all = log.messages();
    EXPECT_TRUE(has_message(all, "SSL3 alert read:fatal:bad record mac"));
    EXPECT_TRUE(has_message(all, "<<< TLS 1.2 Alert [length 0002], fatal bad_record_mac"));
    EXPECT_EQ(count_starting(all, "Handshake done"), 0u);
}

// ---- renegotiation guard --------------------------------------------------------------------------------------------

namespace {

bool renegotiation_is_forbidden(const SSL *ssl) {
#if TLSC_OPENSSL_1_0
    return (ssl->s3->flags & SSL3_FLAGS_NO_RENEGOTIATE_CIPHERS) != 0;
#else
    return (SSL_get_options(ssl) & SSL_OP_NO_RENEGOTIATION) != 0;
#endif
}

}  // namespace

TEST(tlsc_trace, renegotiation_is_forbidden_on_a_server_whose_handshake_is_done_whatever_the_switch_and_level) {
    memory_link link;
    log_capture log(LOG_ERRORS);
    ASSERT_TRUE(link.shake_hands());
    tlsc_ssl_info_cb(link.server, SSL_CB_LOOP, 1);
    EXPECT_FALSE(renegotiation_is_forbidden(link.server)) << "not done";
    tlsc_ssl_debug = 0;
    tlsc_ssl_info_cb(link.server, SSL_CB_HANDSHAKE_DONE, 1);
    tlsc_ssl_debug = 1;
    EXPECT_TRUE(renegotiation_is_forbidden(link.server));
}

TEST(tlsc_trace, renegotiation_stays_as_it_is_on_a_client) {
    memory_link link;
    link.trace(link.client);
    log_capture log(LOG_ERRORS);
    ASSERT_TRUE(link.shake_hands());
    tlsc_ssl_info_cb(link.client, SSL_CB_HANDSHAKE_DONE, 1);
    EXPECT_FALSE(renegotiation_is_forbidden(link.client));
}
