// Promise: reliability (thread safety). Concurrent host threads, in three arena set-ups, get the reference results.
#include "support/harness.h"

#include <HalideRuntime.h>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <functional>
#include <thread>

using namespace fmtest;

namespace {

constexpr int kHosts = 4, kCallsPerHost = 300;

using InArena = std::function<void(const std::function<void()> &)>;

// One host's calls, each in its arena: mostly valid ones of every shape, one
// in ten refused (a minmax without rows), one in ten a bounds query of the
// output; a description of the first that went wrong.
std::string host_calls(int seed, const InArena &in_arena) {
    const std::vector<Variant> variants = runnable_variants();
    std::mt19937 rng(seed);
    for (int i = 0; i < kCallsPerHost; i++) {
        const Variant &v = variants[rng() % variants.size()];
        const Problem p = random_problem(v, rng);
        const int kind = static_cast<int>(rng() % 10);
        Call call(p);
        if (kind == 0) call.minmax->dim(1).extent = 0;
        if (kind == 1) call.output->raw()->host = nullptr;
        int status = 0;
        in_arena([&] { status = call.run(entry(v)); });
        const std::string why = kind == 0 ? (status == -4 ? "" : "refused with " + std::to_string(status))
                                : kind == 1 ? (status == 0 ? "" : "query failed with " + std::to_string(status))
                                : status != 0 ? "failed with " + std::to_string(status)
                                              : differences_from_reference(p, *call.output);
        if (!why.empty()) return v.name() + " call " + std::to_string(i) + ": " + why;
    }
    return "";
}

// Each arena kind makes one arena per host; in the shared single-thread one,
// a waiting host's call may run inside another host's row loop.
TEST(ConcurrentHosts, EveryCallGivesTheReferenceResult) {
    const std::pair<const char *, std::function<InArena()>> arenas[] = {
        {"default arena", [] { return InArena([](const std::function<void()> &f) { f(); }); }},
        {"one shared single-thread arena", [] {
             static tbb::task_arena shared(1);
             return InArena([](const std::function<void()> &f) { shared.execute(f); });
         }},
        {"a single-thread arena each", [] {
             auto own = std::make_shared<tbb::task_arena>(1);
             return InArena([own](const std::function<void()> &f) { own->execute(f); });
         }},
    };
    const halide_error_handler_t previous = halide_set_error_handler([](void *, const char *) {});
    for (const auto &arena : arenas) {
        std::vector<std::string> outcomes(kHosts);
        std::atomic<int> ready{0};
        std::vector<std::thread> hosts;
        for (int h = 0; h < kHosts; h++)
            hosts.emplace_back([&, h] {
                const InArena in_arena = arena.second();
                ready++;
                while (ready < kHosts) std::this_thread::yield();  // start together
                outcomes[h] = host_calls(1000 * h + 17, in_arena);
            });
        for (std::thread &t : hosts) t.join();
        for (int h = 0; h < kHosts; h++) EXPECT_EQ(outcomes[h], "") << arena.first << ", host " << h;
    }
    halide_set_error_handler(previous);
}

}  // namespace
