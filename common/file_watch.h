// Tells that a file may have changed: written, cut, moved, removed, made anew.
#pragma once

#include <string>

#include "loop.h"

namespace common {

// Watches the name in its directory, so that a file that takes the place of another is seen. When the directory is
// missing, or the system has no watches left, the file is looked at twice a second instead.
class file_watch {
public:
    file_watch(loop &owner, const std::string &path, task on_change);
    ~file_watch();
    file_watch(const file_watch &)            = delete;
    file_watch &operator=(const file_watch &) = delete;

private:
    struct room;
    void begin();
    void fall_back();
    void look();

    loop       &owner_;
    std::string directory_;
    std::string name_;
    task        on_change_;
    timer       look_;  // while nothing better is to be had
    room       *room_ = nullptr;
};

}  // namespace common
