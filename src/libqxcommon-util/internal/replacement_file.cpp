// The temporary file of a rewrite: created without following anything that
// stands at its name, checked at every step, synced and renamed into place.
#include "internal/replacement_file.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "internal/guards.hpp"

namespace qx::detail {

namespace {

// A file system that cannot sync a regular file says so with EINVAL; the
// data is then as safe as that file system makes it, which is no failure of
// ours.
bool sync_to_disk(int fd) noexcept {
    return ::fsync(fd) == 0 || errno == EINVAL;
}

} // namespace

std::FILE *replacement_file::create(const char *temp_name, char *stream_buffer,
                                    std::size_t buffer_size) noexcept {
    discard();
    // Whatever stands at the name goes first: a link planted there must not
    // lead the write elsewhere, and a FIFO must not block it. O_EXCL and
    // O_NOFOLLOW then refuse anything planted again in between.
    ::unlink(temp_name);
    fd_guard fd(::open(temp_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd)
        return nullptr;
    std::FILE *stream = ::fdopen(fd.get(), "w");
    if (stream == nullptr) {
        errno_keeper keep;
        fd.reset();
        ::unlink(temp_name);
        return nullptr;
    }
    fd.release(); // the stream owns it now
    std::setvbuf(stream, stream_buffer, _IOFBF, buffer_size);
    stream_ = stream;
    temp_name_ = temp_name;
    return stream;
}

bool replacement_file::commit(const char *target) noexcept {
    std::FILE *stream = std::exchange(stream_, nullptr);
    if (stream == nullptr)
        return false;
    bool complete = std::fflush(stream) == 0 && std::ferror(stream) == 0;
    if (complete)
        complete = sync_to_disk(::fileno(stream));
    if (std::fclose(stream) != 0)
        complete = false;
    if (!complete) {
        errno_keeper keep;
        ::unlink(temp_name_);
        return false;
    }
    // One step: a reader or a crash sees the old file or the new one. Only
    // an entry that rename cannot replace (an empty directory, say) is
    // removed first; should the second rename fail as well, the new content
    // is kept under the temporary name rather than thrown away.
    if (std::rename(temp_name_, target) != 0) {
        std::remove(target);
        std::rename(temp_name_, target);
    }
    return true;
}

void replacement_file::discard() noexcept {
    std::FILE *stream = std::exchange(stream_, nullptr);
    if (stream == nullptr)
        return;
    errno_keeper keep;
    std::fclose(stream);
    ::unlink(temp_name_);
}

bool close_written_stream(std::FILE *stream) noexcept {
    bool complete = std::fflush(stream) == 0 && std::ferror(stream) == 0;
    if (std::fclose(stream) != 0)
        complete = false;
    return complete;
}

} // namespace qx::detail
