/* RFC 3339 dates through the C header. */
#define _POSIX_C_SOURCE 200809L

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <qxcommon-util/rfc3339.h>

int check_rfc3339(void) {
    char buf[32];
    char *old_tz = getenv("TZ") != NULL ? strdup(getenv("TZ")) : NULL;
    int failed = 0;

    setenv("TZ", "UTC0", 1);
    tzset();
    failed |= rfc3339_date((time_t)0, buf, sizeof buf) != 20;
    failed |= strcmp(buf, "1970-01-01T00:00:00Z") != 0;
    if (old_tz != NULL)
        setenv("TZ", old_tz, 1);
    else
        unsetenv("TZ");
    tzset();
    free(old_tz);
    return failed;
}
