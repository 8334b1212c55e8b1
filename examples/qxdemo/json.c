/* JSON: a service inventory walked with a pattern, one line per combination
 * of service and listening port. */
#include <stdio.h>

#include <qxcommon-util/jproc.h>

#include "demo.h"

int demo_json(void) {
    jproc *walk = jproc_prepare("{'site': ?, 'services': [{'name': ?, 'listen': [?]}]}");
    int steps = 0;

    if (walk == NULL)
        return 1;
    if (jproc_open_file(walk, demo_sample("services.json")) != 0) {
        jproc_free(walk);
        return 1;
    }
    while (jproc_step(walk) == 1) {
        const char *site = jproc_get_string(walk, 0);
        const char *name = jproc_get_string(walk, 1);
        if (jproc_is_integer(walk, 2))
            printf("  %s/%s listens on port %ld\n", site, name, jproc_get_integer(walk, 2));
        else
            printf("  %s/%s listens on no port\n", site, name);
        ++steps;
    }
    printf("(%d steps over %d slots)\n", steps, jproc_arguments(walk));
    jproc_free(walk);
    return steps == 6 ? 0 : 1;
}
