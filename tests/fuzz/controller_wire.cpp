// What the daemon sends to the controller: reads from the pipe cut into records, and each record's meaning.
// Input: the bytes of a read; in every other input made of whole records.
#include <cstring>
#include <vector>

#include "wire.h"

#include "input.h"

namespace {

bool is_printable(const std::string &text) {
    for (const char c : text)
        if (c < ' ' || c > '~') return false;
    return true;
}

void check(const wlcctl::record &record) {
    const wlcctl::message message = wlcctl::decode(record);
    uint32_t              id;
    memcpy(&id, record.data(), sizeof(id));
    MUST(message.id == id);
    MUST(is_printable(message.text) && message.text.size() <= wlcctl::record_size);
    MUST(message.servers.size() <= wlcctl::dns_slots);
    for (const std::string &server : message.servers) MUST(!server.empty() && is_printable(server));
    MUST(wlcctl::message_name(id) != nullptr);
    const int code = wlcctl::cause_code(message.text);
    MUST(code >= -1 && code <= 11);
}

std::string whole_records(fuzz_input &in) {
    constexpr uint32_t ids[] = {1, 23, 24, 25, 27, 30, 36};
    std::string        bytes;
    while (!in.empty() && bytes.size() < 4096) {
        std::string    record(wlcctl::record_size, '\0');
        const uint32_t id = ids[in.below(std::size(ids))];
        memcpy(record.data(), &id, sizeof(id));
        const std::string_view payload = in.bytes(in.below(513));
        record.replace(8, payload.size(), payload);
        bytes += record;
    }
    return bytes;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input                  in(bytes, size);
    const bool                  are_whole = (in.byte() & 1) != 0;
    const std::string           read      = are_whole ? whole_records(in) : std::string(in.rest());
    const std::vector<uint8_t>  copy(read.begin(), read.end());
    std::vector<wlcctl::record> records;
    const size_t                dropped = wlcctl::split_records(copy.data(), copy.size(), records);
    MUST(records.size() * wlcctl::record_size + dropped == copy.size());
    for (size_t i = 0; i < records.size(); ++i)
        MUST(memcmp(records[i].data(), copy.data() + i * wlcctl::record_size, wlcctl::record_size) == 0);
    if (are_whole) MUST(dropped == 0);
    for (const wlcctl::record &record : records) check(record);

    const std::string    text(read.substr(0, 600));
    const wlcctl::record sent = wlcctl::encode_text(28, text);
    MUST(sent[wlcctl::record_size - 1] == 0);
    (void)wlcctl::encode_debug(text, text);
    return 0;
}
