// What clients send to the gateway: a stream of frames that is cut anywhere, and the text of a configuration request.
// Input: a choice; then the stream, or the text.
#include <vector>

#include "config_exchange.h"
#include "frame.h"

#include "input.h"

namespace {

gw::byte_view view(std::string_view text) { return {reinterpret_cast<const uint8_t *>(text.data()), text.size()}; }

struct outcome {
    std::vector<std::string> frames;  // type and payload
    bool                     is_spoilt = false;
    size_t                   pending   = 0;

    bool operator==(const outcome &) const = default;
};

// Fed in pieces of this size; 0: of growing sizes.
outcome cut(std::string_view stream, size_t piece) {
    outcome          result;
    gw::frame_parser parser;
    auto             take = [&](const gw::cstp_frame &frame) {
        const auto *bytes = reinterpret_cast<const char *>(frame.payload.data());
        result.frames.push_back(std::string(1, static_cast<char>(frame.type)) +
                                            std::string(bytes, frame.payload.size()));
        return true;
    };
    for (size_t at = 0, step = 1; at < stream.size() && !result.is_spoilt; ++step) {
        const std::string_view  part = stream.substr(at, piece != 0 ? piece : step);
        const std::vector<char> copy(part.begin(), part.end());  // of exactly this size
        result.is_spoilt = parser.feed(view({copy.data(), copy.size()}), take) != gw::frame_parser::result::ok;
        at += part.size();
    }
    if (!result.is_spoilt) result.pending = parser.pending();
    return result;
}

void check_stream(fuzz_input &in) {
    std::string stream;
    while (!in.empty() && stream.size() < 6000) {
        const uint8_t     choice = in.byte();
        const std::string payload(in.bytes(choice & 0x40 ? in.word() % 1600 : in.below(40)));
        std::string       frame("STF\x01", 4);
        frame += {static_cast<char>(payload.size() >> 8), static_cast<char>(payload.size()),
                  static_cast<char>(choice & 7), 0};
        if ((choice & 0xb8) == 0xb8) frame[in.below(8)] = static_cast<char>(in.byte());
        stream += choice & 0x80 ? frame + payload : payload;
    }
    const outcome whole = cut(stream, std::max<size_t>(stream.size(), 1));
    MUST(whole == cut(stream, 1));
    MUST(whole == cut(stream, 7));
    MUST(whole == cut(stream, 0));
}

// The first line of a name counts, and only what begins a line is a name.
std::optional<std::string> line_of(const std::string &text, const std::string &name) {
    for (size_t start = 0; start < text.size();) {
        const size_t      end  = std::min(text.find('\n', start), text.size());
        const std::string line = text.substr(start, end - start);
        if (line.compare(0, name.size(), name) == 0) return line.substr(name.size());
        start = end + 1;
    }
    return std::nullopt;
}

void check_request(fuzz_input &in) {
    constexpr const char *words[] = {"X-CSTP-Address:",
                                     "X-CSTP-Device-ID:",
                                     "X-CSTP-Cookie:",
                                     "X-CSTP-Device-Name:",
                                     "X-CSTP-Device-SerialNo:",
                                     "X-CSTP-DPD:",
                                     "\n",
                                     "10.9.0.7",
                                     "4",
                                     "-1"};
    std::string           text;
    while (!in.empty() && text.size() < 3000) {
        const uint8_t choice = in.byte();
        text += choice < std::size(words) ? std::string(words[choice])
                : choice < 128            ? std::string(1, static_cast<char>(choice))
                                          : std::string(in.bytes(choice & 31));
    }
    const gw::config_request request = gw::parse_config_request(text);
    MUST(request.device_id == line_of(text, "X-CSTP-Device-ID:"));
    MUST(request.cookie == line_of(text, "X-CSTP-Cookie:"));
    MUST(request.address == line_of(text, "X-CSTP-Address:"));
    MUST(request.name == line_of(text, "X-CSTP-Device-Name:"));
    MUST(request.serial == line_of(text, "X-CSTP-Device-SerialNo:"));

    const size_t at       = std::string(text.c_str()).find("X-CSTP-DPD:");  // a client's text ends at the first NUL
    const auto   response = gw::response_value(text, "X-CSTP-DPD");
    MUST(response.has_value() == (at != std::string::npos));
    if (response) MUST(text.compare(at + 11, response->size(), *response) == 0);
    (void)gw::has_fatal_dpd(text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input in(bytes, size);
    if (in.byte() & 1) check_stream(in);
    else check_request(in);
    return 0;
}
