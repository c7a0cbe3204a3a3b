// Promise: reliability (thread safety). Several host threads calling variants
// at the same time, each on its own buffers, get what each call gives alone:
// the same status, output samples and query answers. Run under the default
// arena, under one single-thread arena that all hosts share (a waiting host's
// call may then run inside another host's row loop), and under a
// single-thread arena per host.
#include "large_problem.h"
#include "support/random_problem.h"

#include <HalideRuntime.h>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <functional>
#include <thread>

using namespace fmtest;

namespace {

constexpr int kHosts = 4, kCallsPerHost = 500;

void ignore_error(void *, const char *) {}

// One call: mostly valid ones of every shape, one in ten large, one in ten
// refused (a minmax without rows) and one in ten a bounds query of the output.
struct HostCall {
    Variant v;
    Problem p;
    int kind;  // 0 refused, 1 query, else valid
};

// What a call left behind: its status, the output's bytes and descriptor.
std::string outcome(const HostCall &c) {
    Call call(c.p);
    if (c.kind == 0) call.minmax->dim(1).extent = 0;
    if (c.kind == 1) call.output->raw()->host = nullptr;
    const int status = call.run(entry(c.v));
    const auto bytes = call.output->snapshot();
    std::string s = std::to_string(status) + ":" + std::string(bytes.begin(), bytes.end());
    for (int d = 0; d < 2; d++) s += ":" + std::to_string(call.output->min(d)) + "," + std::to_string(call.output->extent(d));
    return s;
}

std::vector<HostCall> host_calls(int seed) {
    std::vector<Variant> pool;
    for (const Variant &v : all_variants())
        if (cpu_supports(v.tag)) pool.push_back(v);
    std::mt19937 rng(seed);
    std::vector<HostCall> calls;
    for (int i = 0; i < kCallsPerHost; i++) {
        const Variant &v = pool[rng() % pool.size()];
        Problem p = rng() % 10 ? random_problem(v, rng) : fmrel::large_problem(v, rng);
        calls.push_back({v, std::move(p), static_cast<int>(rng() % 10)});
    }
    return calls;
}

using InArena = std::function<void(const std::function<void()> &)>;

struct Scenario {
    const char *name;
    std::function<InArena()> arena;  // one per host
};

void PrintTo(const Scenario &s, std::ostream *os) { *os << s.name; }

class ConcurrentHosts : public testing::TestWithParam<Scenario> {};

TEST_P(ConcurrentHosts, CallsGiveWhatTheyGiveAlone) {
    const halide_error_handler_t previous = halide_set_error_handler(ignore_error);
    std::vector<std::vector<HostCall>> calls;
    std::vector<std::vector<std::string>> alone(kHosts), together(kHosts);
    for (int h = 0; h < kHosts; h++) {
        calls.push_back(host_calls(1000 * h + 17));
        for (const HostCall &c : calls[h]) alone[h].push_back(outcome(c));
    }
    std::atomic<int> ready{0};
    std::vector<std::thread> hosts;
    for (int h = 0; h < kHosts; h++)
        hosts.emplace_back([&, h] {
            const InArena in_arena = GetParam().arena();
            ready++;
            while (ready < kHosts) std::this_thread::yield();  // start together
            for (const HostCall &c : calls[h]) in_arena([&] { together[h].push_back(outcome(c)); });
        });
    for (std::thread &t : hosts) t.join();
    halide_set_error_handler(previous);
    for (int h = 0; h < kHosts; h++)
        for (int i = 0; i < kCallsPerHost; i++)
            EXPECT_TRUE(together[h][i] == alone[h][i]) << "host " << h << ", call " << i << " of " << calls[h][i].v.name();
}

const Scenario kScenarios[] = {
    {"DefaultArena", [] { return InArena([](const std::function<void()> &f) { f(); }); }},
    {"SharedSingleThreadArena",
     [] {
         static tbb::task_arena shared(1);
         return InArena([](const std::function<void()> &f) { shared.execute(f); });
     }},
    {"SingleThreadArenaEach",
     [] {
         auto own = std::make_shared<tbb::task_arena>(1);
         return InArena([own](const std::function<void()> &f) { own->execute(f); });
     }},
};

INSTANTIATE_TEST_SUITE_P(Arenas, ConcurrentHosts, testing::ValuesIn(kScenarios),
                         [](const testing::TestParamInfo<Scenario> &info) { return std::string(info.param.name); });

}  // namespace
