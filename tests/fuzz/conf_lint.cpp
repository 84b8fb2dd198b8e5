// What the controller says of a configuration file, and how it reads one: whatever the file holds, each finding has its
// code, its line and printable words, and none shows the key.
// Input: a choice, then the file as conf_text.h says, or any bytes.
#include <algorithm>

#include "conf.h"
#include "lint.h"

#include "conf_text.h"

using namespace wlcctl;

namespace {

bool is_printable(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= ' ' && c != 0x7f; });
}

void check(const finding &each, int lines) {
    MUST(!each.code.empty() &&
         each.code.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") == std::string::npos);
    MUST(each.line >= 0 && each.line <= lines);
    MUST(!each.text.empty());
    for (const std::string &text : {each.text, each.effect, each.fix}) {
        MUST(is_printable(text));
        MUST(!shows(text, secret));
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    if (knows_secret(bytes, size, secret)) return 0;
    fuzz_input        in(bytes, size);
    const bool        is_made = in.chance(192);
    const std::string content = is_made ? conf_text(in) : std::string(in.rest());
    const int         lines   = 1 + static_cast<int>(std::count(content.begin(), content.end(), '\n'));

    const std::vector<finding> findings = lint_content(content, false);
    for (const finding &each : findings) check(each, lines);

    size_t skipped = 0;
    for (const conf_entry &entry : parse_conf(content, skipped)) {
        MUST(!entry.key.empty() && entry.key.find_first_of(";\n") == std::string::npos);
        MUST(entry.value.find_first_of(";\n") == std::string::npos);
    }
    MUST(skipped <= static_cast<size_t>(lines) + content.size() / 511);

    for (const conf_key &key : conf_keys) {
        std::string       warning;
        const std::string error = check_conf_value(key, content, warning);
        if (strcmp(key.name, "psk_key") == 0) MUST(!shows(error, secret) && !shows(warning, secret));
    }
    return 0;
}
