#include "runtime_log.h"

#include <HalideRuntime.h>
#include <dlfcn.h>

#include <mutex>
#include <sstream>

namespace fmtest {

namespace {

std::mutex log_mutex;

// Installed before any test runs.
const bool handler_installed = (halide_set_error_handler([](void *, const char *message) {
                                    std::lock_guard<std::mutex> lock(log_mutex);
                                    runtime_log().last_message = message;
                                }),
                                true);

template <typename... Args>
std::string format_call(const char *name, Args... args) {
    std::ostringstream out;
    const char *sep = "";
    ((out << sep << args, sep = ", "), ...);
    return std::string(name) + "(" + out.str() + ")";
}

}  // namespace

RuntimeLog &runtime_log() {
    static RuntimeLog log;
    return log;
}

void clear_runtime_log() {
    std::lock_guard<std::mutex> lock(log_mutex);
    runtime_log() = RuntimeLog{};
}

void log_runtime_call(const std::string &call) {
    std::lock_guard<std::mutex> lock(log_mutex);
    runtime_log().calls.push_back(call);
}

}  // namespace fmtest

// Each interposer logs its call and forwards to the library's definition.
#define FMTEST_INTERPOSE(name, params, ...)                                          \
    extern "C" int name params {                                                     \
        (void)handler_installed;                                                     \
        fmtest::log_runtime_call(fmtest::format_call(#name, ##__VA_ARGS__));         \
        using Fn = int(*) params;                                                    \
        static const Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, #name));        \
        return real(user_context, ##__VA_ARGS__);                                    \
    }

using fmtest::handler_installed;

FMTEST_INTERPOSE(halide_error_buffer_argument_is_null, (void *user_context, const char *name), name)
FMTEST_INTERPOSE(halide_error_bad_type, (void *user_context, const char *label, uint32_t given, uint32_t wanted),
                 label, given, wanted)
FMTEST_INTERPOSE(halide_error_access_out_of_bounds,
                 (void *user_context, const char *label, int dim, int min, int max, int actual_min, int actual_max),
                 label, dim, min, max, actual_min, actual_max)
FMTEST_INTERPOSE(halide_error_buffer_extents_negative, (void *user_context, const char *label, int dim, int extent),
                 label, dim, extent)
FMTEST_INTERPOSE(halide_error_constraint_violated,
                 (void *user_context, const char *var, int value, const char *constraint, int limit), var, value,
                 constraint, limit)
FMTEST_INTERPOSE(halide_error_buffer_allocation_too_large,
                 (void *user_context, const char *name, uint64_t size, uint64_t limit), name, size, limit)
FMTEST_INTERPOSE(halide_error_host_is_null, (void *user_context, const char *label), label)
FMTEST_INTERPOSE(halide_error_out_of_memory, (void *user_context))
