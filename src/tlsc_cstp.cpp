// Contents: 1 frames  2 configuration request  3 configuration response  4 dispatch
// In:  tlsc_cstp_read_frame (one TLS read) -> tlsc_process_cstp_frame -> data: tlsc_tun_write
//                                                                     -> response: tlsc_process_config_resp
//                                                                     -> DPD response: DPD timer
// Out: tlsc_write_cstp_data_pak, tlsc_send_dpd_req, tlsc_send_config_req -> tlsc_ssl_write

#include "tlsc_cstp.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

#include "tlsc_config.h"
#include "tlsc_debug.h"
#include "tlsc_utils.h"

#include "tlsc_engine.h"   // TLS reads and writes, packet path, data-path state
#include "tlsc_session.h"  // the response starts the session
#include "tlsc_timer.h"    // DPD, retry, rekey and guard timers, the saved old transport

#include "tlsc_platform.h"  // counters, notifications of address and DNS servers

// ==== 1 Frames ===================================================================================================

namespace {

constexpr uint8_t frame_version = 1;

void *shown(tlsc_sock *sock) { return static_cast<void *>(sock); }

tlsc_cstp_header make_header(tlsc_cstp_type type, size_t length) {
    return {{'S', 'T', 'F'}, frame_version, {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)}, type, 0};
}

size_t payload_length(const tlsc_cstp_header &header) {
    return static_cast<size_t>(header.length[0] << 8 | header.length[1]);
}

}  // namespace

int32_t tlsc_cstp_read_frame(tlsc_sock *sock, tlsc_cstp_frame *frame) {
    if (!sock || !frame || !sock->ssl) {
        TLSC_ERROR("Null pointer received for sock/frame/ssl");
        return 0;
    }

    auto *const   bytes  = reinterpret_cast<uint8_t *>(frame);  // header and payload in one
    int32_t       result = TLSC_SSL_ERROR;
    const int32_t count  = tlsc_ssl_read(sock, bytes, max_read_size, &result);
    const size_t  filled = static_cast<size_t>(std::max(count, 0));
    if (filled < sizeof(frame->header)) memset(bytes + filled, 0, sizeof(frame->header) - filled);

    // The announced length may exceed what was read, or fall short of it: what is missing or too much is zero, as far
    // as anybody looks.
    const size_t length = payload_length(frame->header);
    const size_t kept   = std::min(length, filled - std::min(filled, sizeof(frame->header)));
    const size_t looked = std::min(std::max(length + 1, tlsc_checksum_reach), sizeof(frame->payload));
    memset(frame->payload + kept, 0, looked - kept);
    TLSC_DEBUG("Read %d bytes from SSL for conn %p", count, shown(sock));
    if (result != TLSC_SSL_OK) {
        TLSC_ERROR("Got error %d while writing data pak to SSL for conn %p", result, shown(sock));
        return result;
    }
    TLSC_DEBUG("Header data len = %d, Reading the rest of msg", static_cast<int>(length));
    return result;
}

int32_t tlsc_write_cstp_data_pak(tlsc_sock *sock, const uint8_t *buff, int32_t len) {
    if (!buff || !sock || !sock->sess) {
        TLSC_ERROR("Null pointer received for buff/sock/sess");
        return 0;
    }
    if (len < 0 || len > static_cast<int32_t>(max_packet_size)) {  // more than one TUN read can give
        TLSC_ERROR("Invalid length of data pak received: %d, Max-limit = %d", len, static_cast<int>(max_packet_size));
        return 0;
    }

    uint8_t                frame[sizeof(tlsc_cstp_header) + max_packet_size];
    const tlsc_cstp_header header = make_header(CSTP_DATA, static_cast<size_t>(len));
    const int32_t          size   = static_cast<int32_t>(sizeof(header)) + len;
    memcpy(frame, &header, sizeof(header));
    memcpy(frame + sizeof(header), buff, static_cast<size_t>(len));

    int32_t       result  = TLSC_SSL_ERROR;
    const int32_t written = tlsc_ssl_write(sock->sess->conn, frame, size, &result);
    if (result == TLSC_SSL_OK) {
        TLSC_DEBUG("Successfully wrote %d bytes out of %d bytes, on SSL conn %p", written, size, shown(sock));
        tlsc_count(&tlsc_stats::data_pkt_tx);
    } else {
        TLSC_ERROR("Got error %d while writing data pak to SSL for conn %p", result, shown(sock));
    }
    return result;
}

