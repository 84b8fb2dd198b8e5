#include "input_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log.h"
#include "unique_fd.h"

namespace common {

std::optional<std::string> read_input(const std::string &path, size_t most, std::string &why, int patience_ms) {
    unique_fd   fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat facts;
    if (!fd || fstat(fd.get(), &facts) != 0) return why = strerror(errno), std::nullopt;
    if (S_ISDIR(facts.st_mode)) return why = strerror(EISDIR), std::nullopt;

    std::string content;
    char        bytes[16384];
    for (;;) {
        pollfd state = {fd.get(), POLLIN, 0};
        if (poll(&state, 1, patience_ms) == 0) return why = "nobody writes into it", std::nullopt;
        ssize_t count = read(fd.get(), bytes, sizeof bytes);
        if (count == 0) return content;
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count < 0) return why = strerror(errno), std::nullopt;
        content.append(bytes, static_cast<size_t>(count));
        if (content.size() > most) return why = "it is too large", std::nullopt;
    }
}

}  // namespace common
