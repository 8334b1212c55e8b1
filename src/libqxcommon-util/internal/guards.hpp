// RAII helpers for the clean-up paths of the C functions.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

namespace qx::detail {

struct free_deleter {
    void operator()(void *p) const noexcept { std::free(p); }
};

// A malloc'ed block released with free(3) on scope exit.
template <typename T> using unique_malloc = std::unique_ptr<T, free_deleter>;

// Runs a callable on scope exit unless dismissed.
template <typename F> class scope_exit {
  public:
    explicit scope_exit(F f) noexcept : f_(std::move(f)) {}
    scope_exit(const scope_exit &) = delete;
    scope_exit &operator=(const scope_exit &) = delete;
    ~scope_exit() {
        if (active_)
            f_();
    }
    void dismiss() noexcept { active_ = false; }

  private:
    F f_;
    bool active_ = true;
};

// Keeps errno as it was across a block of clean-up calls.
class errno_keeper {
  public:
    errno_keeper() noexcept : saved_(errno) {}
    ~errno_keeper() { errno = saved_; }
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;

  private:
    int saved_;
};

// Owns a file descriptor and closes it on scope exit. The close keeps errno,
// so a failure reported by the function survives its clean-up.
class fd_guard {
  public:
    explicit fd_guard(int fd = -1) noexcept : fd_(fd) {}
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
    ~fd_guard() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    // Gives up ownership without closing.
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            errno_keeper keep;
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_;
};

// Owns a stdio stream and closes it on scope exit, keeping errno as
// fd_guard does. Meant for streams that are only read: the close of a
// written stream can lose data, so such a stream is released and closed
// where its result is examined.
class file_guard {
  public:
    explicit file_guard(std::FILE *stream = nullptr) noexcept : stream_(stream) {}
    file_guard(file_guard &&other) noexcept : stream_(other.release()) {}
    file_guard &operator=(file_guard &&other) noexcept {
        reset(other.release());
        return *this;
    }
    file_guard(const file_guard &) = delete;
    file_guard &operator=(const file_guard &) = delete;
    ~file_guard() { reset(); }

    std::FILE *get() const noexcept { return stream_; }
    explicit operator bool() const noexcept { return stream_ != nullptr; }
    // Gives up ownership without closing.
    std::FILE *release() noexcept { return std::exchange(stream_, nullptr); }
    void reset(std::FILE *stream = nullptr) noexcept {
        if (stream_ != nullptr) {
            errno_keeper keep;
            std::fclose(stream_);
        }
        stream_ = stream;
    }

  private:
    std::FILE *stream_;
};

} // namespace qx::detail
