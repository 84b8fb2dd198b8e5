#pragma once

#include "text.h"

namespace gw {

// The frame: "STF", version 1, payload length (16 bit, big-endian), type, reserved 0, payload.
constexpr size_t frame_header_size = 8;

// A client takes one frame of at most this many bytes, header included, per read.
constexpr size_t client_frame_limit = 1500;

enum frame_type : uint8_t {
    frame_data            = 0,
    frame_config_request  = 1,
    frame_config_response = 2,
    frame_dpd_request     = 3,
    frame_dpd_response    = 4,
};

// Writes the 8 header bytes to `at`. `length` counts the payload bytes.
void write_frame_header(uint8_t *at, uint8_t type, uint16_t length);

// Header and payload in one piece. The payload holds at most 65535 bytes.
byte_vector make_frame(uint8_t type, byte_view payload);

// A received frame; the views last as long as the call that hands it over.
struct cstp_frame {
    uint8_t   type = 0;
    byte_view payload;
};

// Cuts a byte stream into frames, however the stream is sliced. A header with other magic bytes or another version
// spoils the stream for good: there is no way to find the next frame.
class frame_parser {
public:
    enum class result {
        ok,
        bad_magic,
        bad_version,
        stopped
    };

    // Calls take(frame) for every frame that is complete with these bytes; take returns false to stop. Frames that lie
    // whole in `bytes` are not copied.
    template <class take_function>
    result feed(byte_view bytes, take_function &&take) {
        if (rest_.empty()) return take_frames(bytes, take);
        rest_.insert(rest_.end(), bytes.begin(), bytes.end());
        byte_vector joined;
        joined.swap(rest_);
        return take_frames(joined, take);
    }

    // Bytes of a frame that is not complete yet.
    size_t pending() const { return rest_.size(); }

private:
    template <class take_function>
    result take_frames(byte_view bytes, take_function &take) {
        while (!bytes.empty()) {
            result header = check_header(bytes);
            if (header != result::ok) return header;
            size_t size = frame_size(bytes);
            if (size == 0 || size > bytes.size()) break;
            if (!take(cstp_frame{bytes[6], bytes.subspan(frame_header_size, size - frame_header_size)}))
                return result::stopped;
            bytes = bytes.subspan(size);
        }
        rest_.assign(bytes.begin(), bytes.end());
        return result::ok;
    }

    static result check_header(byte_view bytes);
    static size_t frame_size(byte_view bytes);  // 0 while the length is not known

    byte_vector rest_;
};

const char *to_text(frame_parser::result result);

}  // namespace gw
