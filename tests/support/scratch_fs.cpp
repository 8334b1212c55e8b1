#include "support/scratch_fs.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/temp_dir.hpp"

namespace qx_test {

namespace {

constexpr int not_permitted = 200;
constexpr std::size_t report_room = 4096;

void send_all(int fd, const std::string &text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = ::write(fd, text.data() + sent, text.size() - sent);
        if (n <= 0)
            return;
        sent += static_cast<std::size_t>(n);
    }
}

} // namespace

scratch_outcome
run_on_scratch_fs(std::size_t size_bytes,
                  const std::function<int(const std::string &, std::string &)> &body) {
    scratch_outcome outcome;
    temp_dir mount_point;
    int channel[2];
    if (::pipe(channel) != 0)
        return outcome;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(channel[0]);
        if (::unshare(CLONE_NEWNS) != 0 ||
            // The kernel ignores source and type for a change of
            // propagation; they are named so that no checker sees NULL.
            ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0)
            ::_exit(not_permitted);
        const std::string options = "size=" + std::to_string(size_bytes);
        if (::mount("tmpfs", mount_point.path().c_str(), "tmpfs", 0, options.c_str()) != 0)
            ::_exit(not_permitted);
        std::string report;
        const int result = body(mount_point.path(), report);
        send_all(channel[1], report.substr(0, report_room));
        ::_exit(result);
    }
    ::close(channel[1]);
    char buffer[report_room];
    ssize_t n;
    while ((n = ::read(channel[0], buffer, sizeof buffer)) > 0)
        outcome.details.append(buffer, static_cast<std::size_t>(n));
    ::close(channel[0]);
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child)
        return outcome;
    if (WIFEXITED(status) && WEXITSTATUS(status) == not_permitted)
        return outcome;
    outcome.ran = true;
    outcome.result = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    return outcome;
}

std::size_t fill_file_system(const std::string &directory, const std::string &name) {
    const std::string path = directory + "/" + name;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
        return 0;
    char block[512];
    std::memset(block, 'f', sizeof block);
    std::size_t total = 0;
    for (;;) {
        const ssize_t n = ::write(fd, block, sizeof block);
        if (n <= 0)
            break;
        total += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return total;
}

} // namespace qx_test
