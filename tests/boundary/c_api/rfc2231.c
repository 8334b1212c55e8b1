/* RFC 2231 parameter values through the C header. */
#include <stdlib.h>
#include <string.h>

#include <qxcommon-util/rfc2231.h>

int check_rfc2231(void) {
    char buf[16];
    char *decoded = rfc2231_to_utf8("iso-8859-1'fr'caf%E9");
    char *encoded = rfc2231_encode("a b", NULL, 0);
    int failed = 0;

    failed |= decoded == NULL || strcmp(decoded, "caf\xC3\xA9") != 0;
    failed |= encoded == NULL || strcmp(encoded, "UTF-8''a%20b") != 0;
    failed |= rfc2231_encode("a b", buf, 8) != buf || strcmp(buf, "UTF-8''") != 0;
    free(decoded);
    free(encoded);
    return failed;
}
