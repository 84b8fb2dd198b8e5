#include "pool.h"

namespace gw {

namespace {

constexpr size_t cookie_limit = 10;  // characters that a client keeps of a cookie

}  // namespace

bool address_pool::is_known_cookie(const address_lease &lease, std::string_view cookie) {
    return !lease.cookie.empty() && cookie.starts_with(std::string_view(lease.cookie).substr(0, cookie_limit));
}

uint64_t address_pool::size() const {
    uint64_t outside = 0;
    for (uint32_t address : excluded_) outside += range_.contains(address);
    return uint64_t{range_.last} - range_.first + 1 - outside;
}

address_lease *address_pool::acquire(const applicant &asker) {
    address_lease *lease = find(asker);
    if (!lease) {
        auto address = choose_address(asker);
        if (!address) return nullptr;
        lease = add({.identity = asker.identity, .device_id = asker.device_id, .address = *address});
    } else if (asker.address && *asker.address != lease->address) {
        (void)move(*lease, *asker.address);  // otherwise the device keeps what it has
    }
    lease->connections++;
    lease->used = ++uses_;
    return lease;
}

// Neither part holds a line feed: the one is a line of the key file or a name, the other a line of the request.
std::string address_pool::device_key(const std::string &identity, const std::string &device_id) {
    return identity + "\n" + device_id;
}

address_lease *address_pool::add(const address_lease &lease) {
    place at                 = leases_.insert(leases_.end(), lease);
    by_address_[at->address] = at;
    by_device_[device_key(at->identity, at->device_id)].push_back(&*at);
    return &*at;
}

bool address_pool::restore(const address_lease &lease) {
    if (!contains(lease.address) || holder(lease.address)) return false;
    add(lease)->used = ++uses_;
    return true;
}

address_lease *address_pool::find(const applicant &asker) {
    auto found = by_device_.find(device_key(asker.identity, asker.device_id));
    if (found == by_device_.end()) return nullptr;
    address_lease *absent = nullptr;
    for (address_lease *lease : found->second) {
        if (!asker.device_id.empty()) return lease;
        // Devices without an id share one identity: only what they show tells them apart.
        if (is_known_cookie(*lease, asker.cookie)) return lease;
        if (asker.address) {
            if (*asker.address == lease->address) return lease;
        } else if (lease->connections == 0) {
            absent = lease;
        }
    }
    return absent;
}

address_lease *address_pool::holder(uint32_t address) {
    auto found = by_address_.find(address);
    return found == by_address_.end() ? nullptr : &*found->second;
}

bool address_pool::move(address_lease &lease, uint32_t address) {
    if (!contains(address)) return false;
    address_lease *other = holder(address);
    if (other == &lease) return true;
    if (other) {
        if (other->connections > 0) return false;
        erase(*other);
    }
    auto node  = by_address_.extract(lease.address);
    node.key() = address;
    by_address_.insert(std::move(node));
    lease.address = address;
    return true;
}

void address_pool::release(address_lease &lease) {
    if (lease.connections > 0) lease.connections--;
    lease.used = ++uses_;
}

std::optional<uint32_t> address_pool::choose_address(const applicant &asker) {
    if (asker.address && contains(*asker.address)) {
        address_lease *other = holder(*asker.address);
        if (!other) return asker.address;
        if (other->connections == 0) {
            erase(*other);
            return asker.address;
        }
    }
    if (auto address = free_address()) return address;
    return take_from_absent();
}

std::optional<uint32_t> address_pool::free_address() {
    uint64_t size = uint64_t{range_.last} - range_.first + 1;
    if (by_address_.size() >= size) return std::nullopt;
    for (uint64_t tried = 0; tried < size; tried++) {
        uint32_t address = next_;
        next_            = address == range_.last ? range_.first : address + 1;
        if (!excluded_.contains(address) && !by_address_.contains(address)) return address;
    }
    return std::nullopt;
}

std::optional<uint32_t> address_pool::take_from_absent() {
    address_lease *oldest = nullptr;
    for (address_lease &lease : leases_) {
        if (lease.connections > 0) continue;
        if (!oldest || lease.used < oldest->used) oldest = &lease;
    }
    if (!oldest) return std::nullopt;
    uint32_t address = oldest->address;
    erase(*oldest);
    return address;
}

void address_pool::erase(address_lease &lease) {
    auto of_device = by_device_.find(device_key(lease.identity, lease.device_id));
    std::erase(of_device->second, &lease);
    if (of_device->second.empty()) by_device_.erase(of_device);
    auto node = by_address_.extract(lease.address);
    leases_.erase(node.mapped());
}

}  // namespace gw
