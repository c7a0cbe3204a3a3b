// Runs every parallel loop of every pipeline under Threading Building Blocks.
// Loading the library registers tbb_do_par_for as the hook behind
// halide_do_par_for; the runtime's own thread pool then stays idle.
#include <HalideRuntime.h>
#include <tbb/parallel_for.h>

#include <atomic>

extern "C" {

// One row task per row, through halide_do_task so that a host's own do_task
// hook still applies. A failing row never stops the others; the status keeps
// the last non-zero result stored. The store is relaxed: any non-zero value is
// a valid answer, and the loop's end orders it before the read.
__attribute__((visibility("hidden"))) int tbb_do_par_for(void *user_context, halide_task_t task, int min, int size,
                                                         uint8_t *closure) {
    std::atomic<int> status{0};
    const int end = static_cast<int>(static_cast<unsigned>(min) + static_cast<unsigned>(size));
    if (!(min < end) || size < 1) return 0;  // empty or wrapping range: TBB is not entered
    tbb::parallel_for(min, end, [&](int row) {
        const int result = halide_do_task(user_context, task, row, closure);
        if (result != 0) status.store(result, std::memory_order_relaxed);
    });
    return status.load(std::memory_order_relaxed);
}

__attribute__((visibility("hidden"), constructor)) void overRideWithTBB() {
    halide_set_custom_do_par_for(tbb_do_par_for);
}

}  // extern "C"
