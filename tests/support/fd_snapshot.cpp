#include "support/fd_snapshot.hpp"

#include <cstdlib>
#include <dirent.h>

namespace qx_test {

std::set<int> open_descriptors() {
    std::set<int> fds;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return fds;
    const int own = dirfd(dir);
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        const int fd = std::atoi(entry->d_name);
        if (fd != own)
            fds.insert(fd);
    }
    closedir(dir);
    return fds;
}

} // namespace qx_test
