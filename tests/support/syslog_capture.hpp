// Captures what the library sends to syslog. The test program defines the
// syslog functions itself, so the library's calls land here instead of in
// the system log.
#pragma once

#include <string>
#include <vector>

namespace qx_test {

struct syslog_entry {
    int priority;
    std::string message;
};

// Every message logged since the last clear, oldest first.
std::vector<syslog_entry> syslog_entries();
void syslog_clear();

} // namespace qx_test
