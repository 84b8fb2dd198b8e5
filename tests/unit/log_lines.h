// The log lines of the tunnel thread's modules and of the main thread's own: the severity and the words of each. The
// fixture compares every line that a test provokes with this table, so that no line changes unnoticed.
#pragma once

#include <cctype>
#include <cstring>
#include <string>

#include "capture.h"

constexpr char engine_file[]   = "tlsc_engine.c";
constexpr char cstp_file[]     = "tlsc_cstp.c";
constexpr char timer_file[]    = "tlsc_timer.c";
constexpr char platform_file[] = "tlsc_platform.c";
constexpr char main_file[]     = "tlsc_main.c";

struct known_log_line {
    const char *file;
    const char *severity;
    const char *format;  // as of printf: %d, %u, %ld, %lu, %x, %p and %s
};

constexpr known_log_line known_log_lines[] = {
    // tlsc_engine
    {engine_file, "DEBUG", "Initialized the crypto lock array with no. of locks = %d"},
    {engine_file, "DEBUG", "Destroyed the crypto lock array with no. of locks = %d"},
    {engine_file, "INFO", "OpenSSL initialized..."},
    {engine_file, "ERROR", "Null pointer received for ctx/conf"},
    {engine_file, "ERROR", "Private key does not match the public certificate"},
    {engine_file, "ERROR", "Loading of ssl root chain failed"},
    {engine_file, "INFO", "tlsc_verify_cert_cb received..."},
    {engine_file, "ERROR", "Null ptr received for conf"},
    {engine_file, "ERROR", "Could not fetch the current certificate \n"},
    {engine_file, "ERROR", "Could not open crl file"},
    {engine_file, "ERROR", "Could not open root certificate file"},
    {engine_file, "ERROR", "Failed to add root certificate to store"},
    {engine_file, "DEBUG", "Verification passed for cert"},
    {engine_file, "ERROR", "SSL error in certificate = %d"},
    {engine_file, "ERROR", "Verification failed for cert, error str = %s"},
    {engine_file, "WARNING", "Depth of certificate where error occurred = %d"},
    {engine_file, "INFO", "psk_client_cb received..."},
    {engine_file, "WARNING", "NULL received for PSK-identity-hint, continuing anyway..."},
    {engine_file, "DEBUG", "Received PSK-identity-hint '%s'"},
    {engine_file, "ERROR", "Error in PSK client callback"},
    {engine_file, "DEBUG", "created identity '%s' len=%d"},
    {engine_file, "INFO", "created PSK of len = %ld"},
    {engine_file, "ERROR", "Null ptr received for tlsc_config"},
    {engine_file, "ERROR", "Null ptr received for client-socket"},
    {engine_file, "ERROR", "Allocating ssl-ctx failed using API: SSL_CTX_new(), with TLSv1_2 method"},
    {engine_file, "ERROR", "Invalid ssl_auth_mechanism found in global-config"},
    {engine_file, "ERROR", "Could not set the SSL Cipher: %s"},
    {engine_file, "INFO", "Cipher set successfully for SSL-Ctx : %s"},
    {engine_file, "ERROR", "Null ptr received for sock"},
    {engine_file, "ERROR", "Could not get new SSL handle"},
    {engine_file, "ERROR", "Sock-fd creation failed"},
    {engine_file, "INFO", "Successfully created new sock-fd for client: %d"},
    {engine_file, "INFO", "Server port = %d, Server IP(%s) = %u"},
    {engine_file, "ERROR", "TCP connection failed to server"},
    {engine_file, "INFO", "TCP conn established successfully!! sockfd = %d"},
    {engine_file, "INFO", "Successfully enabled SSL/TLS session to: %s."},
    {engine_file, "DEBUG", "Sleeping for 2 seconds, before sending config request to server"},
    {engine_file, "ERROR", "ssl-connect error : %d, ssl-connect ret-value = %d"},
    {engine_file, "ERROR", "SSL connect failed!! Error = %s, SSL state = %s"},
    {engine_file, "WARNING", "Could not build a SSL session to: %s, Initiate session and ssl cleanup"},
    {engine_file, "ERROR", "Null ptr received for sock/buffer/sock->ssl_up"},
    {engine_file, "ERROR", "SSL write error received = %d, translated-ssl-error = %d, write_len = %d, errno = %d"},
    {engine_file, "ERROR", "Null ptr received for sock/buff"},
    {engine_file, "ERROR", "SSL Read error received = %d, translated-ssl-error = %d"},
    {engine_file, "WARNING", "SSL-handle is NULL"},
    {engine_file, "INFO", "SSL-handle and Engine cleanup"},
    {engine_file, "ERROR", "Could not get flags for socket %d"},
    {engine_file, "ERROR", "fcntl error while set"},
    {engine_file, "INFO", "Setting sock-fd(%d) as non-blocking"},
    {engine_file, "INFO", "Setting sock-fd(%d) as blocking"},
    {engine_file, "ERROR", "Socket error :%d\n"},
    {engine_file, "INFO", "None of the errno specified have occured\n"},
    {engine_file, "ERROR", "FD is zero/negative value, or sock ptr is NULL. Return unknown-fd for fd = %d"},
    {engine_file, "ERROR", "Could not add fd %d to epoll-event(fd = %d). errno = %d"},
    {engine_file, "DEBUG", "Successfully added fd = %d, to epoll-event"},
    {engine_file, "ERROR", "Could not delete fd = %d, from epoll-event. Errno = %d"},
    {engine_file, "DEBUG", "Successfully deleted fd = %d, to epoll-event"},
    {engine_file, "WARNING", "Invalid DP state change req received. State already [%d]."},
    {engine_file, "ERROR", "Writing to pipe-fd(%d) failed"},
    {engine_file, "ERROR", "DP state changed. Old state [%d], new state [%d]."},
    {engine_file, "INFO", "Closing the old transport-fd(%d)"},
    {engine_file, "ERROR", "Could not delete the old-transport-fd(%d) from epoll-list"},
    {engine_file, "ERROR", "Could not delete the transport-fd(%d) from epoll-list"},
    {engine_file, "ERROR", "Closing connection and bringing down tun interface"},
    {engine_file, "DEBUG", "Disable data transfer, new state %d"},
    {engine_file, "ERROR", "Null ptr received for sock/sock->sess"},
    {engine_file, "ERROR", "Could not read pkt from tun"},
    {engine_file, "DEBUG", "read %d bytes from tun in read and process"},
    {engine_file, "WARNING", "DP-STATE for client = 0... Not writing data-frame on ssl-socket"},
    {engine_file, "ERROR", "Null ptr received for sock/buff/sock->sess"},
    {engine_file, "ERROR", "Processing CSTP frame failed due to error %s\n"},
    {engine_file, "ERROR", "Frame too big to write to tun intf for conn %p. len received = %d, Max-limit = %d"},
    {engine_file, "ERROR", "Error writing data to tun interface for conn %p"},
    {engine_file, "DEBUG", "Successfully wrote %d bytes on TUN-interface(%d)"},
    {engine_file, "INFO", "Log level already same(%d)"},
    {engine_file, "INFO", "Log level changed to: %d"},
    {engine_file, "INFO", "Log destination already same(%d)"},
    {engine_file, "INFO", "Log destination changed to: %d"},
    {engine_file, "ERROR", "GW IP ADDR Conversion failed"},
    {engine_file, "ERROR", "IPv6 ADDR not supported"},
    {engine_file, "ERROR", "Invalid command type received from CLI... Ignore!!"},
    {engine_file, "INFO", "Exit cmd rcvd for child thread, set exit_client flag to true"},
    {engine_file, "INFO", "Received FQDN resolved GW IP, trying to connect"},
    {engine_file, "ERROR", "Invalid value received for CLI-CMD: %d"},
    {engine_file, "INFO", "Clearing the stale commands form CLI pipe, read fd:%d, write fd:%d"},
    {engine_file, "INFO", "Clear CLI commands: message id read:%d"},
    {engine_file, "INFO", "Total number of stale commands cleared from CLI pipe:%d"},
    {engine_file, "ERROR", "Retry timer fd read error, ret1=%d, errstr=%s"},
    {engine_file, "ERROR", "Couldnt delete the rekey-timer-fd(%d) after rekeying"},
    {engine_file, "DEBUG", "Closing the old transport-fd(%d)"},
    {engine_file, "ERROR", "Couldnt delete the guard-timer-fd(%d) upon expiry"},
    {engine_file, "ERROR", "Couldnt delete the backoff-timer-fd(%d) after rekeying"},
    {engine_file, "ERROR", "Couldnt delete the fqdn-resolution-timer-fd(%d) after fqdn-resol timer expiry"},
    {engine_file, "ERROR", "Error [%d] occured on TUN-Socket-fd(%d).. closing connection"},
    {engine_file, "DEBUG", "Got data on Tun interface"},
    {engine_file, "DEBUG", "DP STATE DOWN"},
    {engine_file, "ERROR", "Error [%d] occured on SSL-Socket-fd(%d).. closing connection"},
    {engine_file, "DEBUG", "Got data on SSL socket"},
    {engine_file, "ERROR", "SSL returned error = %d, while trying to read data"},
    {engine_file, "ERROR", "Processing CSTP frame returned error %s\n"},
    {engine_file, "ERROR", "Epoll indicated event on an unknown socket with ltype = %d"},
    {engine_file, "ERROR", "Could not create epoll-fd, due to error %d"},
    {engine_file, "ERROR", "Could not allocate memory for epoll-events block"},
    {engine_file, "INFO", "Created epoll-fd(%d) to handle maximum %d events"},
    {engine_file, "ERROR", "Could not add pipe-fd(%d) to epoll-fd(%d)"},
    {engine_file, "DEBUG", "Pipe-fd(%d) added to epoll-fd(%d)"},
    {engine_file, "ERROR", "Error cloning tun interface"},
    {engine_file, "ERROR", "Creation of tun-intf failed"},
    {engine_file, "WARNING", "Intf FD already exists in the epoll.. updating event.."},
    {engine_file, "ERROR", "Could not add intf(%s) to epoll. ErrorNo = %d"},
    {engine_file, "WARNING", "Added interface %s to epoll list"},
    {engine_file, "ERROR", "TCP Connection failed"},
    {engine_file, "ERROR", "Could not add ipv4 to epoll"},
    {engine_file, "INFO", "Successfully added Client-socket-fd(%d) to epoll-fd"},
    {engine_file, "ERROR", "Could not get client-socket ptr"},
    {engine_file, "ERROR", "EPOLL Wait timed out"},
    {engine_file, "INFO", "In epoll thread"},
    {engine_file, "WARNING", "TLS Client: epoll thread exiting normally"},
    {engine_file, "WARNING", "TLS Client: epoll thread exiting"},

    // tlsc_cstp
    {cstp_file, "ERROR", "Null pointer received for sock/frame/ssl"},
    {cstp_file, "DEBUG", "Read %d bytes from SSL for conn %p"},
    {cstp_file, "ERROR", "Got error %d while writing data pak to SSL for conn %p"},
    {cstp_file, "DEBUG", "Header data len = %d, Reading the rest of msg"},
    {cstp_file, "ERROR", "Null pointer received for buff/sock/sess"},
    {cstp_file, "DEBUG", "Successfully wrote %d bytes out of %d bytes, on SSL conn %p"},
    {cstp_file, "INFO", "Sending DPD Request [Req Retry Ref #%d]"},
    {cstp_file, "ERROR", "SSL write failed for connection = %p"},
    {cstp_file, "DEBUG", "Successfully wrote %d bytes for dpd-req, on SSL conn %p"},
    {cstp_file, "INFO", "Building CSTP-CONFIG-REQ"},
    {cstp_file, "DEBUG", "Internal IP: %s"},
    {cstp_file, "DEBUG", "Device ID: %s"},
    {cstp_file, "DEBUG", "Cookie: %s"},
    {cstp_file, "DEBUG", "Device Name: %s"},
    {cstp_file, "DEBUG", "Serial No.: %s"},
    {cstp_file, "INFO", "Config Request msg = [index = %d] \n%s"},
    {cstp_file, "INFO", "Successfully wrote %d bytes of config-resq for conn %p"},
    {cstp_file, "ERROR", "Null pointer received for sock/buff"},
    {cstp_file, "INFO", "Parsing CSTP-CONFIG-RESPONSE msg"},
    {cstp_file, "ERROR", "Invalid IPv4 prefix received for conn %p"},
    {cstp_file, "DEBUG", "Received CSTP prefix-addr in config-resp: %s for conn: %p"},
    {cstp_file, "DEBUG", "Prefix len received in config-resp: %d %d"},
    {cstp_file, "DEBUG", "DPD interval received in config-resp: %d"},
    {cstp_file, "ERROR", "Did not receive IP addr from GW"},
    {cstp_file, "ERROR", "Invalid IPv4 Client addr received for conn %p"},
    {cstp_file, "DEBUG", "Received CSTP IPv4 client addr in config-resp: %s for conn: %p"},
    {cstp_file, "DEBUG", "Retry interval received in config-resp: %d"},
    {cstp_file, "DEBUG", "Rekey interval received in cofig-resp: %d"},
    {cstp_file, "DEBUG", "Rekey interval not received in cofig-resp, so choosing default value: %d"},
    {cstp_file, "DEBUG", "Cookie received in cofig-resp: %s"},
    {cstp_file, "ERROR", "Invalid DNS Ip received for conn %p"},
    {cstp_file, "DEBUG", "Received CSTP DNS-addr in config-resp: %s for conn: %p"},
    {cstp_file, "ERROR", "Could not allocate a session for prefix %s"},
    {cstp_file, "INFO", "Rekey interval is set, start the timer"},
    {cstp_file, "ERROR", "Could not start Rekey timer"},
    {cstp_file, "INFO", "Process CSTP-CONFIG-RESPONSE"},
    {cstp_file, "DEBUG", "Closing the old transport-fd(%d)"},
    {cstp_file, "DEBUG", "Enabling data reception by changing Dp-State of Client to %d"},
    {cstp_file, "DEBUG", "Got CSTP config resp frame of len %d for conn %p"},
    {cstp_file, "ERROR", "Could not process config resp for conn %p. Error = %s"},
    {cstp_file, "WARNING", "Could not start DPD timer for conn %p"},
    {cstp_file, "ERROR", "Processing CSTP frame failed due to error %s\n"},
    {cstp_file, "INFO", "Got CSTP dpd resp frame [Req Retry Ref #%d] for conn %p"},
    {cstp_file, "DEBUG", "Got CSTP Data frame of len %d for conn %p"},
    {cstp_file, "ERROR", "Could not write data-frame on tun-intf, for conn %p"},
    {cstp_file, "ERROR", "Receieved invalid cstp frame(%d) for conn %p.. dropping.."},
    {cstp_file, "ERROR", "Null ptr received for sock/frame"},

    // tlsc_timer
    {timer_file, "INFO", "Started DPD Timer for %d sec"},
    {timer_file, "INFO", "Started Retry Timer for %d sec"},
    {timer_file, "INFO", "Started Rekey Timer for %d sec"},
    {timer_file, "INFO", "Started FQDN Resoln Timer for %d sec"},
    {timer_file, "INFO", "Started Backoff Timer for %d sec"},
    {timer_file, "ERROR", "Unknown Timer FD"},
    {timer_file, "ERROR", "Null ptr received for slot"},
    {timer_file, "WARNING", "Timer is already running with fd = %d"},
    {timer_file, "ERROR", "Could not create timer in timerfd_create()"},
    {timer_file, "DEBUG", "Created timer with fd = %d"},
    {timer_file, "ERROR", "Start timer failed for fd = %d, sec %lu"},
    {timer_file, "ERROR", "Could not add timer-fd(%d) to epoll"},
    {timer_file, "ERROR", "Invalid timer-fd received in stop-timer"},
    {timer_file, "ERROR", "Stop timer failed for fd = %d"},
    {timer_file, "DEBUG", "Couldnt delete Timer FD from Epoll"},
    {timer_file, "ERROR", "Null ptr received for sock"},
    {timer_file, "DEBUG", "DPD timer expiry event"},
    {timer_file, "ERROR", "Could not start Retry timer for client-sock-fd = %d"},
    {timer_file, "ERROR", "Could not delete the dpd-timer-fd(%d) from epoll"},
    {timer_file, "DEBUG", "Retry timer expiry event"},
    {timer_file, "ERROR",
     "Retry count exceeded, no response received from Server. Close connection and start back-off timer"},
    {timer_file, "DEBUG", "Rekey timer expiry event received"},
    {timer_file, "DEBUG", "Disable data transfer till rekey completes, new state %d"},
    {timer_file, "ERROR", "FQDN Resoln failed, try rekeying with previous GW IP"},
    {timer_file, "INFO", "Establish new TCP connection"},
    {timer_file, "ERROR", "TCP connection failed!!!"},
    {timer_file, "ERROR", "Could not add the new client-sock-fd(%d) to epoll(%d) after rekey timeout"},
    {timer_file, "INFO", "TCP connection established after rekey timeout, client-sock-fd = %d"},
    {timer_file, "ERROR", "Could not delete the old-transport-fd(%d) from epoll-list"},

    // tlsc_platform
    {platform_file, "INFO", "Starting epoll thread"},
    {platform_file, "ERROR", "epollthread creation failed, ret:%d"},
    {platform_file, "INFO", "Started the epoll thread, wait for thread to be up.."},
    {platform_file, "INFO", "Posting message to stop TLS Client..."},
    {platform_file, "INFO", "In TLS Client epoll monitor thread"},
    {platform_file, "WARNING", "TLSC Client exited abnormally"},
    {platform_file, "INFO", "Retrying tlsc-start-client after sleep %d"},
    {platform_file, "WARNING", "epoll monitor thread exiting!!"},
    {platform_file, "INFO", "Started the epoll monitor thread successfully"},
    {platform_file, "ERROR", "epoll monitor thread creation failed,ret:%d "},
    {platform_file, "DEBUG", "Main function should kill the child thread\n"},
    {platform_file, "WARNING", "Cleaning up Tls-session and SSL context"},
    {platform_file, "DEBUG", "Freeing up SSL-ctx"},
    {platform_file, "ERROR", "%s() - Input parm NULL"},
    {platform_file, "INFO", "%s() - server_ip:%s, server_port:%d"},
    {platform_file, "INFO", "%s() - mgmt_ip:%s"},
    {platform_file, "INFO", "%s() - tun_interface_name:%s"},
    {platform_file, "ERROR", "\n%s() - Input parm NULL"},
    {platform_file, "INFO", "%s() - cipher_algo:%s"},
    {platform_file, "INFO", "Invalid value for param log_level in cfg file"},
    {platform_file, "INFO", "Setting log_level as false"},
    {platform_file, "INFO", "%s() - log_level:%d"},
    {platform_file, "INFO", "%s() - psk_identity:%s"},
    {platform_file, "INFO", "%s() - psk_key:%s"},
    {platform_file, "INFO", "%s() - device_id:%s"},
    {platform_file, "INFO", "%s() - serial_no:%s"},
    {platform_file, "INFO", "%s() - device_name:%s"},
    {platform_file, "DEBUG", "SSL auth-mech set to PSK"},
    {platform_file, "INFO", "%s() - setting all config for TLS Client"},
    {platform_file, "INFO", "TUN State changed to %d, error cause:%d"},
    {platform_file, "DEBUG", "No. of DNS server %d\n"},
    {platform_file, "DEBUG", "%d: %s\n"},
    {platform_file, "INFO", "Client inner IP received %s"},
    {platform_file, "ERROR", "Null ptr received for stats"},

    // tlsc_main
    {main_file, "ERROR", "Could not create pipe fd for comm to server thread"},
    {main_file, "INFO", "Set non-block flag on CLI pipe read fd:%d success."},
    {main_file, "ERROR", "Set non-block flag on CLI pipe read fd:%d failed."},
    {main_file, "ERROR", "Writing to pipe-fd(%d) failed"},
    {main_file, "DEBUG", "Wrote %d bytes on pipe-fd: %d"},
    {main_file, "DEBUG", "Sent CLI cmd: %d, to child thread"},
    {main_file, "DEBUG", "Sent CLI cmd: %d, to epoll thread"},
    {main_file, "INFO",
     "\n%s() - svr_addr_ipv4:%s, svr_port:%d, management_ip:%s, tun_interface_name:%s, cipher_algo:%s, tlsc_debug_level:%d, psk_identity:%s, psk_key:%s"},
    {main_file, "INFO", "tlsc_init called again... Reading configuration again."},
    {main_file, "INFO", "%s() - Invoking config set APIs"},
    {main_file, "ERROR", "-------- %s() ERROR: Setting the configuration"},
    {main_file, "INFO", "Initialize tls-client"},
    {main_file, "DEBUG", "In TLS Client process"},
    {main_file, "DEBUG", "Waiting on FIFO to receive messages"},
    {main_file, "ERROR", "Error: The program must be run as ROOT!!"},
    {main_file, "ERROR", "TLS Client Initialization failed"},
    {main_file, "WARNING", "Received TWLC_EXIT command, Exiting TLS Client!!!"},
    {main_file, "WARNING", "Client Shutdown!!"},
};

