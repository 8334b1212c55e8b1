// Shared pieces of the object containers. The exported append functions
// report nothing; the splitter and the file reader need to know whether an
// item was kept, so that nothing leaks.
#pragma once

#include <cstdlib>

#include "qxcommon-util/containers.h"

namespace qx::detail {

// Every container object is one zero-filled record.
template <typename T> T *allocate_record() noexcept {
    return static_cast<T *>(std::calloc(1, sizeof(T)));
}

// False when the node cannot be allocated; data is then not appended.
bool slist_try_append(qx_slist *list, void *data) noexcept;

// False when the entry or its node cannot be allocated; nothing is then
// appended and nothing is left allocated (the strings are not touched).
bool smap_try_append(qx_smap *map, char *key, char *value) noexcept;

} // namespace qx::detail
