/* Key=value settings: a service reads its configuration file, looks up a
 * few names and interprets yes/no switches. */
#include <stdio.h>

#include <qxcommon-util/config.h>

#include "demo.h"

static const char *yes_no_text(int answer) {
    switch (answer) {
    case 1:
        return "on";
    case 0:
        return "off";
    case -2:
        return "not set (default off)";
    default:
        return "unrecognised (default off)";
    }
}

int demo_config(void) {
    const char *path = demo_sample("relay.conf");
    qx_config_reader *settings;
    configfile_line *lines;
    configfile_line *line;
    int count = 0;
    int result;

    lines = configfile_load(path);
    for (line = lines; line != NULL; line = line->next)
        ++count;
    free_config(lines);

    settings = qx_config_reader_new();
    if (settings == NULL)
        return 1;
    result = qx_config_reader_read_config(settings, path);
    if (result != 0) {
        fprintf(stderr, "%s: cannot read settings (%d)\n", path, result);
        qx_config_reader_delete(settings);
        return 1;
    }
    printf("%d non-empty lines, %u settings in relay.conf\n", count,
           (unsigned)qx_properties_get_count(settings->properties));
    printf("service %s on port %s, queue in %s\n",
           qx_config_reader_get_property(settings, "service"),
           qx_config_reader_get_property(settings, "listen_port"),
           qx_config_reader_get_property(settings, "queue_dir"));
    printf("verbose: %s, tls: %s, debug: %s\n",
           yes_no_text(qx_config_reader_get_bool_property(settings, "verbose")),
           yes_no_text(qx_config_reader_get_bool_property(settings, "tls")),
           yes_no_text(qx_config_reader_get_bool_property(settings, "debug")));
    qx_config_reader_delete(settings);
    return 0;
}
