// The process title: the argument area rewritten with a caller's text.
#include "qxcommon-util/proctitle.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

#include "internal/basename.hpp"

namespace qx::detail {

namespace {

constexpr std::size_t title_buffer_size = 2048;

// Process-wide, constant-initialised: no constructor runs at load time.
char *program_name = nullptr;
// Non-NULL once the title area is ready.
char **saved_argv = nullptr;
char *area_start = nullptr;
// Bytes from the first argument string to the end of the area's last
// string, that string's final NUL not counted.
std::size_t area_length = 0;

char *duplicate(std::string_view text) noexcept {
    char *copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

std::size_t count_entries(char *const *vector) noexcept {
    std::size_t count = 0;
    while (vector[count] != nullptr)
        ++count;
    return count;
}

void free_entries(char **vector, std::size_t count) noexcept {
    for (std::size_t i = 0; i < count; ++i)
        std::free(vector[i]);
}

// A heap copy of the environment vector and its strings, or NULL when an
// allocation fails (nothing is then left allocated).
char **copy_environment(char *const *old_environment) noexcept {
    const std::size_t count = old_environment == nullptr ? 0 : count_entries(old_environment);
    char **copy = static_cast<char **>(std::malloc((count + 1) * sizeof(char *)));
    if (copy == nullptr)
        return nullptr;
    for (std::size_t i = 0; i < count; ++i) {
        copy[i] = ::strdup(old_environment[i]);
        if (copy[i] == nullptr) {
            free_entries(copy, i);
            std::free(copy);
            return nullptr;
        }
    }
    copy[count] = nullptr;
    return copy;
}

// The last string of the area: the environment's last string, or the last
// argument when the environment is empty.
const char *last_area_string(int argc, char **argv, char *const *old_environment) noexcept {
    if (old_environment != nullptr && old_environment[0] != nullptr)
        return old_environment[count_entries(old_environment) - 1];
    return argv[argc - 1];
}

} // namespace

} // namespace qx::detail

using namespace qx::detail;

extern "C" {

QX_API void initproctitle(int argc, char **argv) {
    // Without a first argument there is no area to measure.
    if (argv == nullptr || argc < 1 || argv[0] == nullptr)
        return;
    char *const *old_environment = environ;
    const auto start = reinterpret_cast<std::uintptr_t>(argv[0]);
    auto end = start + area_length;
    // A second call copies the environment again (the first copy is left
    // behind); the area, measured on the original strings, stays as it was.
    if (saved_argv == nullptr || area_start != argv[0]) {
        const char *last = last_area_string(argc, argv, old_environment);
        end = reinterpret_cast<std::uintptr_t>(last) + std::strlen(last);
    }
    // Strings that do not lie behind the first argument are not the
    // program's own argument area.
    if (end < start)
        return;

    char *name = duplicate(posix_basename(argv[0]));
    if (name == nullptr)
        return;
    char **new_environment = copy_environment(old_environment);
    if (new_environment == nullptr) {
        std::free(name);
        return;
    }
    environ = new_environment;
    program_name = name;
    saved_argv = argv;
    area_start = argv[0];
    area_length = end - start;
}

QX_API void proctitle(const char *format, ...) {
    if (saved_argv == nullptr)
        return;
    char work[title_buffer_size];
    int prefix = std::snprintf(work, sizeof work, "%s: ", program_name);
    if (prefix < 0)
        prefix = 0;
    std::size_t used = static_cast<std::size_t>(prefix);
    if (used > sizeof work - 1)
        used = sizeof work - 1;
    int text = 0;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        text = std::vsnprintf(work + used, sizeof work - used, format, args);
        va_end(args);
    }
    std::size_t title = static_cast<std::size_t>(prefix) + (text > 0 ? text : 0);
    // At least two bytes shorter than the area, and never more than the
    // work buffer holds.
    const std::size_t room = area_length >= 2 ? area_length - 2 : 0;
    if (title > room)
        title = room;
    if (title > sizeof work - 1)
        title = sizeof work - 1;
    work[title] = '\0';
    std::memset(area_start, 0, area_length);
    std::memcpy(area_start, work, title + 1);
    saved_argv[1] = nullptr;
}

QX_API void release_proctitle(void) {
    std::free(program_name);
    // Only an environment that initproctitle moved is the library's to free.
    if (saved_argv == nullptr || environ == nullptr)
        return;
    free_entries(environ, count_entries(environ));
    std::free(environ);
}

} // extern "C"
