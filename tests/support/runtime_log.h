// Records the runtime calls the pipelines make, as a host sees them. Linking
// runtime_log.cpp into a test binary interposes the halide_error_ functions the
// library calls by name: each call is logged with its arguments, then passed
// on to the library's own runtime, whose status it returns. The error handler
// is replaced so that no failure aborts the process; it keeps the message.
#pragma once

#include <string>
#include <vector>

namespace fmtest {

struct RuntimeLog {
    std::vector<std::string> calls;  // e.g. "halide_error_host_is_null(Output buffer dilate)"
    std::string last_message;        // what the runtime's error function composed
};

RuntimeLog &runtime_log();
void clear_runtime_log();
// Adds a line to the log (used by tests' own malloc, free and do_par_for hooks).
void log_runtime_call(const std::string &call);

}  // namespace fmtest
