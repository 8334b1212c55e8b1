// Makes fclose(3) report a failure. The test program defines fclose and
// forwards it to the C library; while armed, the next call still closes the
// stream (nothing leaks) but returns EOF with errno set to EIO, as a close
// that fails on a network file system would.
#pragma once

namespace qx_test {

void fail_next_fclose();
// Whether the armed failure has been delivered (and so disarmed).
bool fclose_failure_delivered();

} // namespace qx_test
