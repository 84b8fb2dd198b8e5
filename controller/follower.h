// Follows the daemon's log file through growth, rotation, truncation and deletion. Called on the loop's thread.
#pragma once

#include "logtext.h"

#include "common/file_watch.h"
#include "common/unique_fd.h"

#include <functional>
#include <memory>
#include <string>

namespace wlcctl {

class log_follower {
public:
    // Where somebody has read up to. A file is known by its inode.
    struct position {
        uint64_t inode  = 0;
        uint64_t offset = 0;
    };

    // is_old: the entry stood there before the follower began.
    using taker = std::function<void(const log_entry &entry, bool is_old)>;

    log_follower(const std::string &path, taker each);

    // Takes what is there: from the position if the file is still the same one, else the last part of the file, at most
    // 256 KB.
    void read_past(const position &from);

    // Looks now, and at every change. Without a loop only when look() is called.
    void watch(loop &owner);
    void look();

    position at() const { return {inode_, offset_}; }
    bool     is_open() const { return static_cast<bool>(fd_); }

private:
    bool open_file();
    void read_rest();

    std::string                 path_;
    taker                       each_;
    log_parser                  parser_;
    std::unique_ptr<file_watch> watch_;
    unique_fd                   fd_;
    uint64_t                    inode_  = 0;
    uint64_t                    offset_ = 0;
    bool                        is_old_ = false;
};

}  // namespace wlcctl
