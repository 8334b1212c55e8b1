/* Key=value configuration files through the C header. */
#include <stddef.h>
#include <string.h>

#include <qxcommon-util/config.h>

int check_config(void) {
    qx_config_reader *reader = qx_config_reader_new();
    int failed = 0;

    failed |= configfile_load("/nonexistent/qxcommon-util.conf") != NULL;
    free_config(NULL);
    if (reader == NULL)
        return 1;
    failed |= qx_config_reader_read_config(reader, NULL) != -1;
    failed |= qx_config_reader_read_config(reader, "/nonexistent/qxcommon-util.conf") != -3;
    failed |= qx_config_reader_get_property(reader, NULL) != NULL;
    failed |= qx_config_reader_get_bool_property(reader, NULL) != -1;
    failed |= qx_config_reader_get_bool_property(reader, "missing") != -2;
    failed |= reader->properties->owns_strings != 1;
    qx_config_reader_delete(reader);
    return failed;
}
