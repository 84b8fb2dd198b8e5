// CSTP: frames on the TLS session, the dead-peer-detection request, and the configuration exchange.
// Tunnel thread only.
#pragma once

#include <cstdint>

#include "tlsc.h"

extern "C" {

// Reads one frame with one TLS read; what the read or the announced length leaves free of frame is zeroed. Returns the
// outcome of the read (tlsc_ssl_result): 1 on success.
int32_t tlsc_cstp_read_frame(tlsc_sock *sock, tlsc_cstp_frame *frame);

// Dispatches one received frame by its type. Returns 1, or 0 on failure (logged; the connection is left alone).
// epoll_fd and resp are accepted for the caller's sake and not used.
int32_t tlsc_process_cstp_frame(tlsc_sock *sock, tlsc_cstp_frame *frame, int32_t epoll_fd = -1,
                                int32_t *resp = nullptr);

// Sends one IP packet of len bytes, at most 1436, as a data frame. Returns the outcome of the TLS write
// (tlsc_ssl_result): 1 on success, 0 for bad arguments.
int32_t tlsc_write_cstp_data_pak(tlsc_sock *sock, const uint8_t *buff, int32_t len);

// Sends one DPD request.
// By contract: returns 0 on success and 1 on failure, unlike every other operation here.
int32_t tlsc_send_dpd_req(tlsc_sock *sock);

// Sends the configuration request and starts the guard timer. Returns 1; on failure 0, with 12 (write failed) or
// 13 (no guard timer) in err, which may be null.
int32_t tlsc_send_config_req(tlsc_sock *sock, int32_t *err);

// Takes the settings of a NUL-terminated configuration response over, tells the controller, starts the session and
// the rekey timer. Returns 1, or 0 on failure (logged); what was read before the failure stays set.
int32_t tlsc_parse_config_resp(tlsc_sock *sock, const char *buff);

// A received configuration response: retires the old transport, parses, and on success enables the data path.
// Returns the parser's result.
int32_t tlsc_process_config_resp(tlsc_sock *sock, const char *buff);

}  // extern "C"
