#include "reasons.h"

#include <algorithm>

namespace wlcctl {

// Every code that the agent, `doctor` or `start` can name. The manual's table is made from this one (wlcctl why).
const std::vector<reason_entry> reason_table = {
    {"gateway-unreachable", "the gateway does not answer a TCP connection, or no route leads to it",
     "check address and port (wlcctl conf show), the route (ip route get ADDRESS) and the firewalls between",
     "\"Server port = ...\" with nothing behind it, or \"TCP connection failed to server\""},
    {"gateway-refused", "the gateway's machine answers, but nothing listens on that port",
     "start the gateway, or correct server_port in the configuration file",
     "\"TCP connection failed to server\", and a connection of the agent's own is refused"},
    {"handshake-stalled", "the gateway took the TCP connection and then says nothing",
     "look at the gateway: it is overloaded or hangs; --keep-up ends the daemon when it waits too long",
     "\"TCP conn established successfully!!\" with nothing behind it"},
    {"key-mismatch", "the gateway knows the identity, but with another key",
     "write the gateway's key into the configuration file (wlcctl conf init --psk-key-file FILE --force), then start",
     "\"SSL connect failed!! Error = ...\" with \"bad record mac\", \"decrypt error\" or \"decryption failed\""},
    {"identity-unknown", "the gateway does not know the identity of this device",
     "correct psk_identity, or have the identity entered at the gateway",
     "\"SSL connect failed!! Error = ...\" with \"unknown psk identity\""},
    {"no-common-cipher", "gateway and device have no cipher in common",
     "correct cipher_algo, end the daemon (wlcctl shutdown) and start it again: a running one keeps its list",
     "\"SSL connect failed!! Error = ...\" with \"handshake failure\", \"no shared cipher\" or \"no ciphers\""},
    {"certificate-rejected", "a certificate was rejected; the detail is the verdict",
     "renew the certificate, or the list of revoked ones",
     "\"Verification failed for cert, error str = ...\", or an alert about a certificate"},
    {"clock", "the gateway's certificate is not valid yet, and this device's clock is behind",
     "set the clock (date), see to it that it is set at boot, then start",
     "\"Verification failed for cert, error str = certificate is not yet valid\" in a year before "
     "the program was built"},
    {"no-tls-context", "the cipher list is unusable: this process of the daemon can never connect",
     "correct cipher_algo (wlcctl lint), end the daemon (wlcctl shutdown), start it again",
     "\"Could not set the SSL Cipher: ...\", \"Could not get new SSL handle\""},
    {"tls-failed", "the TLS handshake failed; the detail is OpenSSL's text",
     "compare version and cipher of device and gateway; read the gateway's log",
     "\"SSL connect failed!! Error = ...\" with any other text"},
    {"response-timeout", "the gateway did not answer the configuration request within 10 s",
     "read the gateway's log: has its address pool run out?",
     "\"Successfully wrote ... bytes of config-resq\" and a teardown without another error"},
    {"response-rejected", "the gateway's configuration response cannot be used",
     "correct the gateway: the inner address must be there and be a plain IPv4 address",
     "\"Did not receive IP addr from GW\", \"Invalid IPv4 Client addr received\", \"Could not process config resp\""},
    {"dpd-timeout", "the gateway stopped answering: four requests in a row stayed without a response",
     "check the path to the gateway; the daemon tries again by itself",
     "\"Retry count exceeded, no response received from Server\""},
    {"gateway-closed", "the gateway closed the connection in order",
     "read the gateway's log; the daemon tries again by itself",
     "\"Error [8193] occured on SSL-Socket-fd\", or \"ssl-connect error : 5\" with \"ret-value = 0\""},
    {"connection-reset", "the connection was reset on the way or by the gateway",
     "check the gateway's process and the firewalls between; the daemon tries again by itself",
     "\"Error [8217] occured on SSL-Socket-fd\", \"ssl-connect error : 5\" with \"ret-value = -1\", "
     "\"SSL write error\""},
    {"tun-missing", "this machine has no TUN device, or the tunnel's interface was removed",
     "modprobe tun; in a container pass /dev/net/tun in; then start",
     "\"Error cloning tun interface\"; or the interface is gone while the tunnel is up"},
    {"tun-busy", "the tunnel's interface cannot be made: another program holds the name",
     "end that program, or choose another tun_interface_name",
     "\"Creation of tun-intf failed\" behind \"IOCTL error[16]\" or \"IOCTL error[22]\""},
    {"conf-missing", "there is no configuration file", "write one: wlcctl conf init --help",
     "the file is not there when the tunnel is started"},
    {"conf-invalid", "the configuration file has errors; the detail is the first one",
     "wlcctl lint shows all of them, each with its fix", "wlcctl lint finds errors when the tunnel is started"},
    {"name-unresolved", "the gateway's name has no address", "check the name and the name servers (getent hosts NAME)",
     "a lookup of the agent fails"},
    {"not-permitted", "the daemon, or the agent, may not do what it must", "run both as root, with CAP_NET_ADMIN",
     "\"Error: The program must be run as ROOT!!\", \"IOCTL error[1]\", or a pipe that may not be opened"},
    {"disk-full", "a file system that the daemon writes to is full",
     "free space on it: /tmp (log), /storage (configuration)", "no block is free; the log stops"},
    {"stuck", "the daemon does not come back from a call",
     "end it (wlcctl shutdown, then kill) and start it again; --keep-up does both",
     "neither UP nor a name query for 150 s after a start, or unanswered DPD requests and no end"},
    {"daemon-gone", "no daemon runs", "start it: systemctl start tlsc, or wlcctl agent --run /usr/sbin/tlsc",
     "nobody reads the daemon's pipe"},
    {"daemon-second", "more than one daemon reads the pipe: each takes some of the orders",
     "end all but one; the detail names their process ids", "several processes have the pipe open for reading"},
    {"stopped-by-order", "somebody ordered the tunnel to stop", "wlcctl start", "the daemon has read a stop (21)"},
    {"never-started", "nobody has ordered the tunnel to start since the daemon began", "wlcctl start, or --keep-up",
     "the feature is disabled"},
    {"start-failed", "the daemon refused the start; the detail is its text",
     "read the daemon's log (wlcctl logs --why)", "DOWN with \"TLS Client init failed\" or \"Tunnel start failed\""},
};

const reason_entry *find_reason(const std::string &code) {
    auto found = std::find_if(reason_table.begin(), reason_table.end(),
                              [&](const reason_entry &entry) { return code == entry.code; });
    return found == reason_table.end() ? nullptr : &*found;
}

}  // namespace wlcctl