int32_t tlsc_send_dpd_req(tlsc_sock *sock) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return 1;
    }

    TLSC_INFO("Sending DPD Request [Req Retry Ref #%d]", tlsc_retry_ref);

    static const tlsc_cstp_header dpd_frame = make_header(CSTP_DPD_REQ, 0);
    int32_t                       result    = TLSC_SSL_ERROR;
    const int32_t                 written   = tlsc_ssl_write(sock, &dpd_frame, sizeof(dpd_frame), &result);
    if (result != TLSC_SSL_OK) {
        TLSC_ERROR("SSL write failed for connection = %p", shown(sock));
        return 1;
    }
    TLSC_DEBUG("Successfully wrote %d bytes for dpd-req, on SSL conn %p", written, shown(sock));
    tlsc_count(&tlsc_stats::dpd_req_tx);
    tlsc_count(&tlsc_stats::ctrl_pkt_tx);
    return 0;
}

// ==== 2 Configuration request ====================================================================================

namespace {

constexpr size_t header_line_size = 1024;
constexpr size_t max_request_text = max_req_frame_size - sizeof(tlsc_cstp_header);

// Longest request: five names with their values and line ends. It always fits.
static_assert(sizeof("X-CSTP-Address:") + INET_ADDRSTRLEN + sizeof("X-CSTP-Device-ID:") + id_text_size +
                  sizeof("X-CSTP-Cookie:") + cookie_size + sizeof("X-CSTP-Device-Name:") + name_text_size +
                  sizeof("X-CSTP-Device-SerialNo:") + id_text_size <
              300);
static_assert(300 < max_request_text);

struct request_text {
    char   text[max_request_text + 1];
    size_t length;
};

// Appends one header line; a line that does not fit is left out whole.
void append_header_line(request_text *request, const char *name, const char *value) {
    char      line[header_line_size];
    const int length = snprintf(line, sizeof(line), "%s%s\n", name, value);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(line)) return;
    if (request->length + static_cast<size_t>(length) > max_request_text) return;
    memcpy(request->text + request->length, line, static_cast<size_t>(length));
    request->length += static_cast<size_t>(length);
    request->text[request->length] = '\0';
}

void build_request(const tlsc_sock *sock, request_text *request) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_send_config_req"};
    const tlsc_config     *conf = tlsc_get_config();

    if (sock->sess && conf->inner_addr.kind == ADDR_IPV4) {
        char address[INET_ADDRSTRLEN] = "";
        (void)inet_ntop(AF_INET, conf->inner_addr.ipv4, address, sizeof(address));
        append_header_line(request, "X-CSTP-Address:", address);
        TLSC_DEBUG("Internal IP: %s", address);
    }
    append_header_line(request, "X-CSTP-Device-ID:", conf->device_id);
    TLSC_DEBUG("Device ID: %s", conf->device_id);
    if (conf->cookie[0] != '\0') {
        append_header_line(request, "X-CSTP-Cookie:", conf->cookie);
        TLSC_DEBUG("Cookie: %s", conf->cookie);
    }
    if (conf->device_name[0] != '\0') {
        append_header_line(request, "X-CSTP-Device-Name:", conf->device_name);
        TLSC_DEBUG("Device Name: %s", conf->device_name);
    }
    if (conf->serial_no[0] != '\0') {
        append_header_line(request, "X-CSTP-Device-SerialNo:", conf->serial_no);
        TLSC_DEBUG("Serial No.: %s", conf->serial_no);
    }
}

// Writes the request as one frame. Returns the outcome of the TLS write, and in written its bytes.
int32_t write_request(tlsc_sock *sock, const request_text &request, int32_t *written) {
    static uint8_t         frame[max_req_frame_size];
    const tlsc_cstp_header header = make_header(CSTP_CONFIG_REQ, request.length);
    memcpy(frame, &header, sizeof(header));
    memcpy(frame + sizeof(header), request.text, request.length);

    int32_t result = TLSC_SSL_ERROR;
    *written       = tlsc_ssl_write(sock, frame, static_cast<int32_t>(sizeof(header) + request.length), &result);
    return result;
}

// Leaves the code in the caller's error slot, if it gave one. Returns 0.
int32_t fail_request(int32_t *err, int32_t code) {
    if (err) *err = code;
    return 0;
}

}  // namespace

