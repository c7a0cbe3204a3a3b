// Promise: reliability (failures). Row dispatch; refused blocks and failing rows: statuses, untouched rows, frees.
#include "support/harness.h"

#include <HalideRuntime.h>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>

using namespace fmtest;

namespace {

constexpr int kCalls = 3000;

// A task that records its rows and fails on chosen ones.
struct Rows {
    std::mutex mutex;
    std::multiset<int> seen;
    std::map<int, int> failures;  // row -> status
    bool outside_tbb = false;
};

int record_row(void *, int row, uint8_t *closure) {
    Rows &rows = *reinterpret_cast<Rows *>(closure);
    std::lock_guard<std::mutex> lock(rows.mutex);
    rows.outside_tbb |= tbb::this_task_arena::current_thread_index() == tbb::task_arena::not_initialized;
    rows.seen.insert(row);
    return rows.failures.count(row) ? rows.failures[row] : 0;
}

// The hook the library registers at load runs every row once under TBB and
// returns a failing row's status without stopping any other row (that rows
// go through halide_do_task, the injected faults below show).
TEST(Dispatch, RangesAndStatus) {
    struct Case {
        const char *what;
        int min, size;
        std::map<int, int> failures;
        int rows_run;
        std::set<int> statuses;  // acceptable results
    };
    const Case cases[] = {
        {"empty", 5, 0, {}, 0, {0}},
        {"negative size", 5, -3, {}, 0, {0}},
        {"wrapping past INT_MAX looks empty", INT_MAX - 2, 10, {}, 0, {0}},
        {"one row", -7, 1, {}, 1, {0}},
        {"negative rows are coordinates", -20, 15, {}, 15, {0}},
        {"row 3 of 10 fails: all rows run", 0, 10, {{3, -7}}, 10, {-7}},
        {"two failing rows give one of them", 100, 64, {{110, -1}, {150, -2}}, 64, {-1, -2}},
        {"a positive status is a failure too", 0, 40, {{39, 5}}, 40, {5}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Rows rows;
        rows.failures = c.failures;
        const int status = halide_do_par_for(nullptr, record_row, c.min, c.size, reinterpret_cast<uint8_t *>(&rows));
        EXPECT_TRUE(c.statuses.count(status)) << status;
        ASSERT_EQ(static_cast<int>(rows.seen.size()), c.rows_run);
        if (c.rows_run > 0) {
            EXPECT_EQ(*rows.seen.begin(), c.min);
            EXPECT_EQ(*rows.seen.rbegin(), c.min + c.size - 1);
            EXPECT_EQ(std::set<int>(rows.seen.begin(), rows.seen.end()).size(), rows.seen.size()) << "a row ran twice";
        }
        EXPECT_FALSE(rows.outside_tbb) << "a row ran outside TBB";
    }
}

// What the hooks do during one call and what they saw; rows run on many
// threads, so whether one fails is a hash of (call, loop, row), not a draw.
struct Faults {
    bool refuse_allocation = false;
    uint32_t row_failure_per_mille = 0;
    uint64_t call_seed = 0;

    std::atomic<int> loops{0};
    int mallocs = 0, frees = 0;
    std::set<void *> live;
    bool foreign_free = false;
    std::mutex rows_mutex;
    struct FailedRow {
        int loop, row, status;
    };
    std::vector<FailedRow> failed_rows;

    // Draws the faults of the next call (none without `rng`).
    void arm(std::mt19937 *rng) {
        static const uint32_t rates[] = {0, 20, 300, 1000};
        refuse_allocation = rng && (*rng)() % 4 == 0;
        row_failure_per_mille = rng ? rates[(*rng)() % 4] : 0;
        call_seed = rng ? (*rng)() : 0;
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

// Installs the hooks for its lifetime and restores what was there before.
struct InjectedFaults {
    static inline halide_do_task_t library_do_task;
    static inline halide_do_par_for_t library_do_par_for;
    const halide_malloc_t malloc_ = halide_set_custom_malloc([](void *, size_t size) -> void * {
        faults.mallocs++;
        return faults.refuse_allocation ? nullptr : *faults.live.insert(std::malloc(size)).first;
    });
    const halide_free_t free_ = halide_set_custom_free([](void *, void *p) {
        faults.frees++;
        faults.foreign_free |= !faults.live.erase(p);
        std::free(p);
    });
    const halide_error_handler_t error_ = halide_set_error_handler([](void *, const char *) {});
    InjectedFaults() {
        library_do_par_for = halide_set_custom_do_par_for([](void *uc, halide_task_t task, int min, int size,
                                                             uint8_t *closure) {
            faults.loops++;
            return library_do_par_for(uc, task, min, size, closure);
        });
        library_do_task = halide_set_custom_do_task([](void *uc, halide_task_t task, int row, uint8_t *closure) {
            const int loop = faults.loops;
            if (const int status = faults.row_status(loop, row)) {
                std::lock_guard<std::mutex> lock(faults.rows_mutex);
                faults.failed_rows.push_back({loop, row, status});
                return status;
            }
            return library_do_task(uc, task, row, closure);
        });
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
// before the call and as a call without faults leaves it; "" if all holds.
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
    for (const auto &f : faults.failed_rows) {
        const bool output_loop = f.loop == (two_stage ? 2 : 1);
        (output_loop ? output_statuses : first_stage_statuses).insert(f.status);
        if (output_loop) failed_output_rows.insert(f.row);
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
    int refused_allocations = 0, failed_rows = 0;
    InjectedFaults hooks;
    for (int i = 0; i < kCalls; i++) {
        const Variant &v = variants[rng() % variants.size()];
        const Problem p = random_problem(v, rng);
        Call right(p), call(p);
        faults.arm(nullptr);
        ASSERT_EQ(right.run(entry(v)), 0);
        const auto before = rows_of(call, p.output);
        faults.arm(&rng);
        const int status = call.run(entry(v));
        ASSERT_EQ(judge(v, p, status, call, before, rows_of(right, p.output)), "")
            << v.name() << " call " << i << ", status " << status;
        refused_allocations += v.filter->two_stage() && faults.refuse_allocation;
        failed_rows += static_cast<int>(faults.failed_rows.size());
    }
    EXPECT_GT(refused_allocations, 0);
    EXPECT_GT(failed_rows, 0);
}

}  // namespace
