// The pointer stack: a NULL-terminated vector grown ten slots at a time.
#include "qxcommon-util/stack.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace qx::detail {
namespace {

constexpr std::size_t stack_growth = 10;

// Deliberate: the stack grows by ten slots at a time, never by doubling.
// Adds ten item slots (plus the terminator's). Growth is linear on purpose.
bool grow(qx_stack *stack) noexcept {
    const std::size_t slots_max = SIZE_MAX / sizeof(void *);
    if (stack->capacity > slots_max - stack_growth - 1)
        return false;
    const std::size_t slots = stack->capacity + stack_growth + 1;
    void *vector = std::realloc(stack->items, slots * sizeof(void *));
    if (vector == nullptr)
        return false;
    stack->items = static_cast<void **>(vector);
    stack->capacity += stack_growth;
    return true;
}

int compare_strings(const void *item, const void *key) noexcept {
    return std::strcmp(static_cast<const char *>(item), static_cast<const char *>(key));
}

} // namespace
} // namespace qx::detail

extern "C" {

QX_API void *qx_stack_push(qx_stack *stack, void *item) {
    if (stack->count >= stack->capacity && !qx::detail::grow(stack))
        return nullptr;
    stack->items[stack->count] = item;
    ++stack->count;
    stack->items[stack->count] = nullptr;
    return item;
}

QX_API void *qx_stack_pop(qx_stack *stack) {
    if (stack->count == 0)
        return nullptr;
    --stack->count;
    void *item = stack->items[stack->count];
    stack->items[stack->count] = nullptr;
    return item;
}

QX_API void *qx_stack_find(const qx_stack *stack, int (*compar)(const void *, const void *),
                           const void *key) {
    for (std::size_t i = 0; i < stack->count; ++i) {
        if (compar(stack->items[i], key) == 0)
            return stack->items[i];
    }
    return nullptr;
}

QX_API void *qx_stack_find_string(const qx_stack *stack, const char *key) {
    return qx_stack_find(stack, qx::detail::compare_strings, key);
}

QX_API void qx_stack_sort(qx_stack *stack, int (*compar)(const void *, const void *, void *),
                          void *arg) {
    if (stack->count == 0)
        return;
    qsort_r(stack->items, stack->count, sizeof(void *), compar, arg);
}

QX_API int qx_stack_foreach(qx_stack *stack, int (*visitor)(void *, void *), void *arg) {
    if (stack->count == 0)
        return 0;
    for (std::size_t i = 0; i < stack->count; ++i) {
        const int result = visitor(stack->items[i], arg);
        if (result != 1)
            return result;
    }
    return 1;
}

QX_API void qx_stack_free(qx_stack *stack) {
    if (stack == nullptr || stack->capacity == 0)
        return;
    if (stack->free_item != nullptr) {
        for (std::size_t i = 0; i < stack->count; ++i)
            stack->free_item(stack->items[i]);
    }
    std::free(stack->items);
    stack->items = nullptr;
    stack->count = 0;
    stack->capacity = 0;
}

} // extern "C"