int32_t tlsc_send_config_req(tlsc_sock *sock, int32_t *err) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return fail_request(err, TLSC_CSTP_REQ_WRITE_FAILED);
    }

    TLSC_INFO("Building CSTP-CONFIG-REQ");
    request_text request{};
    build_request(sock, &request);
    TLSC_INFO("Config Request msg = [index = %d] \n%s", static_cast<int>(request.length), request.text);

    int32_t written = 0;
    if (write_request(sock, request, &written) != TLSC_SSL_OK) {
        TLSC_ERROR("SSL write failed for connection = %p", shown(sock));
        return fail_request(err, TLSC_CSTP_REQ_WRITE_FAILED);
    }
    if (!tlsc_start_timer(&tlsc_timers.guard, 1)) return fail_request(err, TLSC_CSTP_REQ_GUARD_FAILED);
    TLSC_INFO("Successfully wrote %d bytes of config-resq for conn %p", written, shown(sock));
    tlsc_count(&tlsc_stats::ctrl_pkt_tx);
    return 1;
}

// ==== 3 Configuration response ===================================================================================
// Header lines, each found by its name anywhere in the text. A value ends at the line feed or at the end.

namespace {

constexpr size_t value_text_size = 48;  // longer address values are cut

// The value behind the first occurrence of the header name, or null.
const char *find_value(const char *text, const char *name) {
    const char *found = strstr(text, name);
    return found ? found + strlen(name) : nullptr;
}

// Copies a value, cut at the buffer's end. Returns where the value ends in the text.
const char *copy_value(const char *value, char (&out)[value_text_size]) {
    const size_t length = strcspn(value, "\n");
    const size_t kept   = std::min(length, value_text_size - 1);
    memcpy(out, value, kept);
    out[kept] = '\0';
    return value + length;
}

// The decimal value of a header; 0 for an empty one, whatever the next line begins with.
int32_t number_of(const char *value) { return value[strspn(value, " \t\v\f\r")] == '\n' ? 0 : tlsc_decimal(value); }

bool convert_ipv4(const char *text, tlsc_addr *addr) { return inet_pton(AF_INET, text, addr->ipv4) == 1; }

// By contract: the terminator goes to position 10, not behind the last character, so a shorter cookie keeps the tail
// of an earlier longer one.
void store_cookie(const char *value, char (&cookie)[cookie_size]) {
    for (size_t i = 0; i < max_cookie_text && value[i] != '\n' && value[i] != '\0'; ++i) cookie[i] = value[i];
    cookie[max_cookie_text] = '\0';
}

// The steps of tlsc_parse_config_resp, one for each header, in the order in which the headers are looked for.
namespace parsing {

constexpr tlsc_work_of tlsc_log_function{"tlsc_parse_config_resp"};

struct prefix_value {
    tlsc_addr addr;  // no kind when the response has none, or one that is no address
    char      text[value_text_size];
};

void read_prefix(tlsc_sock *sock, const char *buff, prefix_value *prefix) {
    const char *value = find_value(buff, "X-CSTP-Address:");
    if (!value) return;
    copy_value(value, prefix->text);
    if (!convert_ipv4(prefix->text, &prefix->addr)) {
        TLSC_ERROR("Invalid IPv4 prefix received for conn %p", shown(sock));
        return;
    }
    prefix->addr.kind = ADDR_IPV4;
    TLSC_DEBUG("Received CSTP prefix-addr in config-resp: %s for conn: %p", prefix->text, shown(sock));
}

void read_prefix_length(const char *buff, tlsc_config *conf) {
    const char *value = find_value(buff, "X-CSTP-Prefix-Length:");
    if (!value) return;
    conf->prefix_length = static_cast<uint8_t>(number_of(value));
    TLSC_DEBUG("Prefix len received in config-resp: %d %d", conf->prefix_length, static_cast<unsigned char>(value[0]));
}

void read_dpd_interval(const char *buff, tlsc_config *conf) {
    const char *value = find_value(buff, "X-CSTP-DPD:");
    if (!value) return;
    conf->dpd_interval = number_of(value);
    TLSC_DEBUG("DPD interval received in config-resp: %d", conf->dpd_interval);
}

// The one header that a response must have.
bool read_client_addr(tlsc_sock *sock, const char *buff, tlsc_config *conf) {
    const char *value = find_value(buff, "X-CSTP-Address-Client:");
    if (!value) {
        TLSC_ERROR("Did not receive IP addr from GW");
        return false;
    }

    char text[value_text_size];
    copy_value(value, text);
    conf->inner_addr.kind = ADDR_IPV4;
    if (!convert_ipv4(text, &conf->inner_addr)) {
        TLSC_ERROR("Invalid IPv4 Client addr received for conn %p", shown(sock));
        conf->inner_addr.kind = ADDR_NONE;
        return false;
    }
    TLSC_DEBUG("Received CSTP IPv4 client addr in config-resp: %s for conn: %p", text, shown(sock));
    return true;
}

void read_retry_interval(const char *buff, tlsc_config *conf) {
    const char *value = find_value(buff, "X-CSTP-Retry-Time:");
    if (!value) return;
    conf->retry_interval = number_of(value);
    TLSC_DEBUG("Retry interval received in config-resp: %d", conf->retry_interval);
}

void read_rekey_interval(const char *buff, tlsc_config *conf) {
    const char *value = find_value(buff, "X-CSTP-Rekey-Time:");
    if (value) {
        conf->rekey_interval = number_of(value);
        TLSC_DEBUG("Rekey interval received in cofig-resp: %d", conf->rekey_interval);
    }
    if (!value || conf->rekey_interval == 0) {
        conf->rekey_interval = default_rekey_seconds;
        TLSC_DEBUG("Rekey interval not received in cofig-resp, so choosing default value: %d", conf->rekey_interval);
    }
}

void read_cookie(const char *buff, tlsc_config *conf) {
    const char *value = find_value(buff, "X-CSTP-Cookie:");
    if (!value) return;
    store_cookie(value, conf->cookie);
    TLSC_DEBUG("Cookie received in cofig-resp: %s", conf->cookie);
}

// Every occurrence of the header, up to the four that are kept.
void read_dns_servers(tlsc_sock *sock, const char *buff, tlsc_config *conf) {
    uint16_t count = 0;
    for (const char *rest = buff; count < max_dns_servers;) {
        const char *value = find_value(rest, "X-CSTP-DNS:");
        if (!value) break;
        char       text[value_text_size];
        tlsc_addr *entry = &conf->dns_servers[count];
        rest             = copy_value(value, text);
        if (!convert_ipv4(text, entry)) {
            TLSC_ERROR("Invalid DNS Ip received for conn %p", shown(sock));
            continue;
        }
        TLSC_DEBUG("Received CSTP DNS-addr in config-resp: %s for conn: %p", text, shown(sock));
        entry->kind = ADDR_IPV4;
        ++count;
    }
    conf->dns_count = count;
}

// A controller that does not listen does not stop the tunnel.
void report_addresses(const tlsc_config *conf, const tlsc_addr &earlier_inner_addr) {
    if (conf->dns_count != 0) {
        tlsc_dns_list list{};
        list.count = conf->dns_count;
        memcpy(list.servers, conf->dns_servers, sizeof(list.servers));
        (void)tlsc_write_dns_ip(list);
    }
    if (tlsc_cmp_addr(&earlier_inner_addr, &conf->inner_addr) != 0) (void)tlsc_write_inner_ip(conf->inner_addr);
}

int32_t start_session(tlsc_sock *sock, const prefix_value &prefix) {
    if (!tlsc_start_session(sock, &prefix.addr)) {
        TLSC_ERROR("Could not allocate a session for prefix %s", prefix.text);
        return 0;
    }
    TLSC_INFO("Rekey interval is set, start the timer");
    if (!tlsc_start_timer(&tlsc_timers.rekey, 0)) {
        TLSC_ERROR("Could not start Rekey timer");
        return 0;
    }
    return 1;
}

}  // namespace parsing
}  // namespace

