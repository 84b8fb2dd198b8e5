// The tunnel thread, which owns the tunnel: its TLS session, its descriptors, its packets and its event loop. Every
// function here is called on that thread, unless its comment names another.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tlsc.h"

extern "C" {

struct epoll_event;
struct x509_store_ctx_st;

// ---- what other threads may touch while the tunnel thread runs ------------------------------------------------------

extern std::atomic<int32_t> exit_client;  // 1 ends the loop after its current pass; cleared when the loop starts
extern std::atomic<int32_t> epoll_thread_exited;  // 1 after an orderly end, 0 before it and after a failed set-up
extern std::atomic<int32_t> cli_pipe_rd_fd;       // command pipe, read end, non-blocking; -1 when closed
extern std::atomic<int32_t> cli_pipe_wr_fd;       // command pipe, write end, blocking; -1 when closed

// ---- state of the tunnel thread that its peers use ------------------------------------------------------------------

extern int32_t      tlsc_epoll_fd;      // the epoll instance; -1 when none
extern epoll_event *tlsc_epoll_events;  // the events block of the running thread, 80 records; null when none
extern int8_t       tlsc_dp_state;  // data path: 0 disabled, 1 enabled; 1 at process start, not reset by a thread start
extern ssl_ctx_st  *tlsc_ssl_ctx;   // the process's TLS context; null when none

// The address of the one connection context; never null. Any thread.
tlsc_sock *tlsc_get_sock();

// ---- TLS set-up (main thread, but for the callbacks) ----------------------------------------------------------------

// Creates the lock array that the 1.0 series of OpenSSL needs and installs its callbacks; see CRYPTO_lock(3).
void tlsc_init_locks();

// Destroys the lock array, if there is one; the callbacks stay installed.
void tlsc_destroy_locks();

// Initialises OpenSSL, without reading any configuration file. Called once.
void tlsc_init_openssl();

// Builds the TLS 1.2 client context from the configuration. Returns 1, or 0 on any failure (logged).
int32_t tlsc_init_ssl_config();

// Loads certificate, private key and CA bundle (PEM) into ctx. Returns 1, or 0 at the first failure.
int32_t tlsc_load_certs(ssl_ctx_st *ctx, tlsc_config *conf);

// Certificate verification: decides afresh, against the configured CRL and the first certificate of the bundle.
// Returns 1 to accept, 0 to reject; see SSL_CTX_set_verify(3). Thread of the handshake.
int tlsc_verify_cert_cb(int preverify_ok, x509_store_ctx_st *store);

// Hands out the configured PSK identity and the key text's bytes. Returns the key's length in bytes, 0 on failure;
// see SSL_CTX_set_psk_client_callback(3). Thread of the handshake.
unsigned tlsc_psk_client_cb(ssl_st *ssl, const char *hint, char *identity, unsigned max_identity_len,
                            unsigned char *psk, unsigned max_psk_len);

// ---- connection and TLS I/O -----------------------------------------------------------------------------------------

// Connects to the configured gateway, completes the TLS handshake, waits 2 seconds and sends the configuration
// request. Returns 1 when TLS is up (also when the request failed), 7 when the handshake failed, 0 on any other
// failure. Blocks. The caller registers the new socket with epoll.
int32_t tlsc_create_tcp_conn();

// Ends the connection attempt of a held tunnel thread, if it waits in one: in connect or in the handshake. Returns
// false when it is only about to connect: hold it again. Main thread.
bool tlsc_interrupt_connecting();

// Ends what a tunnel thread that is halted inside OpenSSL waits for: nothing comes or goes on its socket any more. Main
// thread.
void tlsc_interrupt_transport();

// Writes length bytes. Returns the bytes written, or 0; result, if given, gets a tlsc_ssl_result, but is left alone
// when an argument is missing or TLS is not up.
int32_t tlsc_ssl_write(tlsc_sock *sock, const void *buff, int32_t length, int32_t *result);

// Reads up to length bytes. Returns the bytes read, or 0; result as above.
int32_t tlsc_ssl_read(tlsc_sock *sock, void *buff, int32_t length, int32_t *result);

// Shuts down and frees a TLS session and closes the descriptor that it still holds. A null handle is only logged.
void tlsc_ssl_cleanup(ssl_st *ssl);

// Closes a transport descriptor under its own name.
void tlsc_close_transport(int32_t fd);

// Adds O_NONBLOCK to the descriptor's flags. Returns 1 or 0 (logged). Any thread.
int32_t tlsc_set_sock_nonblocking(int32_t fd);

// By contract: leaves O_NONBLOCK as it is and turns all other status flags on. Nothing calls it.
int32_t tlsc_set_sock_blocking(int32_t fd);

// Sorts an errno: exhaustion of memory or descriptors ends the client in order; returns a passed-through code.
int32_t tlsc_error_handling(int32_t error);

// ---- registry, teardown ---------------------------------------------------------------------------------------------

// The kind of a descriptor; tlsc_fd_type.
tlsc_fd_type tlsc_get_fd_type(int32_t fd, const tlsc_sock *sock);

// Registers fd for input and peer hang-up, level-triggered (epoll_ctl(2)). Returns 1 or 0 (logged).
int32_t tlsc_add_fd_to_epoll(int32_t epoll_fd, int32_t fd);

// Removes fd. Returns 1 or 0 (logged).
int32_t tlsc_delete_fd_from_epoll(int32_t epoll_fd, int32_t fd);

// Must follow every close of a registered descriptor: events of the current pass that still name the number count as
// unknown, whatever is opened under it meanwhile.
void tlsc_forget_fd_events(int32_t fd);

// Writes the requested state as one byte to the command pipe and changes nothing. Nothing calls it.
void tlsc_set_dp_state(int8_t state);

// The one teardown: closes the connection, brings the interface down, stops all timers, starts the backoff timer.
// cause is a tlsc_tun_down_cause and not used. Returns 1.
int32_t tlsc_sock_error(int32_t cause);

// ---- packet path ----------------------------------------------------------------------------------------------------

// Reads one packet from the TUN interface, rewrites its source address and sends it. Returns the outcome of the TLS
// write, or 0 when nothing was read or the data path is down.
int32_t tlsc_tun_read_and_process(tlsc_sock *sock);

// Rewrites the destination address of one packet and writes it to the TUN interface. buff must be readable for at
// least 80 bytes. Returns the bytes written, or 0 (logged).
int32_t tlsc_tun_write(tlsc_sock *sock, uint8_t *buff, int32_t length);

// The name of a CSTP result code (tlsc_cstp_resp); "No error" for one without a name. Any thread.
const char *tlsc_cstp_resp_name(int32_t resp);

// ---- commands -------------------------------------------------------------------------------------------------------

// Executes one command from the pipe. Returns the result of the read, or of tlsc_handle_gw_ip_addr.
int32_t tlsc_handle_cli_cmds();

// Discards the commands that were written while no tunnel thread ran.
void tlsc_clear_cli_cmds();

// Takes the gateway's address over, if it is IPv4, and reconnects in every case. gw_sockaddr has 28 bytes.
// Returns 1 when the address was taken, else 0.
int32_t tlsc_handle_gw_ip_addr(int32_t kind, const uint8_t *gw_sockaddr);

// ---- the thread -----------------------------------------------------------------------------------------------------

// Keeps for the packets and the interface of a tunnel that goes on what the configuration says of them now. Before the
// configuration is read anew, while the tunnel thread is held. Main thread.
void tlsc_keep_tunnel_settings();

// Releases without a line what the last run has left: epoll instance, timers, transports. Main thread, behind the end
// of its TLS session, when no run can follow but a new one.
void tlsc_release_run();

// Body of the tunnel thread; the argument is ignored. Returns null.
void *tlsc_start_epoll(void *);

}  // extern "C"
