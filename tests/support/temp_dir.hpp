// A fresh temporary directory per test, removed with everything in it.
#pragma once

#include <string>

namespace qx_test {

class temp_dir {
  public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;

    const std::string &path() const { return path_; }
    // path() + "/" + name
    std::string file(const std::string &name) const;

  private:
    std::string path_;
};

// Whole-file helpers for setting up and checking fixtures.
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

} // namespace qx_test
