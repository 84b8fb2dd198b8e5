#include "follower.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace wlcctl {

namespace {

constexpr uint64_t old_part    = 256 * 1024;  // bytes of an old file that are read at the beginning
constexpr size_t   most_a_look = 8 * 1024 *
                               1024;  // bytes: a file that grows faster than it is read must not hold the loop

}  // namespace

log_follower::log_follower(const std::string &path, taker each)
    : path_(path), each_(std::move(each)), parser_([this](const log_entry &entry) { each_(entry, is_old_); }) {}

// The file lies where anybody may put one: only a plain file of root or of our own user is the daemon's.
bool log_follower::open_file() {
    unique_fd   next(open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat facts;
    if (!next || fstat(next.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return false;
    if (facts.st_uid != 0 && facts.st_uid != geteuid()) return false;
    if (fd_ && facts.st_ino == inode_) return true;
    fd_     = std::move(next);
    inode_  = facts.st_ino;
    offset_ = 0;
    parser_.reset();
    return true;
}

void log_follower::read_past(const position &from) {
    is_old_ = true;
    if (open_file()) {
        struct stat facts;
        fstat(fd_.get(), &facts);
        auto size = static_cast<uint64_t>(facts.st_size);
        if (from.inode == inode_ && from.offset <= size) offset_ = from.offset;
        else if (size > old_part) offset_ = size - old_part;
        read_rest();
    }
    is_old_ = false;
}

void log_follower::watch(loop &owner) {
    watch_ = std::make_unique<file_watch>(owner, path_, [this] { look(); });
    look();
}

// What is left of a file that was moved away is read before the one that took its place.
void log_follower::look() {
    if (fd_) read_rest();
    struct stat facts;
    bool        is_there = lstat(path_.c_str(), &facts) == 0;
    if (is_there && (!fd_ || facts.st_ino != inode_) && open_file()) read_rest();
}

void log_follower::read_rest() {
    struct stat facts;
    if (fstat(fd_.get(), &facts) != 0) return;
    if (static_cast<uint64_t>(facts.st_size) < offset_) {  // cut
        offset_ = 0;
        parser_.reset();
    }
    char    bytes[16384];
    ssize_t count;
    size_t  taken = 0;
    while (taken < most_a_look && (count = pread(fd_.get(), bytes, sizeof bytes, static_cast<off_t>(offset_))) > 0) {
        offset_ += static_cast<uint64_t>(count);
        taken += static_cast<size_t>(count);
        parser_.take({bytes, static_cast<size_t>(count)});
    }
    parser_.flush();
}

}  // namespace wlcctl
