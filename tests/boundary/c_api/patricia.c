/* The patricia trie through its C header. */
#include <string.h>

#include <qxcommon-util/patricia.h>

struct seen {
    char keys[4][8];
    int count;
};

static int remember(const char *key, void *arg) {
    struct seen *s = (struct seen *)arg;
    if (s->count >= 4 || strlen(key) >= sizeof s->keys[0])
        return -1;
    strcpy(s->keys[s->count++], key);
    return 1;
}

int check_patricia(void) {
    patricia tree = {NULL};
    struct seen s;
    int failed = 0;

    memset(&s, 0, sizeof s);
    failed |= patricia_insert(&tree, "ab") != 2 || patricia_insert(&tree, "ab") != 1;
    failed |= patricia_insert(&tree, "a") != 2 || patricia_insert(&tree, "b") != 2;
    failed |= patricia_contains(&tree, "a") != 1 || patricia_contains(&tree, "c") != 0;
    failed |= ((uintptr_t)tree.root & 1u) != 1u;
    failed |= patricia_allprefixed(&tree, "a", remember, &s) != 1 || s.count != 2;
    failed |= strcmp(s.keys[0], "a") != 0 || strcmp(s.keys[1], "ab") != 0;
    failed |= patricia_delete(&tree, "ab") != 1 || patricia_delete(&tree, "ab") != 0;
    patricia_clear(&tree);
    failed |= tree.root != NULL;
    return failed;
}
