/* The string buffer: a template from the samples filled in, a formatted log
 * line, and the library's error texts. */
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <qxcommon-util/error.h>
#include <qxcommon-util/strbuf.h>
#include <qxcommon-util/strbuf_format.h>

#include "demo.h"

static int read_sample(strbuf *sb, const char *name) {
    char chunk[512];
    size_t n;
    FILE *in = fopen(demo_sample(name), "r");
    if (in == NULL) {
        perror(demo_sample(name));
        return -1;
    }
    while ((n = fread(chunk, 1, sizeof chunk, in)) > 0) {
        if (strbuf_nappend(sb, chunk, n) != 0) {
            fclose(in);
            return -1;
        }
    }
    fclose(in);
    return 0;
}

int demo_strings(void) {
    strbuf motd = {0};
    strbuf line = {0};
    int replaced;
    int code;

    if (read_sample(&motd, "motd.template") != 0)
        return 1;
    replaced = strbuf_substitute(&motd, "$", "host", "gateway-01", "service", "mail relay", "admin",
                                 "ops@example.org", (char *)NULL);
    if (replaced < 0) {
        strbuf_free(&motd);
        return 1;
    }
    strbuf_chomp(&motd);
    printf("%s\n(%d placeholders replaced, %zu bytes)\n", motd.text, replaced, strbuf_len(&motd));

    strbuf_appendf_gmtime(&line, "%Y-%m-%dT%H:%M:%SZ", (time_t)0);
    strbuf_appendf(&line, " pid=%d ", 4242);
    strbuf_prependf(&line, "[%s] ", "qxdemo");
    strbuf_append(&line, "started");
    printf("%s\n", line.text);

    for (code = QX_OK; code <= QX_ERR_SQL_EXEC + 1; ++code) {
        if (code == QX_ERR_SYSTEM)
            continue;
        printf("  error %2d: %s\n", code, qx_strerror(code));
    }

    strbuf_wipefree(&line);
    strbuf_free(&motd);
    return 0;
}
