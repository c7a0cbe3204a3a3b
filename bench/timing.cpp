#include "timing.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double seconds_of(int calls, const std::function<void()> &call) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < calls; i++) call();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

Timing measure(const std::function<void()> &call, const TimingPolicy &policy) {
    const double warm_up_s = seconds_of(1, call);
    const int calls = std::max(1, static_cast<int>(std::ceil(policy.min_sample_s / std::max(warm_up_s, 1e-9))));

    std::vector<double> per_call_ms;
    double spent_s = 0;
    while (static_cast<int>(per_call_ms.size()) < policy.min_samples ||
           (spent_s < policy.budget_s && static_cast<int>(per_call_ms.size()) < policy.max_samples)) {
        const double s = seconds_of(calls, call);
        spent_s += s;
        per_call_ms.push_back(s * 1e3 / calls);
    }
    std::sort(per_call_ms.begin(), per_call_ms.end());
    const size_t n = per_call_ms.size();
    const double median = n % 2 ? per_call_ms[n / 2] : (per_call_ms[n / 2 - 1] + per_call_ms[n / 2]) / 2;
    return {median, per_call_ms.front(), static_cast<int>(n)};
}

}  // namespace bench
