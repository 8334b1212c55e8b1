/* The JSON step processor and the lookup helpers through the C headers. */
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/jproc.h>
#include <qxcommon-util/json_lookup.h>

static int check_lookup(void) {
    static const char text[] =
        "{\"db\": {\"user\": \"app\", \"port\": \"5432\"}, \"user\": \"root\"}";
    json_value *root = json_parse(text, sizeof text - 1);
    const char *user;
    int port = 0;
    int failed = 0;

    if (root == NULL)
        return 1;
    user = json_get_string_by_name_ex(root, "db", "user", (char *)NULL);
    failed |= user == NULL || strcmp(user, "app") != 0;
    failed |= json_get_value_by_name_ex(root, (char *)NULL) != root;
    failed |= json_get_int_by_name(root, "port", &port) != 0 || port != 5432;
    failed |= json_get_value_by_name(root, "absent") != NULL;
    failed |= json_get_string_by_name(root, "db") != NULL;
    json_value_free(root);
    return failed;
}

int check_json(void) {
    static const char document[] = "{\"host\": \"gw\", \"ports\": [22, 4294967297]}";
    jproc *state = jproc_prepare("{'host': ?, 'ports': [?]}");
    unsigned int count = 0;
    char **none;
    int failed = 0;

    if (state == NULL)
        return 1;
    failed |= jproc_arguments(state) != 2;
    failed |= jproc_open_mem(state, document, -1) != 0;
    failed |= jproc_step(state) != 1;
    failed |= jproc_get_string(state, 0) == NULL || strcmp(jproc_get_string(state, 0), "gw") != 0;
    failed |= jproc_get_integer(state, 1) != 22 || jproc_is_integer(state, 1) != 1;
    failed |= jproc_step(state) != 1;
    failed |= jproc_get_integer(state, 1) != 1;
    failed |= jproc_get_type(state, 0) != json_string;
    none = jproc_get_string_array(state, 0, &count);
    failed |= none != NULL || count != 0;
    failed |= jproc_step(state) != 0;
    jproc_free(state);
    return failed | check_lookup();
}
