// The log of the Windows programs: a text file "host.log" with a time stamp on each line, one rotation to "host.log.1"
// at 10 MiB, and an echo to the console where asked for. Any thread may log; before log_open and after log_close lines
// go nowhere but to the echo. In the machine scope a log that can't be kept safe fails the store.
#ifndef HOST_SERVICE_LOG_H
#define HOST_SERVICE_LOG_H

#include <string>

namespace host_service {

// Opens the log in directory, or in "\TarnGlider" under the user's local application data. console turns the echo on.
void log_open(bool console, const std::wstring &directory);
void log_open(bool console);
void log_close();

// One line, formatted as by printf and cut at 2047 bytes. On the console hlog's lines are stamped, hsay's are not.
[[gnu::format(printf, 1, 2)]] void hlog(const char *format, ...);
[[gnu::format(printf, 1, 2)]] void hsay(const char *format, ...);

// The full path of the log; empty before log_open.
std::wstring log_file_path();

} // namespace host_service

#endif
