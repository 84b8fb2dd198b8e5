#pragma once

#include <cstring>

#include "text.h"

namespace gw {

// Bytes waiting for a socket: appended at the end, consumed at the front.
class byte_queue {
public:
    size_t         size() const { return tail_ - head_; }
    bool           empty() const { return tail_ == head_; }
    const uint8_t *data() const { return store_.data() + head_; }
    byte_view      from(size_t offset) const { return {data() + offset, size() - offset}; }

    void append(const void *bytes, size_t count) {
        if (count == 0) return;  // perhaps of nothing at all
        if (store_.size() - tail_ < count) make_room(count);
        memcpy(store_.data() + tail_, bytes, count);
        tail_ += count;
    }
    void consume(size_t count) {
        head_ += count;
        if (head_ < tail_) return;
        head_ = tail_ = 0;
        if (store_.size() > kept_size) byte_vector().swap(store_);  // a client that was slow once
    }
    // Cuts the end off, so that `count` bytes are left.
    void truncate(size_t count) { tail_ = head_ + count; }

private:
    static constexpr size_t kept_size = 32 * 1024;

    void make_room(size_t count) {
        if (head_ > 0) {
            memmove(store_.data(), store_.data() + head_, size());
            tail_ -= head_;
            head_ = 0;
        }
        if (store_.size() - tail_ < count) store_.resize(2 * (tail_ + count));
    }

    byte_vector store_;
    size_t      head_ = 0;
    size_t      tail_ = 0;
};

// Frames waiting for a slow client: a ring of fixed slots, allocated when the first one has to wait.
class frame_ring {
public:
    static constexpr size_t slot_size = 1600;  // the largest data frame, header included

    explicit frame_ring(size_t slots) : slots_(slots) {}

    bool   empty() const { return count_ == 0; }
    size_t size() const { return count_; }

    // False when the ring is full or the frame is larger than a slot.
    bool push(byte_view frame) {
        if (count_ == slots_ || frame.size() > slot_size) return false;
        if (store_.empty()) {
            store_.resize(slots_ * slot_size);
            lengths_.resize(slots_);
        }
        size_t at = (first_ + count_) % slots_;
        memcpy(store_.data() + at * slot_size, frame.data(), frame.size());
        lengths_[at] = static_cast<uint16_t>(frame.size());
        count_++;
        return true;
    }
    byte_view front() const { return {store_.data() + first_ * slot_size, lengths_[first_]}; }
    void      pop() {
             first_ = (first_ + 1) % slots_;
             count_--;
    }

private:
    size_t                slots_;
    size_t                first_ = 0;
    size_t                count_ = 0;
    byte_vector           store_;
    std::vector<uint16_t> lengths_;
};

}  // namespace gw
