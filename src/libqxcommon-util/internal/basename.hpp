// The POSIX base name of a path, as a view into the path: the last
// component without trailing slashes, "/" for a path of slashes only and "."
// for an empty path. Unlike basename(3) it never writes into the path.
#pragma once

#include <cstring>
#include <string_view>

namespace qx::detail {

inline std::string_view posix_basename(const char *path) noexcept {
    if (path == nullptr || *path == '\0')
        return ".";
    std::string_view rest(path, std::strlen(path));
    while (rest.size() > 1 && rest.back() == '/')
        rest.remove_suffix(1);
    if (rest == "/")
        return rest;
    const std::size_t slash = rest.rfind('/');
    if (slash != std::string_view::npos)
        rest.remove_prefix(slash + 1);
    return rest;
}

} // namespace qx::detail
