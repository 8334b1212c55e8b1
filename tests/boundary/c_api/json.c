/* The JSON step processor through the C header. */
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/jproc.h>

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
    return failed;
}
