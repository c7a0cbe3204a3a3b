// Promise: hosts. The row dispatch a host sees through halide_do_par_for: the
// hook the library registers at load runs every row once under TBB, through
// halide_do_task, and returns a failing row's status (negative or positive)
// without stopping any other row.
#include <HalideRuntime.h>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <climits>
#include <map>
#include <mutex>
#include <set>

namespace {

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

// Each row goes through halide_do_task, so a host's do_task hook applies.
std::atomic<int> tasks_seen{0};
int counting_do_task(void *uc, halide_task_t f, int row, uint8_t *closure) {
    tasks_seen++;
    return f(uc, row, closure);
}

TEST(Dispatch, RangesStatusAndDoTask) {
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
    const halide_do_task_t previous = halide_set_custom_do_task(counting_do_task);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Rows rows;
        rows.failures = c.failures;
        tasks_seen = 0;
        const int status = halide_do_par_for(nullptr, record_row, c.min, c.size, reinterpret_cast<uint8_t *>(&rows));
        EXPECT_TRUE(c.statuses.count(status)) << status;
        EXPECT_EQ(tasks_seen, c.rows_run);
        ASSERT_EQ(static_cast<int>(rows.seen.size()), c.rows_run);
        if (c.rows_run > 0) {
            EXPECT_EQ(*rows.seen.begin(), c.min);
            EXPECT_EQ(*rows.seen.rbegin(), c.min + c.size - 1);
            EXPECT_EQ(std::set<int>(rows.seen.begin(), rows.seen.end()).size(), rows.seen.size()) << "a row ran twice";
        }
        EXPECT_FALSE(rows.outside_tbb) << "a row ran outside TBB";
    }
    halide_set_custom_do_task(previous);
}

}  // namespace