int32_t tlsc_parse_config_resp(tlsc_sock *sock, const char *buff) {
    if (!sock || !buff) {
        TLSC_ERROR("Null pointer received for sock/buff");
        return 0;
    }

    TLSC_INFO("Parsing CSTP-CONFIG-RESPONSE msg");
    tlsc_config          *conf               = tlsc_get_config();
    const tlsc_addr       earlier_inner_addr = conf->inner_addr;
    parsing::prefix_value prefix{};

    parsing::read_prefix(sock, buff, &prefix);
    parsing::read_prefix_length(buff, conf);
    parsing::read_dpd_interval(buff, conf);
    if (!parsing::read_client_addr(sock, buff, conf)) return 0;
    parsing::read_retry_interval(buff, conf);
    parsing::read_rekey_interval(buff, conf);
    parsing::read_cookie(buff, conf);
    parsing::read_dns_servers(sock, buff, conf);
    parsing::report_addresses(conf, earlier_inner_addr);
    return parsing::start_session(sock, prefix);
}

int32_t tlsc_process_config_resp(tlsc_sock *sock, const char *buff) {
    TLSC_INFO("Process CSTP-CONFIG-RESPONSE");
    if (tlsc_old_transport.fd > 0) {
        TLSC_DEBUG("Closing the old transport-fd(%d)", tlsc_old_transport.fd);
        tlsc_close_old_transport();
    }
    if (!sock || !buff) {
        TLSC_ERROR("Null pointer received for sock/buff");
        return 0;
    }

    const int32_t result = tlsc_parse_config_resp(sock, buff);
    if (result == 1) {
        tlsc_note_good_response();
        TLSC_DEBUG("Enabling data reception by changing Dp-State of Client to %d", 1);
        tlsc_dp_state = 1;
    }
    return result;
}

