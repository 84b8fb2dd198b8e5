#include "tlsc_session.h"

#include <cstdlib>

#include "tlsc_debug.h"

#include "tlsc_engine.h"    // error handling
#include "tlsc_tun_intf.h"  // interface state

namespace {

// The process's session. Set and released by the main thread while no tunnel thread runs; in between only the tunnel
// thread uses what it refers to.
tlsc_session *process_session;

}  // namespace

tlsc_session *tlsc_init_session() {
    auto *session = static_cast<tlsc_session *>(calloc(1, sizeof(tlsc_session)));
    if (!session) {
        TLSC_ERROR("Failed allocting memory to tlsc_session");
        return nullptr;
    }

    session->tun_state = 0;
    session->conn      = nullptr;
    session->tun_fd    = -1;
    session->if_name   = nullptr;

    process_session = session;
    return session;
}

void tlsc_free_session() {
    free(process_session);
    process_session = nullptr;
}

void tlsc_attach_session(tlsc_sock *sock) {
    if (!sock) {
        TLSC_ERROR("Null ptr received for sock");
        return;
    }

    sock->sess = process_session;
    if (process_session) process_session->conn = sock;
}

tlsc_session *tlsc_start_session(tlsc_sock *sock, const tlsc_addr *prefix) {
    if (!sock || !prefix) {
        TLSC_ERROR("Null ptr received for sock/prefix");
        return nullptr;
    }
    if (!sock->sess) {
        TLSC_ERROR("Null ptr received for sock->sess");
        return nullptr;
    }

    TLSC_INFO("Starting TLS session by making tun-intf up");
    tlsc_session *session = sock->sess;
    session->prefix       = *prefix;  // It stays, whether or not the interface comes up.

    if (session->tun_state == 0) {
        int32_t result = tlsc_chg_tun_state(session, 1);
        if (result != 1) {
            TLSC_ERROR("Could not make tun-intf up for conn %p", static_cast<void *>(sock));
            (void)tlsc_error_handling(result);  // It acts by itself; the caller only needs to know of the failure.
            return nullptr;
        }
    }
    return session;
}
