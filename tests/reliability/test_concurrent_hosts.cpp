// Several host threads calling variants at the same time, each on its own
// buffers: results equal the reference model's, refused calls write nothing,
// bounds queries answer the region model. Run under the default arena, under
// one single-thread arena that all hosts share (a waiting host's call may
// then run inside another host's row loop), and under a single-thread arena
// per host.
#include "large_problem.h"
#include "support/random_problem.h"
#include "support/regions.h"

#include <HalideRuntime.h>
#include <gtest/gtest.h>
#include <tbb/task_arena.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>

using namespace fmtest;

namespace {

constexpr int kHosts = 4, kCallsPerHost = 500;

// A refused call reports through the error handler, whose default aborts.
void ignore_error(void *, const char *) {}

// All six filters, five element types, every tag this processor runs.
std::vector<Variant> variant_pool() {
    std::vector<Variant> pool;
    for (const Variant &v : all_variants()) {
        const Elem e = v.elem->elem;
        const bool picked = e == Elem::Bool || e == Elem::UInt8 || e == Elem::Int16 || e == Elem::Float32 ||
                            e == Elem::Float64;
        if (picked && cpu_supports(v.tag)) pool.push_back(v);
    }
    return pool;
}

struct Spoil {
    const char *what;
    std::function<void(Call &)> apply;
    int status;
};

// One check of each phase; the problem is valid, so it is the one that fails.
const std::vector<Spoil> &spoils() {
    static const std::vector<Spoil> rows = {
        {"image of two lanes", [](Call &c) { c.image->raw()->type.lanes = 2; }, -3},
        {"minmax without rows", [](Call &c) { c.minmax->dim(1).extent = 0; }, -4},
        {"strel min 1", [](Call &c) { c.strel->dim(1).min = 1; }, -4},
        {"output stride 2", [](Call &c) { c.output->dim(0).stride = 2; }, -8},
        {"output on a device only", [](Call &c) { c.output->raw()->host = nullptr; c.output->raw()->device = 1; }, -34},
    };
    return rows;
}

std::string refused_call(const Variant &v, const Problem &p, const Spoil &spoil) {
    Call call(p);
    spoil.apply(call);
    const auto output = call.output->snapshot(), image = call.image->snapshot();
    const int status = call.run(entry(v));
    if (status != spoil.status) return v.name() + ", " + spoil.what + ": status " + std::to_string(status);
    if (!call.output->unchanged_since(output) || !call.image->unchanged_since(image))
        return v.name() + ", " + spoil.what + ": a refused call wrote";
    return "";
}

std::string bounds_query(const Variant &v, const Problem &p) {
    Call call(p);
    for (TestBuffer *b : {call.image.get(), call.minmax.get(), call.strel.get(), call.output.get()})
        b->raw()->host = nullptr;
    const Required r = required_regions(*v.filter, v.vw(), p.image, p.mask.sx, p.mask.sy, p.output);
    if (call.run(entry(v)) != 0) return v.name() + ": query failed";
    for (int d = 0; d < 2; d++)
        if (!(Interval{call.image->min(d), call.image->extent(d)} == r.image[d]) ||
            !(Interval{call.output->min(d), call.output->extent(d)} == r.output[d]))
            return v.name() + ": query answer differs from the region model";
    return "";
}

// One host's calls, each on new buffers: mostly small problems of every
// shape, one in ten large; of ten calls eight valid, one refused, one a query.
std::vector<std::string> host_calls(int seed, const std::function<void(const std::function<void()> &)> &in_arena) {
    static const std::vector<Variant> pool = variant_pool();
    std::mt19937 rng(seed);
    std::vector<std::string> failures;
    for (int i = 0; i < kCallsPerHost; i++) {
        const Variant &v = pool[rng() % pool.size()];
        const Problem p = rng() % 10 ? random_problem(v, rng) : fmrel::large_problem(v, rng);
        const int kind = static_cast<int>(rng() % 10);
        const Spoil &spoil = spoils()[rng() % spoils().size()];
        std::string failure;
        in_arena([&] {
            failure = kind == 0 ? refused_call(v, p, spoil) : kind == 1 ? bounds_query(v, p) : check_against_reference(v, p);
        });
        if (!failure.empty()) failures.push_back(failure);
    }
    return failures;
}

struct Scenario {
    const char *name;
    // Runs one host's calls in the scenario's arena.
    std::function<std::vector<std::string>(int seed)> run_host;
};

void PrintTo(const Scenario &s, std::ostream *os) { *os << s.name; }

class ConcurrentHosts : public testing::TestWithParam<Scenario> {};

TEST_P(ConcurrentHosts, CallsDoNotInteract) {
    const Scenario &scenario = GetParam();
    const halide_error_handler_t previous = halide_set_error_handler(ignore_error);
    std::vector<std::vector<std::string>> failures(kHosts);
    std::atomic<int> ready{0};
    std::vector<std::thread> hosts;
    for (int h = 0; h < kHosts; h++)
        hosts.emplace_back([&, h] {
            ready++;
            while (ready < kHosts) std::this_thread::yield();  // start together
            failures[h] = scenario.run_host(1000 * h + 17);
        });
    for (std::thread &t : hosts) t.join();
    halide_set_error_handler(previous);
    for (int h = 0; h < kHosts; h++)
        for (const std::string &f : failures[h]) ADD_FAILURE() << "host " << h << ": " << f;
    std::printf("%s: %d hosts, %d calls\n", scenario.name, kHosts, kHosts * kCallsPerHost);
}

tbb::task_arena &shared_single_thread_arena() {
    static tbb::task_arena arena(1);
    return arena;
}

const Scenario kScenarios[] = {
    {"DefaultArena", [](int seed) { return host_calls(seed, [](const std::function<void()> &f) { f(); }); }},
    {"SharedSingleThreadArena",
     [](int seed) {
         return host_calls(seed, [](const std::function<void()> &f) { shared_single_thread_arena().execute(f); });
     }},
    {"SingleThreadArenaEach",
     [](int seed) {
         tbb::task_arena own(1);
         return host_calls(seed, [&own](const std::function<void()> &f) { own.execute(f); });
     }},
};

INSTANTIATE_TEST_SUITE_P(Arenas, ConcurrentHosts, testing::ValuesIn(kScenarios),
                         [](const testing::TestParamInfo<Scenario> &info) { return std::string(info.param.name); });

}  // namespace
