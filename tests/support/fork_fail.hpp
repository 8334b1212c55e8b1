// Makes fork(2) report a failure. The test program defines fork and forwards
// it to the C library; while armed, the next call creates no process and
// returns -1 with errno set to EAGAIN, as a fork over the process limit does.
#pragma once

namespace qx_test {

void fail_next_fork();
// Whether the armed failure has been delivered (and so disarmed).
bool fork_failure_delivered();

} // namespace qx_test
