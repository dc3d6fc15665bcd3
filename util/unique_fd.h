// A file or socket descriptor that is closed on every way out of its scope.
#pragma once

#include <unistd.h>

namespace plc {

class UniqueFd {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) ::close(fd_);
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }

private:
    int fd_;
};

} // namespace plc
