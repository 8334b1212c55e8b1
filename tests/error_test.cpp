#include <gtest/gtest.h>
#include "qxcommon-util/error.h"
TEST(Placeholder, Builds) { EXPECT_STREQ(qx_strerror(0), "success"); }
