#include "lookup.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <uv.h>

#include <algorithm>

#include "log.h"
#include "loop_room.h"

namespace common {

// Belongs to the system until it calls back; owner is null when nobody wants the answer any more.
struct lookup::request {
    uv_getaddrinfo_t uv;
    lookup          *owner;
    loop::room      *home;
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

lookup_result make_result(int status, const addrinfo *list) {
    lookup_result result;
    if (status < 0) {
        result.error = uv_strerror(status);
        return result;
    }
    for (int family : {AF_INET, AF_INET6})
        for (const addrinfo *entry = list; entry; entry = entry->ai_next) {
            if (entry->ai_family != family) continue;
            std::string text = address_text(*entry);
            if (std::find(result.addresses.begin(), result.addresses.end(), text) == result.addresses.end())
                result.addresses.push_back(text);
        }
    if (result.addresses.empty()) result.error = "the name has no address";
    return result;
}

}  // namespace

lookup::lookup(loop &owner) : owner_(owner), patience_(owner) {}
lookup::~lookup() { stop(); }

void lookup::start(const std::string &name, milliseconds patience, std::function<void(const lookup_result &)> work) {
    stop();
    work_ = std::move(work);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;

    auto *next    = new request{{}, this, owner_.room_.get()};
    next->uv.data = next;
    int result    = uv_getaddrinfo(
           owner_.raw(), &next->uv,
           [](uv_getaddrinfo_t *uv, int status, addrinfo *list) {
            auto *self = static_cast<request *>(uv->data);
            self->home->lookups--;
            if (self->owner) guarded("lookup", [&] { self->owner->finish(make_result(status, list)); });
            uv_freeaddrinfo(list);
            delete self;
        },
           name.c_str(), nullptr, &hints);
    if (result < 0) {  // told in a later pass, as every other answer
        delete next;
        patience_.start(milliseconds(0), [this, result] { finish(make_result(result, nullptr)); });
        return;
    }
    request_ = next;
    owner_.room_->lookups++;
    patience_.start(patience, [this] { finish({{}, "the lookup takes too long"}); });
}

void lookup::stop() {
    patience_.stop();
    if (!request_) return;
    request_->owner = nullptr;
    uv_cancel(reinterpret_cast<uv_req_t *>(&request_->uv));  // only one that has not begun; the others are forgotten
    request_ = nullptr;
}

void lookup::finish(const lookup_result &result) {
    stop();
    auto work = std::move(work_);  // may start the next lookup
    if (work) work(result);
}

}  // namespace common
