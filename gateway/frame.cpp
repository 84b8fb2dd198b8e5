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

Bytes make_frame(uint8_t type, ByteView payload) {
    Bytes frame(frame_header_size + payload.size());
    write_frame_header(frame.data(), type, static_cast<uint16_t>(payload.size()));
    std::copy(payload.begin(), payload.end(), frame.begin() + frame_header_size);
    return frame;
}

FrameParser::Result FrameParser::check_header(ByteView bytes) {
    if (memcmp(bytes.data(), magic, std::min(bytes.size(), sizeof magic)) != 0) return Result::bad_magic;
    if (bytes.size() > 3 && bytes[3] != version) return Result::bad_version;
    return Result::ok;
}

size_t FrameParser::frame_size(ByteView bytes) {
    if (bytes.size() < frame_header_size) return 0;
    return frame_header_size + static_cast<size_t>(bytes[4] << 8 | bytes[5]);
}

const char *to_text(FrameParser::Result result) {
    switch (result) {
    case FrameParser::Result::ok: return "ok";
    case FrameParser::Result::bad_magic: return "bad_magic";
    case FrameParser::Result::bad_version: return "bad_version";
    case FrameParser::Result::stopped: return "stopped";
    }
    return "";
}

}  // namespace gw
