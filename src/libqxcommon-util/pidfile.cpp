// PID files and the single-instance check.
#include "qxcommon-util/pidfile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/basename.hpp"
#include "internal/guards.hpp"

namespace qx::detail {

namespace {

// write_pidfile reads at most this many bytes of a recorded PID.
constexpr int recorded_pid_limit = 21;
constexpr mode_t pidfile_mode = 0644;
// What fopen's "wb" gives the single-instance PID file.
constexpr mode_t instance_pidfile_mode = 0666;

// Blocks of the single-instance check.
constexpr std::size_t link_path_size = 256;
constexpr std::size_t pid_text_limit = 250;
constexpr std::size_t exe_path_size = 1024;
constexpr std::size_t content_size = 1024;
constexpr std::size_t content_read_limit = 256;
constexpr std::size_t pid_path_size = 256;
constexpr std::size_t pid_path_slack = 128;

constexpr const char *own_exe_unknown = "cannot check the program ID";
// Deliberate: "Another Instance Running" differs in capitals from the logged text.
// The capitals differ from the logged text on purpose: callers compare the
// stored text.
constexpr const char *other_instance_text = "Another Instance Running";
constexpr const char *pid_write_failed_text = "unable to open file for pid write";

// Deliberate: out of memory prints "Indexer done" and exits with status 1; callers watch for it.
// The single-instance functions serve a long-running service that treats
// memory exhaustion as the end of its work; callers watch for this exact
// line and exit status.
[[noreturn]] void out_of_memory(const char *message) noexcept {
    ::syslog(LOG_ERR, "%s", message);
    std::fputs("Indexer done\n", stdout);
    std::exit(1);
}

void *zeroed_block_or_die(std::size_t size, const char *message) noexcept {
    void *block = std::calloc(1, size);
    if (block == nullptr)
        out_of_memory(message);
    return block;
}

// A recorded PID that names no process (0 or beyond what a PID can be) is
// stale; kill(2) is never asked about process groups or all processes.
bool names_live_process(const char *text) noexcept {
    const unsigned long value = std::strtoul(text, nullptr, 10);
    if (value == 0 || value > static_cast<unsigned long>(INT_MAX))
        return false;
    return ::kill(static_cast<pid_t>(value), 0) == 0;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

void strip_trailing_line_ends(char *text) noexcept {
    std::size_t length = std::strlen(text);
    while (length > 0 && (text[length - 1] == '\r' || text[length - 1] == '\n'))
        text[--length] = '\0';
}

// Appends as much of piece as fits in front of the block's last byte, which
// stays the terminating NUL of the zeroed block.
void append_bounded(char *block, std::size_t size, std::size_t &used,
                    std::string_view piece) noexcept {
    const std::size_t room = size - 1 - used;
    const std::size_t count = piece.size() < room ? piece.size() : room;
    std::memcpy(block + used, piece.data(), count);
    used += count;
}

// "/proc/<pid_text>/exe" in the zeroed link block, the PID text bounded to
// 250 bytes. An overlong text is cut; no such link exists either way.
void compose_link_path(char *block, const char *pid_text) noexcept {
    std::size_t used = 0;
    append_bounded(block, link_path_size, used, "/proc/");
    append_bounded(block, link_path_size, used,
                   std::string_view(pid_text, ::strnlen(pid_text, pid_text_limit)));
    append_bounded(block, link_path_size, used, "/exe");
}

// Opens a PID file for the given access. A PID path is only ever a regular
// file: a symbolic link there is refused (ELOOP) rather than followed, and a
// FIFO, device or directory is refused (EINVAL) instead of being waited on
// or written to. O_NONBLOCK keeps the open of a FIFO from blocking; it
// changes nothing for a regular file.
int open_pid_file(const char *path, int flags, mode_t mode) noexcept {
    fd_guard fd(::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    if (!fd)
        return -1;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return fd.release();
}

bool refused_pid_path(int error) noexcept {
    return error == ELOOP || error == EINVAL;
}

// Writes a PID text into a PID file just opened, with one write as
// creatwriteclose makes it, and closes it. A PID that is not completely on
// disk is no PID: on failure the file is removed again, and errno tells why
// (ENOSPC for a short write, which sets none).
int write_pid_text(int descriptor, const char *path, const char *text) noexcept {
    fd_guard fd(descriptor);
    const std::size_t length = std::strlen(text);
    const ssize_t written = ::write(fd.get(), text, length);
    bool complete = written == static_cast<ssize_t>(length);
    if (!complete && written >= 0)
        errno = ENOSPC;
    if (complete && ::close(fd.release()) != 0)
        complete = false;
    if (!complete) {
        errno_keeper keep;
        fd.reset();
        ::unlink(path);
        return -1;
    }
    return static_cast<int>(length);
}

// Reads the recorded PID of write_pidfile: at most 21 bytes with one read.
// -1 when the path is refused; 0 with `recorded` filled when it was read;
// 1 when there is nothing to read (no file, or a read that failed).
int read_recorded_pid(const char *path, char (&recorded)[recorded_pid_limit + 1]) noexcept {
    fd_guard fd(open_pid_file(path, O_RDONLY, 0));
    if (!fd)
        return refused_pid_path(errno) ? -1 : 1;
    const ssize_t count = ::read(fd.get(), recorded, recorded_pid_limit);
    if (count < 0)
        return 1;
    recorded[count] = '\0';
    return 0;
}

enum class pid_file_read { text, no_name, no_dir, not_opened, empty };

// Deliberate: look_for_pid opens the PID file with a plain fopen, links followed.
// How the PID file is opened for reading: look_for_pid opens it as it always
// has; the single-instance check refuses links and anything but a regular
// file (the write that follows refuses them too).
enum class pid_file_open { plain, regular_only };

std::FILE *open_pid_file_for_reading(const char *path, pid_file_open how) noexcept {
    if (how == pid_file_open::plain)
        return std::fopen(path, "rb");
    fd_guard fd(open_pid_file(path, O_RDONLY, 0));
    if (!fd)
        return nullptr;
    std::FILE *file = ::fdopen(fd.get(), "rb");
    if (file != nullptr)
        fd.release();
    return file;
}

// The body of look_for_pid without its release of the caller's variable:
// on `empty` the new block is stored in *content and is the caller's.
pid_file_read read_pid_file(char **content, const char *name, const char *dir,
                            pid_file_open how) noexcept {
    if (name == nullptr)
        return pid_file_read::no_name;
    if (dir == nullptr) {
        ::syslog(LOG_INFO, "pid file path cannot be null");
        return pid_file_read::no_dir;
    }
    const std::size_t name_length = std::strlen(name);
    const std::size_t dir_length = std::strlen(dir);
    // The directory is not limited: a long one gets a block that holds it.
    std::size_t size = name_length + pid_path_slack;
    if (dir_length + name_length + sizeof ".pid" > size)
        size = dir_length + name_length + sizeof ".pid";
    unique_malloc<char> path(static_cast<char *>(
        zeroed_block_or_die(size, "unable to allocate memory.. filepath(is_alreardy_running)")));
    std::memcpy(path.get(), dir, dir_length);
    std::memcpy(path.get() + dir_length, name, name_length);
    std::memcpy(path.get() + dir_length + name_length, ".pid", sizeof ".pid");

    std::FILE *file = open_pid_file_for_reading(path.get(), how);
    path.reset();
    if (file == nullptr)
        return pid_file_read::not_opened;
    char *block = static_cast<char *>(
        zeroed_block_or_die(content_size, "unable to allocate memory buf(main)"));
    *content = block;
    const std::size_t count = std::fread(block, 1, content_read_limit, file);
    std::fclose(file);
    if (count == 0)
        return pid_file_read::empty;
    strip_trailing_line_ends(block);
    return pid_file_read::text;
}

// Whether the PID file names another live process of the same program.
bool other_instance_recorded(const char *recorded, std::string_view own_name,
                             const char *own_pid) noexcept {
    char *other_exe = nullptr;
    // A process that is gone, or whose link cannot be read, leaves the
    // name empty, which matches no program.
    get_process_name(recorded, &other_exe);
    unique_malloc<char> other_owner(other_exe);
    return equal_ignoring_case(posix_basename(other_exe), own_name) &&
           std::strcmp(recorded, own_pid) != 0;
}

// "<dir><own name>.pid" in a 256-byte block. The copies are the C library's
// bounds-checked ones: a path that does not fit ends the process as a
// detected buffer overflow.
char *compose_instance_pid_path(const char *dir, const char *own_name) noexcept {
    char *path = static_cast<char *>(
        zeroed_block_or_die(pid_path_size, "unable to open allocate memory filepath(main)"));
    __builtin___strcpy_chk(path, dir, pid_path_size);
    __builtin___strcat_chk(path, own_name, pid_path_size);
    __builtin___strcat_chk(path, ".pid", pid_path_size);
    return path;
}

int report(int result, const char *text, const char **errmsg) noexcept {
    if (errmsg != nullptr)
        *errmsg = text;
    return result;
}

int write_instance_pid(const char *dir, const char *own_name, const char **errmsg) noexcept {
    if (dir == nullptr) {
        ::syslog(LOG_ERR, "unable to open file %s for pid write", "(null)");
        return report(-2, pid_write_failed_text, errmsg);
    }
    unique_malloc<char> path(compose_instance_pid_path(dir, own_name));
    char pid[recorded_pid_limit];
    std::snprintf(pid, sizeof pid, "%d", static_cast<int>(::getpid()));
    // A file that cannot be opened safely and a PID that cannot be written
    // completely are the same failure to the caller.
    const int fd = open_pid_file(path.get(), O_WRONLY | O_CREAT | O_TRUNC, instance_pidfile_mode);
    if (fd < 0 || write_pid_text(fd, path.get(), pid) < 0) {
        ::syslog(LOG_ERR, "unable to open file %s for pid write", path.get());
        return report(-2, pid_write_failed_text, errmsg);
    }
    return 0;
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API int write_pidfile(const char *path) {
    char recorded[recorded_pid_limit + 1] = {};
    const int read = read_recorded_pid(path, recorded);
    if (read < 0)
        return -1;
    if (read == 0) {
        if (names_live_process(recorded)) {
            errno = EEXIST;
            return -1;
        }
        if (::unlink(path) != 0)
            return -1;
    }
    char line[recorded_pid_limit];
    std::snprintf(line, sizeof line, "%d\n", static_cast<int>(::getpid()));
    // Read-write, created, truncated: as creatwriteclose opens it.
    const int fd = open_pid_file(path, O_RDWR | O_CREAT | O_TRUNC, pidfile_mode);
    if (fd < 0)
        return -1;
    return write_pid_text(fd, path, line);
}

QX_API int get_process_name(const char *pid_text, char **exe_path) {
    if (pid_text == nullptr) {
        ::syslog(LOG_INFO, "Unexpected Error. Procinfo is emtpy");
        return -1;
    }
    constexpr const char *no_memory = "unable to open allocate memory buf(get_process_name)";
    unique_malloc<char> link(static_cast<char *>(zeroed_block_or_die(link_path_size, no_memory)));
    compose_link_path(link.get(), pid_text);
    // Up to 1024 bytes of the link are kept. The block has one zero byte
    // more, so that even a text of all 1024 bytes ends in a NUL.
    char *block = static_cast<char *>(zeroed_block_or_die(exe_path_size + 1, no_memory));
    *exe_path = block;
    const ssize_t count = ::readlink(link.get(), block, exe_path_size);
    return count > 0 ? 0 : -1;
}

QX_API int look_for_pid(char **content, const char *name, const char *dir) {
    const pid_file_read outcome = read_pid_file(content, name, dir, pid_file_open::plain);
    if (outcome == pid_file_read::empty) {
        // Deliberate: an empty file frees the caller's pointer variable, not the block.
        // The caller's pointer variable is released, not the block it now
        // points to. Callers that read empty files hand in a heap slot and
        // take the block from it beforehand.
        std::free(content);
        return -1;
    }
    return outcome == pid_file_read::text ? 0 : -1;
}

QX_API int check_for_instance(const char *dir, const char **errmsg) {
    char own_pid[recorded_pid_limit];
    std::snprintf(own_pid, sizeof own_pid, "%d", static_cast<int>(::getpid()));
    char *own_exe = nullptr;
    const int found = get_process_name(own_pid, &own_exe);
    unique_malloc<char> own_exe_owner(own_exe);
    if (found != 0 || own_exe == nullptr) {
        ::syslog(LOG_ERR, "%s", own_exe_unknown);
        return report(1, own_exe_unknown, errmsg);
    }
    // A NUL-terminated copy of the own base name (it fits: the link text
    // is shorter than its block).
    char own_name[exe_path_size] = {};
    const std::string_view own_base = posix_basename(own_exe);
    std::memcpy(own_name, own_base.data(), own_base.size());

    char *recorded = nullptr;
    const pid_file_read outcome =
        read_pid_file(&recorded, own_name, dir, pid_file_open::regular_only);
    unique_malloc<char> recorded_owner(recorded);
    if (outcome == pid_file_read::text && recorded[0] != '\0' &&
        other_instance_recorded(recorded, own_base, own_pid)) {
        ::syslog(LOG_ERR, "Another instance running");
        return report(-1, other_instance_text, errmsg);
    }
    recorded_owner.reset();
    own_exe_owner.reset();
    return write_instance_pid(dir, own_name, errmsg);
}

} // extern "C"
