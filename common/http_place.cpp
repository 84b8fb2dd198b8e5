#include "http_place.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

namespace common {

std::string parse_http_place(const std::string &text, http_place &place) {
    constexpr const char *forms = "an HTTP place is unix:PATH, ADDRESS:PORT, [ADDRESS]:PORT or localhost:PORT";
    place                       = {};
    if (text.starts_with("unix:")) {
        place.path   = text.substr(5);
        bool is_good = !place.path.empty() && place.path.size() < sizeof sockaddr_un{}.sun_path &&
                       place.path.find('\0') == std::string::npos;
        return is_good ? "" : "the path of a socket must have 1 to 107 characters";
    }
    size_t colon = text.rfind(':');
    if (colon == std::string::npos) return forms;
    std::string address = text.substr(0, colon), port = text.substr(colon + 1);
    bool is_port = !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    if (!is_port || std::stoul(port) > 65535) return forms;
    if (address == "localhost") address = "127.0.0.1";
    in_addr  bytes{};
    in6_addr bytes6{};
    bool     is_bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
    if (is_bracketed) address = address.substr(1, address.size() - 2);
    if (!is_bracketed && inet_pton(AF_INET, address.c_str(), &bytes) == 1)
        place.is_loopback = (ntohl(bytes.s_addr) >> 24) == 127;
    else if (is_bracketed && inet_pton(AF_INET6, address.c_str(), &bytes6) == 1)
        place.is_loopback = IN6_IS_ADDR_LOOPBACK(&bytes6);
    else return forms;
    place.address = address;
    place.port    = static_cast<uint16_t>(std::stoul(port));
    return "";
}

}  // namespace common
