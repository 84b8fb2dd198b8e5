// The configuration record with its defaults, the pre-shared key buffers, and the local configuration file's loader.
// The record has no lock: the tunnel thread writes it, and tlsc_init while that thread stands still or does not run.
#pragma once

#include <cstdint>

#include "tlsc.h"

extern "C" {

// The PSK identity and key text; the key text is used byte for byte and never printed. They keep their values
// across a re-initialisation.
extern char psk_identity[psk_identity_size];
extern char psk_key[psk_key_size];

// The key as it may be printed: "***" when one is set, else an empty text.
const char *tlsc_masked_psk_key();

// The address of the one configuration record; never null.
tlsc_config *tlsc_get_config();

// Zeroes the record and sets the four intervals (seconds) and the prefix type. A null record is refused (logged).
void tlsc_set_config_defaults(tlsc_config *conf);

// Copies the value of the last line of "tls_client_config.txt" (working directory) that holds key into value_out,
// which takes at least 500 bytes. Returns 1, or 0 when no line or no file was found.
int32_t tlsc_read_param_val(const char *key, char *value_out);

// Fills the whole record, the PSK buffers and the log level from "tls_client_config.txt". Returns 1, or 0 at the
// first fatal error (logged), with what was set so far left in place. Nothing in the daemon calls it.
int32_t tlsc_read_config_file(tlsc_config *conf);

}  // extern "C"
