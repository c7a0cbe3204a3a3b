// Wall-clock timing of a call: one warm-up, then samples until the time
// budget is spent (within a minimum and maximum number of samples). A call
// shorter than min_sample_s is repeated within each sample, so that the clock
// resolution and loop overhead do not show.
#pragma once

#include <functional>

namespace bench {

struct TimingPolicy {
    double budget_s = 0.4;
    int min_samples = 3;
    int max_samples = 25;
    double min_sample_s = 0.002;
};

struct Timing {
    double median_ms = 0;  // per call
    double best_ms = 0;    // per call
    int samples = 0;
};

Timing measure(const std::function<void()> &call, const TimingPolicy &policy);

}  // namespace bench
