#include "pool.h"

namespace gw {

namespace {

constexpr size_t cookie_limit = 10;  // characters that a client keeps of a cookie

}  // namespace

bool address_pool::is_known_cookie(const address_lease &lease, std::string_view cookie) {
    return !lease.cookie.empty() && cookie.starts_with(std::string_view(lease.cookie).substr(0, cookie_limit));
}

address_lease *address_pool::acquire(const applicant &asker) {
    address_lease *lease = find(asker);
    if (!lease) {
        auto address = choose_address(asker);
        if (!address) return nullptr;
        lease = &leases_.emplace_back(
            address_lease{.identity = asker.identity, .device_id = asker.device_id, .address = *address});
        by_address_[*address] = lease;
    } else if (asker.address && *asker.address != lease->address) {
        (void)move(*lease, *asker.address);  // otherwise the device keeps what it has
    }
    lease->connections++;
    lease->used = ++uses_;
    return lease;
}

address_lease *address_pool::find(const applicant &asker) {
    address_lease *absent = nullptr;
    for (address_lease &lease : leases_) {
        if (lease.identity != asker.identity || lease.device_id != asker.device_id) continue;
        if (!asker.device_id.empty()) return &lease;
        // Devices without an id share one identity: only what they show tells them apart.
        if (is_known_cookie(lease, asker.cookie)) return &lease;
        if (asker.address) {
            if (*asker.address == lease.address) return &lease;
        } else if (lease.connections == 0) {
            absent = &lease;
        }
    }
    return absent;
}

address_lease *address_pool::holder(uint32_t address) {
    auto found = by_address_.find(address);
    return found == by_address_.end() ? nullptr : found->second;
}

bool address_pool::move(address_lease &lease, uint32_t address) {
    if (!contains(address)) return false;
    address_lease *other = holder(address);
    if (other == &lease) return true;
    if (other) {
        if (other->connections > 0) return false;
        erase(*other);
    }
    by_address_.erase(lease.address);
    lease.address        = address;
    by_address_[address] = &lease;
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
    by_address_.erase(lease.address);
    leases_.remove_if([&](const address_lease &candidate) { return &candidate == &lease; });
}

}  // namespace gw
