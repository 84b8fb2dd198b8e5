// Process entry, client initialisation, and the sending side of the command pipe.
#pragma once

#include <cstdint>

#include "tlsc.h"

extern "C" {

extern int32_t tlsc_initialized;  // 1 from the first initialisation to the clean-up. Main thread.

// Initialises the client the first time and re-reads its configuration every further time. Returns 1. Main thread.
int32_t tlsc_init();

// Creates the command pipe, closing an earlier one. Returns 1 or 0 (logged). Main thread.
int32_t tlsc_create_pipe_for_cli_cmds();

// Closes both ends of the command pipe, each if open. Main thread.
void tlsc_close_cli_pipe();

// Each writes one command for the tunnel thread. Returns 1, or 0 when the write failed (logged). Any thread; waits
// while the pipe is full, at most 5 seconds.
int32_t tlsc_send_exit_client_req();
int32_t tlsc_send_log_lvl_chg_req(int32_t level);
int32_t tlsc_send_log_dest_chg_req(int32_t dest);
int32_t tlsc_send_gw_ip(tlsc_gw_addr gw);

}  // extern "C"
