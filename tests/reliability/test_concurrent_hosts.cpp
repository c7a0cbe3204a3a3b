// Promise: reliability (thread safety). Concurrent host threads, in three arena set-ups, get the reference results.
#include "support/harness.h"

#include <HalideRuntime.h>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <thread>

using namespace fmtest;

namespace {

constexpr int kHosts = 4, kCallsPerHost = 300;

// One host's calls, each in its arena if it has one: mostly valid ones of every shape, one
// in ten refused (a minmax without rows), one in ten a bounds query of the
// output; a description of the first that went wrong.
std::string host_calls(int seed, tbb::task_arena *arena) {
    const std::vector<Variant> variants = runnable_variants();
    std::mt19937 rng(seed);
    for (int i = 0; i < kCallsPerHost; i++) {
        const Variant &v = variants[rng() % variants.size()];
        const Problem p = random_problem(v, rng);
        const int kind = static_cast<int>(rng() % 10);
        Call call(p);
        if (kind == 0) call.minmax->dim(1).extent = 0;
        if (kind == 1) call.output->raw()->host = nullptr;
        const auto run = [&] { return call.run(entry(v)); };
        const int status = arena ? arena->execute(run) : run();
        const std::string why = kind == 0 ? (status == -4 ? "" : "refused with " + std::to_string(status))
                                : kind == 1 ? (status == 0 ? "" : "query failed with " + std::to_string(status))
                                : status != 0 ? "failed with " + std::to_string(status)
                                              : differences_from_reference(p, *call.output);
        if (!why.empty()) return v.name() + " call " + std::to_string(i) + ": " + why;
    }
    return "";
}

// Hosts without an arena of their own, with one single-thread arena they all
// share (a waiting host's call may then run inside another host's row loop),
// and with a single-thread arena each.
TEST(ConcurrentHosts, EveryCallGivesTheReferenceResult) {
    const halide_error_handler_t previous = halide_set_error_handler([](void *, const char *) {});
    for (const std::string arenas : {"none", "shared", "each"}) {
        tbb::task_arena shared(1);
        std::vector<std::string> outcomes(kHosts);
        std::atomic<int> ready{0};
        std::vector<std::thread> hosts;
        for (int h = 0; h < kHosts; h++)
            hosts.emplace_back([&, h] {
                tbb::task_arena own(1);
                tbb::task_arena *arena = arenas == "none" ? nullptr : arenas == "shared" ? &shared : &own;
                ready++;
                while (ready < kHosts) std::this_thread::yield();  // start together
                outcomes[h] = host_calls(1000 * h + 17, arena);
            });
        for (std::thread &t : hosts) t.join();
        for (int h = 0; h < kHosts; h++) EXPECT_EQ(outcomes[h], "") << "arenas: " << arenas << ", host " << h;
    }
    halide_set_error_handler(previous);
}

}  // namespace
