#include "timing.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double seconds_of(int calls, const Call &call) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < calls; i++) call();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Timing summary(std::vector<double> per_call_ms) {
    std::sort(per_call_ms.begin(), per_call_ms.end());
    const size_t n = per_call_ms.size();
    const double median = n % 2 ? per_call_ms[n / 2] : (per_call_ms[n / 2 - 1] + per_call_ms[n / 2]) / 2;
    return {median, per_call_ms.front(), static_cast<int>(n)};
}

}  // namespace

std::vector<Timing> measure_side_by_side(const std::vector<Call> &calls, const TimingPolicy &policy) {
    std::vector<int> repeats;
    double round_s = 0;
    for (const Call &call : calls) {
        const double warm_up_s = seconds_of(1, call);
        round_s += warm_up_s;
        repeats.push_back(std::max(1, static_cast<int>(std::ceil(policy.min_sample_s / std::max(warm_up_s, 1e-9)))));
    }
    const int min_rounds = round_s > policy.long_round_s ? policy.min_long_samples : policy.min_samples;
    std::vector<std::vector<double>> per_call_ms(calls.size());
    const double budget_s = policy.budget_s * calls.size();
    double spent_s = 0;
    for (int round = 0; round < min_rounds || (spent_s < budget_s && round < policy.max_samples); round++)
        for (size_t i = 0; i < calls.size(); i++) {
            const double s = seconds_of(repeats[i], calls[i]);
            spent_s += s;
            per_call_ms[i].push_back(s * 1e3 / repeats[i]);
        }
    std::vector<Timing> timings;
    for (std::vector<double> &samples : per_call_ms) timings.push_back(summary(std::move(samples)));
    return timings;
}

}  // namespace bench