// True for what does not belong to a line but was printed behind it: a dump, or a text without a header.
inline bool is_other_output(const char *text) {
    if (*text == '\0') return true;
    for (const char *start : {"\n", "Failed to ", "-------- ", "Shutting down "})
        if (strncmp(text, start, strlen(start)) == 0) return true;
    return text[0] == ' ' && isxdigit(static_cast<unsigned char>(text[1])) &&
           isxdigit(static_cast<unsigned char>(text[2]));
}

// True when printf could have made the text from the format.
inline bool is_made_from(const char *text, const char *format) {
    if (*format == '\0') return is_other_output(text);
    if (*format != '%') return *text == *format && is_made_from(text + 1, format + 1);

    const char *conversion = format + 1 + strspn(format + 1, "l");
    if (*conversion == 's') {
        do
            if (is_made_from(text, conversion + 1)) return true;
        while (*text++ != '\0');
        return false;
    }
    if (*conversion == 'p' && strncmp(text, "(nil)", 5) == 0) return is_made_from(text + 5, conversion + 1);
    if (*conversion == 'p' && strncmp(text, "0x", 2) == 0) text += 2;
    if (*conversion == 'd' && *text == '-') ++text;
    const size_t digits = strspn(text, *conversion == 'd' || *conversion == 'u' ? "0123456789" : "0123456789abcdef");
    return digits > 0 && is_made_from(text + digits, conversion + 1);
}

// True when the line is one of the table, or comes from a file that the table does not cover.
inline bool is_known_log_line(const log_line &line) {
    bool is_covered = false;
    for (const known_log_line &known : known_log_lines) {
        if (line.file != known.file) continue;
        is_covered = true;
        if (line.severity == known.severity && is_made_from(line.message.c_str(), known.format)) return true;
    }
    return !is_covered || line.message.size() > 800;  // a line that may have been cut
}
