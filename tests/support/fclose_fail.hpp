// Makes fclose(3) report a failure: while armed, the next call still closes
// the stream (nothing leaks) but returns EOF with errno set to EIO, as a
// close that fails on a network file system would. Defined with the other
// I/O faults in support/io_faults.cpp, which the test program links.
#pragma once

namespace qx_test {

void fail_next_fclose();
// Whether the armed failure has been delivered (and so disarmed).
bool fclose_failure_delivered();

} // namespace qx_test