// ==== 4 Dispatch =================================================================================================

namespace {

int32_t process_response_frame(tlsc_sock *sock, tlsc_cstp_frame *frame, size_t length) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_process_cstp_frame"};
    tlsc_stop_timer(&tlsc_timers.guard);
    frame->payload[std::min(length, max_payload_size)] = '\0';
    TLSC_DEBUG("Got CSTP config resp frame of len %d for conn %p", static_cast<int>(length), shown(sock));
    tlsc_count(&tlsc_stats::ctrl_pkt_rx);
    if (!tlsc_process_config_resp(sock, reinterpret_cast<const char *>(frame->payload))) {
        TLSC_ERROR("Could not process config resp for conn %p. Error = %s", shown(sock),
                   tlsc_cstp_resp_name(TLSC_CSTP_RESP_ERR_NONE));
        return 0;
    }
    if (!tlsc_start_timer(&tlsc_timers.dpd, 1)) {
        TLSC_WARNING("Could not start DPD timer for conn %p", shown(sock));
        TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_START_TIMER_FAILED));
        return 0;
    }
    return 1;
}

// The DPD timer comes first: if it cannot run, the retry timer goes on.
int32_t process_dpd_response(tlsc_sock *sock) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_process_cstp_frame"};
    TLSC_INFO("Got CSTP dpd resp frame [Req Retry Ref #%d] for conn %p", tlsc_retry_ref, shown(sock));
    if (!tlsc_start_timer(&tlsc_timers.dpd, 1)) {
        TLSC_WARNING("Could not start DPD timer for conn %p", shown(sock));
        TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_START_TIMER_FAILED));
        return 0;
    }
    tlsc_stop_retries();
    tlsc_count(&tlsc_stats::dpd_rsp_rx);
    tlsc_count(&tlsc_stats::ctrl_pkt_rx);
    return 1;
}

int32_t process_data_frame(tlsc_sock *sock, tlsc_cstp_frame *frame, size_t length) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_process_cstp_frame"};
    TLSC_DEBUG("Got CSTP Data frame of len %d for conn %p", static_cast<int>(length), shown(sock));
    tlsc_count(&tlsc_stats::data_pkt_rx);
    if (!tlsc_tun_write(sock, frame->payload, static_cast<int32_t>(length))) {
        TLSC_ERROR("Could not write data-frame on tun-intf, for conn %p", shown(sock));
        return 0;
    }
    return 1;
}

int32_t drop_invalid_frame(tlsc_sock *sock, uint8_t type) {
    constexpr tlsc_work_of tlsc_log_function{"tlsc_process_cstp_frame"};
    TLSC_ERROR("Receieved invalid cstp frame(%d) for conn %p.. dropping..", type, shown(sock));
    tlsc_count(&tlsc_stats::invalid_rx);
    TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_INVALID_FRAME_RECVD));
    return 0;
}

}  // namespace

// By contract: neither the magic nor the version nor the reserved byte of a received frame is examined.
int32_t tlsc_process_cstp_frame(tlsc_sock *sock, tlsc_cstp_frame *frame, int32_t, int32_t *) {
    if (!sock || !frame) {
        TLSC_ERROR("Null ptr received for sock/frame");
        TLSC_ERROR("Processing CSTP frame failed due to error %s\n", tlsc_cstp_resp_name(TLSC_CSTP_NULL_PTR_RECVD));
        return 0;
    }

    const size_t length = payload_length(frame->header);
    switch (frame->header.type) {
    case CSTP_CONFIG_RESPONSE: return process_response_frame(sock, frame, length);
    case CSTP_DPD_RESPONSE: return process_dpd_response(sock);
    case CSTP_DATA: return process_data_frame(sock, frame, length);
    default: return drop_invalid_frame(sock, frame->header.type);
    }
}
