// A small file system of its own for a test: a child process enters a
// private mount namespace, mounts a tmpfs of the given size on a fresh
// directory and runs the test body there. Nothing of it is visible outside
// the child, and it goes away with it. Needs the right to make a mount
// namespace (root); where that is refused the body does not run.
#pragma once

#include <functional>
#include <string>

namespace qx_test {

// The body's result: 0 when everything held, another number naming the first
// check that failed.
struct scratch_outcome {
    bool ran = false;    // false: no namespace or mount could be made
    int result = -1;     // the body's result when it ran
    std::string details; // what the body reported on failure
};

// Runs body(mount_point, report) in a child process with a tmpfs of
// `size_bytes` bytes mounted at mount_point. The body writes what it wants
// the test to see into `report`.
scratch_outcome
run_on_scratch_fs(std::size_t size_bytes,
                  const std::function<int(const std::string &, std::string &)> &body);

// Fills the file system that holds `directory` with a file named `name`
// until a write fails; returns the bytes written. The free space left is
// then below one page.
std::size_t fill_file_system(const std::string &directory, const std::string &name = "filler");

} // namespace qx_test
