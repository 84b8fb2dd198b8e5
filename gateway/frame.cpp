#include "frame.h"

#include <algorithm>
#include <cstring>

namespace gw {

namespace {

constexpr uint8_t magic[3] = {'S', 'T', 'F'};
constexpr uint8_t version  = 1;

}  // namespace

void write_frame_header(uint8_t *at, uint8_t type, uint16_t length) {
    memcpy(at, magic, sizeof magic);
    at[3] = version;
    at[4] = static_cast<uint8_t>(length >> 8);
    at[5] = static_cast<uint8_t>(length);
    at[6] = type;
    at[7] = 0;
}

byte_vector make_frame(uint8_t type, byte_view payload) {
    byte_vector frame(frame_header_size + payload.size());
    write_frame_header(frame.data(), type, static_cast<uint16_t>(payload.size()));
    std::copy(payload.begin(), payload.end(), frame.begin() + frame_header_size);
    return frame;
}

frame_parser::result frame_parser::check_header(byte_view bytes) {
    if (memcmp(bytes.data(), magic, std::min(bytes.size(), sizeof magic)) != 0) return result::bad_magic;
    if (bytes.size() > 3 && bytes[3] != version) return result::bad_version;
    return result::ok;
}

size_t frame_parser::frame_size(byte_view bytes) {
    if (bytes.size() < frame_header_size) return 0;
    return frame_header_size + static_cast<size_t>(bytes[4] << 8 | bytes[5]);
}

const char *to_text(frame_parser::result result) {
    switch (result) {
    case frame_parser::result::ok: return "ok";
    case frame_parser::result::bad_magic: return "bad_magic";
    case frame_parser::result::bad_version: return "bad_version";
    case frame_parser::result::stopped: return "stopped";
    }
    return "";
}

}  // namespace gw
