// Makes the start of a child process fail. The test program defines clone
// and forwards it to the C library; while armed, the next call creates no
// process and returns -1 with errno set to EAGAIN, as a start over the
// process limit does.
#pragma once

namespace qx_test {

void fail_next_child_start();
// Whether the armed failure has been delivered (and so disarmed).
bool child_start_failure_delivered();

} // namespace qx_test
