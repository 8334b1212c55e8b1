// The test side of running a child program: an argument vector that owns
// its words, and reading a pipe to its end.
#pragma once

#include <cerrno>
#include <cstddef>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace qx_test {

// An argument vector for a child program: by default the scripted helper
// qx_child (see tests/helpers/qx_child.c), followed by its actions.
class child_command {
  public:
    explicit child_command(std::vector<std::string> actions, std::string program = QX_TEST_CHILD) {
        words_.push_back(std::move(program));
        for (auto &action : actions)
            words_.push_back(std::move(action));
        for (auto &word : words_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }
    child_command(const child_command &) = delete;
    child_command &operator=(const child_command &) = delete;

    // Null-terminated, as execv wants it; valid while the object lives.
    char **argv() { return pointers_.data(); }
    const std::string &program() const { return words_[0]; }

  private:
    std::vector<std::string> words_;
    std::vector<char *> pointers_;
};

// Everything that can be read from fd until end-of-file (or an error other
// than an interruption).
inline std::string read_all(int fd) {
    std::string all;
    char piece[4096];
    for (;;) {
        const ssize_t n = read(fd, piece, sizeof piece);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return all;
        all.append(piece, static_cast<std::size_t>(n));
    }
}

} // namespace qx_test
