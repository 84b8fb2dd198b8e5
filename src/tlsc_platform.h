// The seam between the tunnel and the rest of the process: start, supervision and stop of the client, the
// configuration setters, the upward notifications, the statistics record.
#pragma once

#include <atomic>
#include <cstdint>

#include "tlsc.h"

extern "C" {

// ---- lifecycle (main thread unless a comment says otherwise) --------------------------------------------------------

// Creates the tunnel thread. Returns 1 or 0 (logged). Monitor thread.
int32_t tlsc_start_client();

// Asks the tunnel thread to end and does not wait; a connection attempt of its is ended. Returns the result of posting
// the command.
int32_t tlsc_stop_client();

// Starts the monitor thread. While an earlier one still lives, nothing is created: if that one was told to stop, it
// starts the client once more when it is done. Returns 1 or 0 (logged).
int32_t tlsc_start_epoll_mon_thread();

// Body of the monitor thread: runs the tunnel thread and restarts it 10 seconds after an abnormal end. Returns null.
void *tlsc_epoll_mon_thread(void *);

// The tunnel thread has dropped an order to end that was posted before it served its pipe. Tunnel thread.
void tlsc_note_dropped_exit();

// Makes the tunnel thread leave its loop at its next turn. Tunnel thread.
void tlsc_restart_client();

// Releases everything the client holds, the threads included, at process exit. The client can be initialised again.
void tlsc_cleanup_context();

// ---- command-pipe wrappers for the controller's handlers ------------------------------------------------------------

void    tlsc_post_log_level(int32_t level);  // failure is printed on standard output
void    tlsc_post_log_dest(int32_t dest);    // failure is printed on standard output
int32_t tlsc_post_gw_ip(tlsc_gw_addr gw);    // result of tlsc_send_gw_ip
int32_t tlsc_request_gw_name_resolution();   // 1 when the controller was asked; tunnel thread

// ---- configuration setters ------------------------------------------------------------------------------------------
// Each copies a NUL-terminated text into the configuration, cut silently at the field's width, and logs the new value.
// Returns 0, or -1 for a null argument (logged). Nothing is validated. Main thread.

int32_t tlsc_set_config_server_ip_port(const char *address, int port);
int32_t tlsc_set_config_inner_ip(const char *address);  // accepted and ignored
int32_t tlsc_set_config_management_ip(const char *address);
int32_t tlsc_set_config_tun_interface_name(const char *name);
int32_t tlsc_set_config_tun_cipher_algo(const char *cipher_list);
int32_t tlsc_set_config_log_level(const char *word);  // "true" sets level 1, anything else 0
int32_t tlsc_set_config_psk_identify(const char *identity);
int32_t tlsc_set_config_psk_key(const char *key);
int32_t tlsc_set_config_device_id(const char *id);
int32_t tlsc_set_config_serial_num(const char *serial);
int32_t tlsc_set_config_device_name(const char *name);
int32_t tlsc_set_config_ssl_auth_mech(int32_t mechanism);  // tlsc_ssl_auth_mech

// Fills the configuration from the controller's parameter block. Returns 1 always.
int32_t tlsc_set_config_all();

// ---- upward notifications (tunnel thread; the state also from clean-up) ---------------------------------------------

// The tunnel went up (1) or down (0), with cause (tlsc_tun_down_cause). Returns the result of the report.
int32_t tlsc_write_tun_intf_state(int32_t state, int32_t cause);

// The gateway named these DNS servers. Returns the result of the report.
int32_t tlsc_write_dns_ip(tlsc_dns_list list);

// The gateway assigned this inner address. Returns the result of the report.
int32_t tlsc_write_inner_ip(tlsc_addr addr);

// ---- statistics -----------------------------------------------------------------------------------------------------

// The record. Counted into by the tunnel thread through tlsc_count only.
extern tlsc_stats tlsc_stats_record;

// Adds one to a counter, without the statistics lock. Any thread.
inline void tlsc_count(uint64_t tlsc_stats::*counter) {
    std::atomic_ref<uint64_t>(tlsc_stats_record.*counter).fetch_add(1, std::memory_order_relaxed);
}

void tlsc_stats_init();                // zeroes the record and creates its lock
void tlsc_stats_get(tlsc_stats *out);  // copies the record out under the lock
void tlsc_stats_clear();               // zeroes the record under the lock
void tlsc_stats_destroy();             // zeroes the record, then destroys its lock
void tlsc_stats_print();               // prints the record on standard output; nothing calls it

}  // extern "C"
