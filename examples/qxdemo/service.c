/* A service's start: make sure no other instance runs, run a command with a
 * time limit, and turn what it printed into text fit for a log line. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/dirtree.h>
#include <qxcommon-util/escape.h>
#include <qxcommon-util/forkandexec.h>
#include <qxcommon-util/pidfile.h>
#include <qxcommon-util/strbuf.h>

#include "demo.h"

static int single_instance(const char *run_dir) {
    const char *why = NULL;
    int status = check_for_instance(run_dir, &why);
    if (status != 0) {
        printf("refusing to start: %s\n", why != NULL ? why : "(no reason)");
        return 1;
    }
    printf("no other instance: this process's PID file is written\n");
    /* A second check finds the file naming this very process and goes on. */
    status = check_for_instance(run_dir, &why);
    printf("checking again while running: %s\n", status == 0 ? "still the only one" : why);
    return status == 0 ? 0 : 1;
}

static int run_job(void) {
    static char shell[] = "/bin/sh";
    static char flag[] = "-c";
    static char script[] = "printf 'job <done> & \"ok\"\\n'; echo 'disk 91% full' >&2; exit 3";
    char *argv[] = {shell, flag, script, NULL};
    strbuf out = {0};
    strbuf err = {0};
    strbuf line = {0};
    int status = forkandexec_ex_with_to(argv, 10, &out, &err);

    printf("job exit status: %d\n", status);
    strbuf_chomp(&out);
    strbuf_chomp(&err);
    /* For an XML status report the output is escaped; for a JSON-style log
     * line the error text is quoted. */
    if (strbuf_append_xmlencoded(&line, out.text != NULL ? out.text : "") == 0)
        printf("stdout as XML text: %s\n", line.text != NULL ? line.text : "");
    if (err.text != NULL && strbuf_quote(&err, NULL) == 0)
        printf("log line: {\"job\":\"report\",\"status\":%d,\"stderr\":\"%s\"}\n", status,
               err.text);
    strbuf_free(&line);
    strbuf_free(&out);
    strbuf_free(&err);
    return status == 3 ? 0 : 1;
}

int demo_service(void) {
    char top[] = "/tmp/qxdemo-run-XXXXXX";
    char run_dir[64];
    int failures;

    if (mkdtemp(top) == NULL) {
        perror("mkdtemp");
        return 1;
    }
    snprintf(run_dir, sizeof run_dir, "%s/", top);
    failures = single_instance(run_dir);
    failures += run_job();
    if (qx_rrmdir(top) != 0) {
        perror(top);
        ++failures;
    }
    return failures == 0 ? 0 : 1;
}
