// Records the open(2), mkdir(2) and fsync(2) calls a function makes. The
// test program that links support/io_faults.cpp defines these three itself
// and forwards them to the kernel; while recording is on, each call is noted
// with its arguments and result. Nothing is allocated while recording, so
// allocation counts stay exact.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace qx_test {

struct fs_call {
    std::string function; // "open", "mkdir" or "fsync"
    std::string path;     // empty for fsync
    int flags;            // open only
    mode_t mode;          // open with O_CREAT, and mkdir
    int fd;               // the descriptor open gave or fsync was given
};

void start_recording_fs_calls();
void stop_recording_fs_calls();
// The calls recorded since the last start (at most the first 64).
std::vector<fs_call> recorded_fs_calls();

// Records while it lives.
class fs_call_recording {
  public:
    fs_call_recording() { start_recording_fs_calls(); }
    ~fs_call_recording() { stop_recording_fs_calls(); }
    fs_call_recording(const fs_call_recording &) = delete;
    fs_call_recording &operator=(const fs_call_recording &) = delete;
};

} // namespace qx_test
