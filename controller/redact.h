// Takes out of texts what must not leave the device: keys, cookies, identities.
#pragma once

#include "base.h"

#include <string>
#include <vector>

namespace wlcctl {

class redactor {
public:
    // Hides this text wherever it stands, in each form in which it may stand; nothing shorter than three characters.
    void hide(const std::string &text);

    // Hides every value that stands behind such a mark, up to one of the characters `ends`.
    void hide_behind(const std::string &text, const std::string &mark, const char *ends);

    // Hides what lines of the daemon's log tell of cookies and identities.
    void hide_logged(const std::string &log_text);

    // Hides what the tunnel's configuration file holds.
    void hide_conf(const std::string &path);

    std::string apply(std::string text) const;

    // True when the text holds, or may hold, something to be hidden.
    bool concerns(const std::string &text) const;

private:
    std::vector<std::string> secrets_;  // longest first
};

// The value with each of its texts redacted: by the secrets known, and by the marks of the log's lines.
json redacted(const json &value, const redactor &secrets);

}  // namespace wlcctl
