/* The operating system's name and version from /etc/os-release, and a
 * sample release file read into a record of the program's own. */
#include <stdio.h>
#include <string.h>

#include <qxcommon-util/os_info.h>

#include "demo.h"

int demo_osinfo(void) {
    const char *name = osrelease("NAME");
    const char *version = osrelease("VERSION_ID");
    os_info *sample;
    int failed = 0;

    /* What this machine says varies; print it on one line, "unknown" when
     * the file or the key is missing. */
    printf("running on: %s%s%s\n", *name != '\0' ? name : "unknown", *version != '\0' ? " " : "",
           version);

    sample = os_info_create(demo_sample("os-release"));
    if (sample == NULL)
        return 1;
    if (openosrelease_v2(sample) != 0) {
        perror(demo_sample("os-release"));
        os_info_delete(sample);
        return 1;
    }
    printf("sample: %s, version %s (id %s)\n", osrelease_v2(sample, "name"),
           osrelease_v2(sample, "version_id"), osrelease_v2(sample, "ID"));
    failed |= strcmp(osrelease_v2(sample, "ID"), "qxlinux") != 0;
    os_info_delete(sample);
    return failed;
}
