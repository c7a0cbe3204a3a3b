// Wall-clock timing of contenders side by side: one warm-up call of each,
// then rounds in which each takes one sample in turn, so that a noisy stretch
// of a shared machine falls on all of them alike. Rounds go on until every
// contender has min_samples and the budget is spent, or max_samples; rounds
// longer than long_round_s stop at min_long_samples, each sample spanning a
// long enough stretch already (so the full run stays within its time). A call
// shorter than min_sample_s is repeated within each sample, so that the clock
// resolution and loop overhead do not show.
#pragma once

#include <functional>
#include <vector>

namespace bench {

struct TimingPolicy {
    double budget_s = 0.25;  // per contender
    int min_samples = 5;
    int min_long_samples = 3;
    double long_round_s = 0.2;
    int max_samples = 41;
    double min_sample_s = 0.002;
};

struct Timing {
    double median_ms = 0;  // per call
    double best_ms = 0;    // per call
    int samples = 0;
};

using Call = std::function<void()>;
std::vector<Timing> measure_side_by_side(const std::vector<Call> &calls, const TimingPolicy &policy);

}  // namespace bench
