#include "support/temp_dir.hpp"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ftw.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace qx_test {

namespace {

int remove_entry(const char *path, const struct stat *, int, struct FTW *) {
    std::remove(path);
    return 0;
}

} // namespace

temp_dir::temp_dir() {
    const char *base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/qxcommon-util-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

temp_dir::~temp_dir() {
    // Depth first, without following links, so that nothing outside the
    // directory is ever touched. Directories are made writable first.
    nftw(
        path_.c_str(),
        [](const char *path, const struct stat *st, int type, struct FTW *) {
            if (type == FTW_D)
                chmod(path, st->st_mode | S_IRWXU);
            return 0;
        },
        16, FTW_PHYS);
    nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string temp_dir::file(const std::string &name) const {
    return path_ + "/" + name;
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot read " + path);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

bool file_exists(const std::string &path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

} // namespace qx_test
