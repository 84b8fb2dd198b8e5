// The daemon's log as the controller reads it: the same entries however the text is cut, and what follows from them
// has a code of the table and printable words.
// Input: lines that the daemon has, with any arguments, and any bytes between them; behind a zero, how they are cut.
#include <algorithm>
#include <vector>

#include "diagnosis.h"
#include "logtext.h"
#include "reasons.h"

#include "input.h"
#include "log_lines.h"

using namespace wlcctl;

namespace {

constexpr size_t longest = 3500;  // bytes: shorter than an entry may be

std::string argument(char conversion, fuzz_input &in) {
    constexpr const char *texts[] = {"10.1.2.3",
                                     "0",
                                     "127.0.0.1:443",
                                     "tlsv1 alert unknown psk identity",
                                     "bad record mac",
                                     "TUN",
                                     "No space left on device",
                                     "certificate",
                                     "",
                                     "x"};
    if (conversion != 's') return in.chance(200) ? std::to_string(in.byte()) : std::string(in.bytes(in.below(24)));
    return in.chance(200) ? texts[in.below(std::size(texts))] : std::string(in.bytes(in.below(40)));
}

// The line's words with arguments in place.
std::string words_of(const char *format, fuzz_input &in) {
    std::string text;
    for (const char *at = format; *at; ++at) {
        if (*at != '%') {
            text += *at;
            continue;
        }
        at += 1 + strspn(at + 1, "0123456789.-lhz");
        if (*at == '\0') break;
        text += *at == '%' ? "%" : argument(*at, in);
    }
    return text;
}

std::string log_text(fuzz_input &in) {
    std::string text;
    unsigned    number = 0;
    while (!in.empty() && text.size() < longest) {
        const uint8_t choice = in.byte();
        if (choice == 0) break;
        if (choice < 24) {
            text += std::string(in.bytes(in.below(60)));
            continue;
        }
        const known_log_line &line = known_log_lines[in.word() % std::size(known_log_lines)];
        ++number;
        text += "\nTLSC[" + std::to_string(number) + "]: 2026-01-31_09_30_" + std::to_string(10 + number % 50) + " " +
                line.severity + " [" + line.file + ":1] [" + line.operations + "] " + words_of(line.format, in);
    }
    text.resize(std::min(text.size(), longest));
    return text;
}

std::vector<log_entry> entries_of(const std::vector<std::string_view> &pieces) {
    std::vector<log_entry> entries;
    log_parser             parser([&](const log_entry &entry) { entries.push_back(entry); });
    for (const std::string_view piece : pieces) parser.take(piece);
    parser.flush();
    return entries;
}

bool are_same(const log_entry &a, const log_entry &b) {
    return a.number == b.number && a.wall == b.wall && a.level == b.level && a.place == b.place &&
           a.function == b.function && a.text == b.text;
}

bool is_printable(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= ' ' && c != 0x7f; });
}

void check(const diagnosis &is) {
    MUST(is.why.code.empty() || find_reason(is.why.code));
    MUST(phase_name(is.step) != nullptr);
    for (const std::string &text : {is.why.detail, is.gateway, is.interface, is.cipher, is.management_ip, is.inner_ip})
        MUST(is_printable(text));
    for (const std::string &line : is.why.lines) MUST(is_printable(line));
    MUST(is.back_off >= 0 && is.retry_seconds >= 0);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    fuzz_input        in(bytes, size);
    const std::string text = log_text(in);

    std::vector<std::string_view> pieces;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t length = in.empty() ? rest.size() : std::min<size_t>(1 + in.byte(), rest.size());
        pieces.push_back(rest.substr(0, length));
        rest.remove_prefix(length);
    }
    const std::vector<log_entry> entries = entries_of({text}), again = entries_of(pieces);
    MUST(entries.size() == again.size());
    for (size_t i = 0; i < entries.size(); ++i) MUST(are_same(entries[i], again[i]));

    diagnosis is;
    moment    now{1000, 1769852000000};
    for (const log_entry &entry : entries) {
        MUST(level_rank(entry.level) >= 0);
        is.on_log(entry, now);
        check(is);
        now.mono += 1;
        now.wall += 1000;
        is.tick(now);
        check(is);
    }
    return 0;
}
