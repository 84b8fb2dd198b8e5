// A program's own log, on spdlog, and foreign text made fit to be shown. Called on any thread.
#pragma once

#include <string>
#include <string_view>

namespace common {

// Sets the default logger. name: of the program; destination: a path, or "-" for standard error; level: a word of
// spdlog
// ("trace" to "off"). Lines carry the local time with its zone. Throws std::runtime_error, naming what could not be
// opened.
void open_log(const std::string &name, const std::string &destination, const std::string &level);

// Opens the log file again after somebody moved it away; nothing to do for standard error. A file that cannot be opened
// is told in the old one, which stays in use. Returns whether the new one is in use.
bool reopen_log();

// Logs a failure that ends here. Never throws.
void log_failure(const char *where, const char *what) noexcept;

// Runs work; what it throws is logged and ends here, so that it may be called from C.
template <class F>
void guarded(const char *where, const F &work) noexcept {
    try {
        work();
    } catch (const std::exception &error) {
        log_failure(where, error.what());
    } catch (...) {
        log_failure(where, "an unknown failure");
    }
}

// The text with every control character and every byte that is no UTF-8 as "\xNN", so that a terminal only shows it.
// limit: bytes of the text that are used; "..." says that there were more.
std::string printable(std::string_view text, size_t limit = 4096);

// "cannot WHAT PATH: " and the text of errno as it stands.
std::string failure_text(const char *what, const std::string &path);

}  // namespace common
