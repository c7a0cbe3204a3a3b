// The runtime calls the pipelines make, as a host sees them: linked into a test
// program, runtime_log.cpp interposes the halide_error_ functions the library
// calls by name, logs each call with its arguments and passes it on to the
// library's own runtime. Its error handler keeps the message instead of aborting.
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
void log_runtime_call(const std::string &call);  // also for tests' own allocator hooks

}  // namespace fmtest
