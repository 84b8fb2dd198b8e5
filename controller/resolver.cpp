#include "resolver.h"

#include <netdb.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <system_error>
#include <thread>

namespace wlcctl {

// Shared by the agent's thread and the lookup's. The lookup's thread writes `outcome` once, then signals `done`; the agent reads
// it after that only. Whoever lets go last closes the descriptor.
struct resolver::lookup {
    std::string name;
    result      outcome;
    int         done = -1;  // eventfd

    ~lookup() {
        if (done >= 0) close(done);
    }
};

namespace {

std::string address_text(const addrinfo &entry) {
    char        text[INET6_ADDRSTRLEN] = "";
    const void *address =
        entry.ai_family == AF_INET
            ? static_cast<const void *>(&reinterpret_cast<const sockaddr_in *>(entry.ai_addr)->sin_addr)
            : static_cast<const void *>(&reinterpret_cast<const sockaddr_in6 *>(entry.ai_addr)->sin6_addr);
    inet_ntop(entry.ai_family, address, text, sizeof text);
    return text;
}

// The first address of the family, empty if there is none.
std::string first_of(const addrinfo *list, int family) {
    for (; list; list = list->ai_next)
        if (list->ai_family == family) return address_text(*list);
    return "";
}

resolver::result look_up(const std::string &name) {
    addrinfo hints{}, *list = nullptr;
    hints.ai_socktype = SOCK_STREAM;

    int error = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    if (error != 0) return {"", gai_strerror(error)};

    std::string address = first_of(list, AF_INET);
    if (address.empty()) address = first_of(list, AF_INET6);
    freeaddrinfo(list);
    if (address.empty()) return {"", "the name has no address"};
    return {address, ""};
}

}  // namespace

resolver::resolver()  = default;
resolver::~resolver() = default;

bool resolver::start(const std::string &name) {
    auto next  = std::make_shared<lookup>();
    next->name = name;
    next->done = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (next->done < 0) return false;

    try {
        std::thread([next] {
            next->outcome = look_up(next->name);
            uint64_t one  = 1;
            (void)write(next->done, &one, sizeof one);  // an empty eventfd takes it
        }).detach();
    } catch (const std::system_error &) {
        return false;
    }
    m_current = next;
    return true;
}

void resolver::abandon() { m_current.reset(); }

int resolver::descriptor() const { return m_current ? m_current->done : -1; }

resolver::result resolver::take() {
    result outcome = m_current->outcome;
    m_current.reset();
    return outcome;
}

}  // namespace wlcctl
