// An owned file descriptor: closed when its owner goes away, unless handed on with release().
// Every early return of code that opens a file or a socket then closes it.
#pragma once

#include <unistd.h>

#include <utility>

class ScopedFd {
  public:
    explicit ScopedFd(int fd) : m_fd(fd) {}
    ~ScopedFd() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return m_fd; }
    int release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd;
};
