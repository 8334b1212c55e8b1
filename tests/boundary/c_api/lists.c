/* The linked list, the stack and the string containers through the C
 * headers. */
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/containers.h>
#include <qxcommon-util/llist.h>
#include <qxcommon-util/splitter.h>
#include <qxcommon-util/stack.h>
#include <qxcommon-util/string_utils.h>

struct entry {
    llist_node link;
    int value;
};

static int by_value(const void *a, const void *b, void *arg) {
    const struct entry *ea = *(struct entry *const *)a;
    const struct entry *eb = *(struct entry *const *)b;
    (void)arg;
    return (ea->value > eb->value) - (ea->value < eb->value);
}

static int by_text(const void *a, const void *b, void *arg) {
    (void)arg;
    return strcmp(*(char *const *)a, *(char *const *)b);
}

static int check_llist(void) {
    struct entry e[3] = {{{NULL, NULL}, 3}, {{NULL, NULL}, 1}, {{NULL, NULL}, 2}};
    llist *list = llist_create();
    llist_node *node;
    int expected = 1;
    int failed = 0;
    int i;

    if (list == NULL)
        return 1;
    for (i = 0; i < 3; ++i)
        llist_append(list, &e[i].link);
    llist_sort(list, by_value, NULL);
    for (node = llist_getfirst(list); node != NULL; node = llist_getnext(list, node))
        failed |= ((struct entry *)node)->value != expected++;
    failed |= llist_nodecount(list) != 3 || llist_get_at(list, 3) != NULL;
    failed |= llist_remove(list, &e[0].link) != NULL || list->count != 2;
    llist_delete_all(list, NULL);
    return failed;
}

static int check_stack(void) {
    qx_stack stack = {0, 0, NULL, NULL};
    char b[] = "b", a[] = "a";
    int failed = 0;

    failed |= qx_stack_push(&stack, b) != b || qx_stack_push(&stack, a) != a;
    failed |= stack.capacity != 10 || stack.items[2] != NULL;
    qx_stack_sort(&stack, by_text, NULL);
    failed |= stack.items[0] != a || qx_stack_find_string(&stack, "b") != b;
    failed |= qx_stack_pop(&stack) != b || stack.count != 1;
    qx_stack_free(&stack);
    failed |= stack.items != NULL || stack.capacity != 0;
    return failed;
}

static int check_string_utils(void) {
    char text[] = "  a b \t\n";
    char *copy = qx_string_utils_get_copy("x");
    int failed = copy == NULL || strcmp(copy, "x") != 0;

    free(copy);
    qx_string_utils_trim(text);
    failed |= strcmp(text, "a b") != 0;
    failed |= qx_string_utils_has_value(NULL) != 0 || qx_string_utils_is_empty("") != 1;
    failed |= qx_string_utils_is_equal("A", "a") != 0;
    return failed;
}

static int check_containers(void) {
    qx_properties *properties = qx_properties_new_ext(1);
    qx_string_splitter *splitter = qx_string_splitter_new();
    int failed = 0;

    if (properties == NULL || splitter == NULL) {
        qx_properties_delete(properties);
        qx_string_splitter_delete(splitter);
        return 1;
    }
    qx_properties_append(properties, qx_string_utils_get_copy("a"), qx_string_utils_get_copy("1"));
    qx_properties_append(properties, qx_string_utils_get_copy("a"), qx_string_utils_get_copy("2"));
    failed |= strcmp(qx_properties_find_value(properties, "a"), "1") != 0;
    failed |= qx_properties_find_index(properties, "b") != 0xFFFFFFFFu;
    failed |= qx_properties_get_name_at(properties, 2) != NULL;
    qx_properties_remove_at(properties, 0);
    failed |= strcmp(qx_properties_find_value(properties, "a"), "2") != 0;
    qx_properties_delete(properties);

    failed |= qx_string_splitter_split(splitter, "key==value", "=") != 0;
    failed |= qx_string_splitter_get_count(splitter) != 3;
    failed |= strcmp(qx_string_splitter_get_at(splitter, 1), "") != 0;
    failed |= qx_string_splitter_get_at(splitter, 3) != NULL;
    qx_string_splitter_delete(splitter);
    return failed;
}

int check_lists(void) {
    return check_llist() | check_stack() | check_string_utils() | check_containers();
}
