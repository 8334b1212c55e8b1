/* The string arrays through the C header. */
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/array.h>

static const qx_flag_entry flags_table[] = {{"read", 1, 1}, {"write", 2, 2}, {NULL, 0, 0}};

static int check_building(void) {
    char **array = qx_array_new(0);
    char *joined;
    int failed = 0;

    if (array == NULL)
        return 1;
    failed |= qx_array_append(array, "", -1) != -1;
    failed |= qx_array_append_resize(&array, "one", -1) != 0;
    failed |= qx_array_append_resize_printf(&array, "%s-%d", "two", 2) != 0;
    failed |= qx_array_append_resize_unique(&array, "one", -1) != -1;
    failed |= qx_array_count(array) != 2 || strcmp(array[1], "two-2") != 0;
    failed |= qx_array_size(array) != 4 * sizeof(char *) + 4 + 6;
    joined = qx_array_to_string(array, "+");
    failed |= joined == NULL || strcmp(joined, "one+two-2") != 0;
    free(joined);
    free(array);
    return failed;
}

static int check_vectors(void) {
    char **fields = qx_string_to_array("a,,b,", ",");
    char **merged;
    char **flat;
    size_t size = 0;
    int failed = 0;

    if (fields == NULL)
        return 1;
    failed |= qx_array_count(fields) != 3 || fields[1][0] != '\0';
    merged = array_merge(fields, fields, (char **)NULL);
    failed |= merged == NULL || merged[3] != fields[0] || merged[6] != NULL;
    free(merged);
    flat = qx_array_flatten_raw(fields, -1, &size);
    failed |= flat == NULL || size != 4 * sizeof(char *) + 2 + 1 + 2;
    failed |= flat != NULL && (size_t)flat[0] != 4 * sizeof(char *);
    free(flat);
    free(fields);
    return failed;
}

static int check_flags(void) {
    char **names = flag2array(3, flags_table);
    const char *err = NULL;
    int failed = 0;

    if (names == NULL)
        return 1;
    failed |= array2flag(names, flags_table, &err) != 3 || err != NULL;
    free(names);
    names = qx_string_to_array("READ,exec", ",");
    failed |= names == NULL || array2flag(names, flags_table, &err) != 0xFFFFFFFFu;
    failed |= err == NULL || strcmp(err, "unknown flag") != 0;
    free(names);
    return failed;
}

int check_array(void) {
    return check_building() | check_vectors() | check_flags();
}
