/* The tokenizers through the C header. */
#include <string.h>

#include <qxcommon-util/tokenizer.h>

static const qx_switch_entry commands[] = {{1, "start"}, {2, "stop"}, {0, NULL}};

int check_tokenizer(void) {
    const char *scan = "k=v";
    char text[] = "'a b' \"c\\\"d\"  e";
    char *cursor = text;
    size_t len = 0;
    const char *field;
    int failed = 0;

    field = strnsep(&scan, "=", &len);
    failed |= field == NULL || len != 1 || strcmp(scan, "v") != 0;
    failed |= strcmp(qx_strsepstr(&cursor, " "), "a b") != 0;
    failed |= strcmp(qx_strsepstr(&cursor, " "), "c\"d") != 0;
    failed |= strcmp(my_strsep(&cursor, " "), "e") != 0 || cursor != NULL;
    failed |= qx_strsepstr_x(&cursor, " ", 0) != NULL;
    failed |= strswitch("stop", commands) != 2 || strswitch("Stop", commands) != 0;
    return failed;
}
