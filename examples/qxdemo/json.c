/* JSON: a service inventory walked with a pattern, one line per combination
 * of service and listening port, with details looked up by name. */
#include <stdio.h>

#include <qxcommon-util/jproc.h>
#include <qxcommon-util/json_lookup.h>

#include "demo.h"

enum { SITE, NAME, PORT, OWNER, LIMITS };

static void print_step(jproc *walk) {
    /* The lookups search below the value at any depth; a missing owner
     * (slot left NULL) gives no contact. */
    json_value *owner = jproc_get_json(walk, OWNER);
    const char *contact = owner != NULL ? json_get_string_by_name(owner, "contact") : NULL;

    printf("  %s/%s", jproc_get_string(walk, SITE), jproc_get_string(walk, NAME));
    if (jproc_is_integer(walk, PORT))
        printf(" port %ld", jproc_get_integer(walk, PORT));
    else
        printf(" no port");
    printf(" contact %s\n", contact != NULL ? contact : "(none)");
}

int demo_json(void) {
    jproc *walk = jproc_prepare("{'site': ?, 'services': [{'name': ?, 'listen': [?], 'owner': ?}],"
                                " 'limits': ?}");
    int steps = 0;
    int workers = 0;
    int connections = 0;

    if (walk == NULL)
        return 1;
    if (jproc_open_file(walk, demo_sample("services.json")) != 0) {
        jproc_free(walk);
        return 1;
    }
    while (jproc_step(walk) == 1) {
        if (steps++ == 0) {
            json_value *limits = jproc_get_json(walk, LIMITS);
            if (json_get_int_by_name(limits, "workers", &workers) != 0 ||
                json_get_int_by_name(limits, "connections", &connections) != 0)
                break;
        }
        print_step(walk);
    }
    printf("(%d steps over %d slots; limits: %d workers, %d connections)\n", steps,
           jproc_arguments(walk), workers, connections);
    jproc_free(walk);
    return steps == 6 && workers == 16 ? 0 : 1;
}
