// A file written under a temporary name beside its target and then put in
// its place with one rename, so that the target is always either the old or
// the complete new file, whatever happens in between.
#pragma once

#include <cstddef>
#include <cstdio>

namespace qx::detail {

class replacement_file {
  public:
    replacement_file() noexcept = default;
    replacement_file(const replacement_file &) = delete;
    replacement_file &operator=(const replacement_file &) = delete;
    // A file still open here was not committed: it is discarded.
    ~replacement_file() { discard(); }

    // Removes whatever entry stands at temp_name (a planted link or FIFO is
    // never followed or opened) and creates a new file there, mode 0666 less
    // the umask, with a stream on it that uses the caller's buffer. The name
    // must stay valid until commit or discard. nullptr with errno on failure.
    std::FILE *create(const char *temp_name, char *stream_buffer, std::size_t buffer_size) noexcept;

    // Flushes the stream, syncs the file to disk and closes it; false (and
    // the temporary file removed) when any of that fails. Then renames it
    // over target. Only when that rename fails does it remove target and
    // rename again; the results of that fallback are not reported, and when
    // its rename fails too the new content stays under the temporary name.
    bool commit(const char *target) noexcept;

    // Closes and removes the temporary file; nothing when none is open.
    void discard() noexcept;

  private:
    std::FILE *stream_ = nullptr;
    const char *temp_name_ = nullptr;
};

// Flushes and closes a stream that was written to; false when a write, the
// flush or the close failed (the stream is closed either way).
bool close_written_stream(std::FILE *stream) noexcept;

} // namespace qx::detail
