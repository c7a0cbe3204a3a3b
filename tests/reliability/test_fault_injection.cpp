// Promise: reliability (failures). An allocator that refuses at random and a
// do_task hook that fails random rows without running them, with negative,
// positive and extreme statuses: every call returns a status one of its
// failures allows, writes only the output rows whose tasks ran (none when its
// first stage failed), those as the call without faults writes them, and
// frees exactly the block it allocated. Restored hooks are no longer called.
#include "support/harness.h"

#include <HalideRuntime.h>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <set>

using namespace fmtest;

namespace {

constexpr int kCalls = 3000;

struct FailedRow {
    int loop, row, status;
};

// What the hooks do during one call, and what they saw. Rows run on many
// threads, so whether a row fails is a hash of (call, loop, row), not a draw.
struct Faults {
    bool refuse_allocation = false;
    uint32_t row_failure_per_mille = 0;
    uint64_t call_seed = 0;

    std::atomic<int> loops{0};
    int mallocs = 0, frees = 0;
    std::set<void *> live;
    bool foreign_free = false;
    std::mutex rows_mutex;
    std::vector<FailedRow> failed_rows;
    std::atomic<long> hook_calls{0};

    void arm(std::mt19937 &rng) {
        static const uint32_t rates[] = {0, 20, 300, 1000};
        refuse_allocation = rng() % 4 == 0;
        row_failure_per_mille = rates[rng() % 4];
        call_seed = rng();
        loops = mallocs = frees = 0;
        failed_rows.clear();
    }
    // 0, or the status the row fails with: negative, positive and extreme.
    int row_status(int loop, int row) const {
        uint64_t h = call_seed ^ (uint64_t(uint32_t(loop)) << 32) ^ uint32_t(row);
        h = (h ^ (h >> 30)) * 0xbf58476d1ce4e5b9ULL;
        h = (h ^ (h >> 27)) * 0x94d049bb133111ebULL;
        h ^= h >> 31;
        static const int statuses[] = {-1, -7, -100, 3, INT_MIN};
        return h % 1000 < row_failure_per_mille ? statuses[(h >> 20) % 5] : 0;
    }
} faults;

halide_do_task_t library_do_task = nullptr;
halide_do_par_for_t library_do_par_for = nullptr;

void *refusing_malloc(void *, size_t size) {
    faults.hook_calls++;
    faults.mallocs++;
    if (faults.refuse_allocation) return nullptr;
    return *faults.live.insert(std::malloc(size)).first;
}

void counting_free(void *, void *p) {
    faults.hook_calls++;
    faults.frees++;
    faults.foreign_free |= !faults.live.erase(p);
    std::free(p);
}

int counting_do_par_for(void *uc, halide_task_t task, int min, int size, uint8_t *closure) {
    faults.hook_calls++;
    faults.loops++;
    return library_do_par_for(uc, task, min, size, closure);
}

int failing_do_task(void *uc, halide_task_t task, int row, uint8_t *closure) {
    faults.hook_calls++;
    const int loop = faults.loops;
    if (const int status = faults.row_status(loop, row)) {
        std::lock_guard<std::mutex> lock(faults.rows_mutex);
        faults.failed_rows.push_back({loop, row, status});
        return status;
    }
    return library_do_task(uc, task, row, closure);
}

void ignore_error(void *, const char *) {}

// Installs every hook for its lifetime and restores what was there before.
struct InjectedFaults {
    const halide_malloc_t malloc_ = halide_set_custom_malloc(refusing_malloc);
    const halide_free_t free_ = halide_set_custom_free(counting_free);
    const halide_error_handler_t error_ = halide_set_error_handler(ignore_error);
    InjectedFaults() {
        library_do_task = halide_set_custom_do_task(failing_do_task);
        library_do_par_for = halide_set_custom_do_par_for(counting_do_par_for);
    }
    ~InjectedFaults() {
        halide_set_custom_malloc(malloc_);
        halide_set_custom_free(free_);
        halide_set_error_handler(error_);
        halide_set_custom_do_task(library_do_task);
        halide_set_custom_do_par_for(library_do_par_for);
    }
};

// The output's bits, row by row.
std::vector<std::vector<uint64_t>> rows_of(const Call &call, const Region &out) {
    std::vector<std::vector<uint64_t>> rows(out.h);
    for (int y = 0; y < out.h; y++)
        for (int x = 0; x < out.w; x++) rows[y].push_back(call.output->bits(out.x0 + x, out.y0 + y));
    return rows;
}

// Checks one faulty call against what its failures allow, given the output
// before the call and as the call without faults leaves it; "" if all holds.
std::string judge(const Variant &v, const Problem &p, int status, const Call &call,
                  const std::vector<std::vector<uint64_t>> &before, const std::vector<std::vector<uint64_t>> &right) {
    const bool two_stage = v.filter->two_stage();
    const auto after = rows_of(call, p.output);
    if (faults.mallocs != (two_stage ? 1 : 0)) return std::to_string(faults.mallocs) + " allocations";
    if (faults.foreign_free || !faults.live.empty()) return "a block freed twice, not at all, or never allocated";
    if (two_stage && faults.refuse_allocation) {
        if (status != -11 || faults.frees != 0 || faults.loops != 0) return "a refused allocation went on";
        return after == before ? "" : "output written without an intermediate";
    }
    std::set<int> first_stage_statuses, output_statuses, failed_output_rows;
    for (const FailedRow &f : faults.failed_rows) {
        if (f.loop != (two_stage ? 2 : 1)) {
            first_stage_statuses.insert(f.status);
            continue;
        }
        output_statuses.insert(f.status);
        failed_output_rows.insert(f.row);
    }
    if (!first_stage_statuses.empty()) {
        if (!first_stage_statuses.count(status) || faults.loops != 1) return "first stage failure not reported at once";
        return after == before ? "" : "output written after a failed first stage";
    }
    if (!(output_statuses.empty() ? status == 0 : output_statuses.count(status) == 1))
        return "status " + std::to_string(status) + " not among the failures";
    if (!call.output->outside_untouched()) return "write outside the output";
    for (int y = 0; y < p.output.h; y++) {
        const bool failed = failed_output_rows.count(p.output.y0 + y);
        if (after[y] != (failed ? before[y] : right[y]))
            return "row " + std::to_string(p.output.y0 + y) + (failed ? " written by a failed task" : " wrong beside failed rows");
    }
    return "";
}

TEST(FaultInjection, EveryCallReportsFreesAndKeepsItsRows) {
    const std::vector<Variant> variants = runnable_variants();
    std::mt19937 rng(4242);
    std::vector<std::pair<Variant, Problem>> calls;
    std::vector<std::vector<std::vector<uint64_t>>> right;
    for (int i = 0; i < kCalls; i++) {
        const Variant &v = variants[rng() % variants.size()];
        calls.push_back({v, rng() % 10 ? random_problem(v, rng) : large_problem(v, rng)});
        Call call(calls.back().second);
        ASSERT_EQ(call.run(entry(v)), 0);
        right.push_back(rows_of(call, calls.back().second.output));
    }
    int refused_allocations = 0, failed_rows = 0;
    {
        InjectedFaults hooks;
        for (int i = 0; i < kCalls; i++) {
            const auto &[v, p] = calls[i];
            Call call(p);
            const auto before = rows_of(call, p.output);
            faults.arm(rng);
            const int status = call.run(entry(v));
            ASSERT_EQ(judge(v, p, status, call, before, right[i]), "") << v.name() << " call " << i << ", status " << status;
            refused_allocations += v.filter->two_stage() && faults.refuse_allocation;
            failed_rows += static_cast<int>(faults.failed_rows.size());
        }
    }
    const long hook_calls = faults.hook_calls;
    Call again(calls[0].second);
    EXPECT_EQ(again.run(entry(calls[0].first)), 0);
    EXPECT_EQ(faults.hook_calls, hook_calls) << "a hook is still installed";
    EXPECT_GT(refused_allocations, 0);
    EXPECT_GT(failed_rows, 0);
}

}  // namespace
