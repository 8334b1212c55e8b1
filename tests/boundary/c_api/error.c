/* Error texts and the debug level through the C header. */
#include <string.h>

#include <qxcommon-util/error.h>

int check_error(void) {
    char buf[8];
    if (strcmp(qx_strerror(QX_OK), "success") != 0)
        return 1;
    if (qx_strerror_r(QX_ERR_INVALID_VALUE, buf, sizeof buf) != 13 || strcmp(buf, "invalid") != 0)
        return 1;
    qx_errno = QX_ERR_MISSING_VALUE;
    if (strcmp(qx_strerror(qx_errno), "missing value") != 0)
        return 1;
    qx_errno = 0;
    qx_debug_set(3);
    if (qx_debug_get() != 3)
        return 1;
    qx_debug_set(0);
    qx_debug(1, "%s", "not printed at level 0\n");
    return 0;
}
