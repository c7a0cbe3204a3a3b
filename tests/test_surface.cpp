// Promise: surface. Exported and local symbols, memcpy's binding, metadata and the argument-array entry.
#include "support/harness.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <map>
#include <regex>
#include <set>
#include <sstream>

using namespace fmtest;

namespace {

// name -> type letter of each symbol `nm -P <flags>` lists for the library.
std::map<std::string, char> symbols(const std::string &flags) {
    std::map<std::string, char> out;
    FILE *pipe = popen((std::string(FLATMORPH_NM) + " -P " + flags + " " + FLATMORPH_LIBRARY).c_str(), "r");
    std::array<char, 4096> line;
    for (std::string name, type; pipe && fgets(line.data(), line.size(), pipe);) {
        std::istringstream(line.data()) >> name >> type;
        out[name] = type[0];
    }
    if (pipe) pclose(pipe);
    return out;
}

// Exports: the three of every variant, the runtime's, and a few the linker
// and the memcpy wrapper add. The glue and the row closures
// (par_for_<variant>_<stage>.s0.y, and the narrow path's with a numeric
// suffix) are local. memcpy binds to its baseline version.
TEST(Surface, SymbolTable) {
    const std::regex runtime("^halide_.*|^_ZN6Halide7Runtime8Internal.*");
    const std::set<std::string> others = {"__wrap_memcpy", "copy_to_device_already_locked", "_init", "_fini",
                                          "_edata", "_end", "__bss_start"};
    std::set<std::string> pipelines, exported_pipelines;
    for (const Variant &v : all_variants())
        for (const char *suffix : {"", "_argv", "_metadata"}) pipelines.insert(v.name() + suffix);
    std::map<std::string, char> local = symbols("--defined-only");
    for (const auto &[name, type] : symbols("-D --defined-only")) {
        local.erase(name);
        if (pipelines.count(name) && type == 'T') exported_pipelines.insert(name);
        else EXPECT_TRUE(std::regex_match(name, runtime) || others.count(name)) << "unexpected export " << name;
    }
    EXPECT_EQ(exported_pipelines, pipelines);

    EXPECT_EQ(local["overRideWithTBB"], 't');
    EXPECT_EQ(local["tbb_do_par_for"], 't');
    int closures = 0;
    for (const auto &[name, type] : local) closures += name.rfind("par_for_", 0) == 0 && type == 't';
    EXPECT_EQ(closures, 540);
    for (const Variant &v : all_variants()) {
        const std::string base = "par_for_" + v.name() + "_";
        if (v.filter->two_stage()) EXPECT_EQ(local[base + (v.filter->erosion_first() ? "imerode" : "imdilate") + ".s0.y"], 't');
        EXPECT_EQ(local[base + v.filter->output + ".s0.y"], 't') << v.name();
    }

    std::vector<std::string> memcpy_refs;
    for (const auto &[name, type] : symbols("-D --undefined-only"))
        if (name.rfind("memcpy@", 0) == 0) memcpy_refs.push_back(name);
    EXPECT_EQ(memcpy_refs, std::vector<std::string>{"memcpy@GLIBC_2.2.5"});
    EXPECT_NE(exported("__wrap_memcpy"), nullptr);
}

TEST(Metadata, EveryVariantDescribesItself) {
    const std::map<std::string, std::string> targets = {
        {"none", "x86-64-linux-large_buffers-no_runtime"},
        {"avx", "x86-64-linux-avx-large_buffers-no_runtime-sse41"},
        {"avx2", "x86-64-linux-avx-avx2-large_buffers-no_runtime-sse41"}};
    for (const Variant &v : all_variants()) {
        SCOPED_TRACE(v.name());
        auto metadata = reinterpret_cast<const halide_filter_metadata_t *(*)()>(exported(v.name() + "_metadata"));
        ASSERT_NE(metadata, nullptr);
        const halide_filter_metadata_t *m = metadata();
        EXPECT_EQ(m, metadata()) << "the record is one constant";
        EXPECT_EQ(m->version, 0);
        EXPECT_EQ(m->num_arguments, 4);
        EXPECT_STREQ(m->name, v.name().c_str());
        EXPECT_EQ(m->target, targets.at(v.tag));
        const auto *rows = reinterpret_cast<const halide_filter_argument_t_v0 *>(m->arguments);
        const halide_type_t types[4] = {v.elem->type(), halide_type_t(halide_type_float, 64),
                                        halide_type_t(halide_type_uint, 8), v.elem->type()};
        const char *names[4] = {"keyimForType", "minmax", "strel", v.filter->output};
        for (int i = 0; i < 4; i++) {
            EXPECT_STREQ(rows[i].name, names[i]);
            EXPECT_EQ(rows[i].kind, i == 3 ? 2 : 1);
            EXPECT_EQ(rows[i].dimensions, 2);
            EXPECT_TRUE(rows[i].type == types[i]) << i;
            EXPECT_TRUE(!rows[i].def && !rows[i].min && !rows[i].max) << i;
        }
    }
}

TEST(Metadata, ArgvForwardsToTheEntry) {
    for (const Variant &v : runnable_variants()) {
        SCOPED_TRACE(v.name());
        auto argv = reinterpret_cast<int (*)(void **)>(exported(v.name() + "_argv"));
        ASSERT_NE(argv, nullptr);
        const Problem p{v.elem, v.filter, {0, 0, 5, 4}, {0, 1, 0, 1, 1, 0, 0, 1, 0, 1, 1, 0, 1, 1, 1, 0, 0, 0, 1, 0},
                        0, 0, {3, 1, {1, 1, 1}}, {0, 0, 5, 4}};
        Call direct(p), through_array(p);
        ASSERT_EQ(direct.run(entry(v)), 0);
        void *args[4] = {through_array.image->raw(), through_array.minmax->raw(), through_array.strel->raw(),
                         through_array.output->raw()};
        ASSERT_EQ(argv(args), 0);
        EXPECT_EQ(direct.output->snapshot(), through_array.output->snapshot());
        args[2] = nullptr;
        EXPECT_EQ(argv(args), -12) << "a null element reaches the entry";
    }
}

}  // namespace
