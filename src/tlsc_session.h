// The one tunnel session record: it ties the TUN interface, the connection and the tunnel prefix together.
#pragma once

#include "tlsc.h"

extern "C" {

// Allocates the session and keeps it as the process's session. Returns it, or null (logged). Main thread.
tlsc_session *tlsc_init_session();

// Releases the process's session, if any. Main thread, at clean-up.
void tlsc_free_session();

// Ties the process's session and the connection context together. Tunnel thread, at its start.
void tlsc_attach_session(tlsc_sock *sock);

// Records the prefix and brings the interface up if it is down. Returns the session, or null on failure (logged).
// Tunnel thread.
tlsc_session *tlsc_start_session(tlsc_sock *sock, const tlsc_addr *prefix);

}  // extern "C"
