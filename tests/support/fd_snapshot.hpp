// The set of descriptors open in the test process, to prove that a call
// closes everything it opened.
#pragma once

#include <set>

namespace qx_test {

std::set<int> open_descriptors();

// Compares the open descriptors at construction with those at unchanged().
class fd_snapshot {
  public:
    fd_snapshot() : before_(open_descriptors()) {}
    bool unchanged() const { return open_descriptors() == before_; }
    const std::set<int> &before() const { return before_; }

  private:
    std::set<int> before_;
};

} // namespace qx_test
