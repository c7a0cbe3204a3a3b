// Promise: surface. The library as a loadable object: what its dynamic
// symbol table exports, what it keeps local, how memcpy is bound, and the
// three exports of every variant (entry, argument-array entry, metadata).
#include "support/harness.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <regex>
#include <set>
#include <sstream>

using namespace fmtest;

namespace {

// (type letter, name) of each symbol `nm <flags>` lists for the library: its
// lines read "address type name", or "type name" when undefined.
std::vector<std::pair<char, std::string>> symbols(const std::string &flags) {
    std::vector<std::pair<char, std::string>> out;
    FILE *pipe = popen((std::string(FLATMORPH_NM) + " " + flags + " " + FLATMORPH_LIBRARY).c_str(), "r");
    std::array<char, 4096> line;
    while (pipe && fgets(line.data(), line.size(), pipe)) {
        std::istringstream in(line.data());
        std::string a, b, c;
        in >> a >> b >> c;
        out.push_back(c.empty() ? std::make_pair(a[0], b) : std::make_pair(b[0], c));
    }
    if (pipe) pclose(pipe);
    return out;
}

std::set<std::string> expected_pipeline_exports() {
    std::set<std::string> names;
    for (const Variant &v : all_variants())
        for (const char *suffix : {"", "_argv", "_metadata"}) names.insert(v.name() + suffix);
    return names;
}

TEST(Surface, ExportsOnlyTheAllowedFamilies) {
    const std::regex runtime("^halide_.*|^_ZN6Halide7Runtime8Internal.*");
    const std::set<std::string> others = {"__wrap_memcpy", "copy_to_device_already_locked", "_init", "_fini",
                                          "_edata", "_end", "__bss_start"};
    const std::set<std::string> pipelines = expected_pipeline_exports();
    std::set<std::string> exported_pipelines;
    for (const auto &[type, name] : symbols("-D --defined-only")) {
        if (pipelines.count(name)) {
            EXPECT_EQ(type, 'T') << name;
            exported_pipelines.insert(name);
        } else {
            EXPECT_TRUE(std::regex_match(name, runtime) || others.count(name)) << "unexpected export " << name;
        }
    }
    EXPECT_EQ(exported_pipelines, pipelines);
}

TEST(Surface, ClosuresAndGlueAreLocal) {
    std::map<std::string, char> all;
    for (const auto &[type, name] : symbols("--defined-only")) all[name] = type;
    for (const auto &[type, name] : symbols("-D --defined-only")) {
        EXPECT_EQ(name.find("par_for_"), std::string::npos) << name;
        EXPECT_EQ(name.find("tbb"), std::string::npos) << name;
        EXPECT_NE(name, "overRideWithTBB");
    }
    EXPECT_EQ(all["overRideWithTBB"], 't');
    EXPECT_EQ(all["tbb_do_par_for"], 't');
    int closures = 0;
    for (const auto &[name, type] : all) closures += name.rfind("par_for_", 0) == 0;
    EXPECT_EQ(closures, 540);
    for (const Variant &v : all_variants()) {
        const std::string base = "par_for_" + v.name() + "_";
        std::vector<std::string> expected;
        if (!v.filter->two_stage()) {
            expected = {base + v.filter->output + ".s0.y", base + v.filter->output + ".s0.y.14"};
        } else {
            const std::string first = v.filter->erosion_first() ? "imerode" : "imdilate";
            expected = {base + first + ".s0.y", base + first + ".s0.y.15", base + v.filter->output + ".s0.y",
                        base + v.filter->output + ".s0.y.16"};
        }
        for (const std::string &name : expected) EXPECT_EQ(all[name], 't') << name;
    }
}

TEST(Surface, MemcpyIsBoundToTheBaselineVersion) {
    int memcpy_refs = 0;
    for (const auto &[type, name] : symbols("-D --undefined-only")) {
        if (name.rfind("memcpy@", 0) == 0) {
            EXPECT_EQ(name, "memcpy@GLIBC_2.2.5");
            memcpy_refs++;
        }
    }
    EXPECT_EQ(memcpy_refs, 1);
    EXPECT_NE(exported("__wrap_memcpy"), nullptr);
    char dest[8] = {0};
    using Memcpy = void *(*)(void *, const void *, size_t);
    EXPECT_EQ(reinterpret_cast<Memcpy>(exported("__wrap_memcpy"))(dest, "flatmor", 8), dest);
    EXPECT_STREQ(dest, "flatmor");
}

// --- Metadata and the argument-array entry --------------------------------

using MetadataFn = const halide_filter_metadata_t *(*)();
using ArgvFn = int (*)(void **);

TEST(Metadata, EveryVariantDescribesItself) {
    for (const Variant &v : all_variants()) {
        SCOPED_TRACE(v.name());
        auto metadata = reinterpret_cast<MetadataFn>(exported(v.name() + "_metadata"));
        ASSERT_NE(metadata, nullptr);
        const halide_filter_metadata_t *m = metadata();
        EXPECT_EQ(m, metadata()) << "the record is one constant";
        EXPECT_EQ(m->version, 0);
        EXPECT_EQ(m->num_arguments, 4);
        EXPECT_STREQ(m->name, v.name().c_str());
        EXPECT_EQ(m->target, target_string(v.tag));
        const auto *rows = reinterpret_cast<const halide_filter_argument_t_v0 *>(m->arguments);
        struct Row {
            const char *name;
            int kind, code, bits;
        };
        const Row expected[4] = {{"keyimForType", 1, v.elem->code, v.elem->bits},
                                 {"minmax", 1, 2, 64},
                                 {"strel", 1, 1, 8},
                                 {v.filter->output, 2, v.elem->code, v.elem->bits}};
        for (int i = 0; i < 4; i++) {
            EXPECT_STREQ(rows[i].name, expected[i].name);
            EXPECT_EQ(rows[i].kind, expected[i].kind);
            EXPECT_EQ(rows[i].dimensions, 2);
            EXPECT_EQ(rows[i].type.code, expected[i].code);
            EXPECT_EQ(rows[i].type.bits, expected[i].bits);
            EXPECT_EQ(rows[i].type.lanes, 1);
            EXPECT_EQ(rows[i].def, nullptr);
            EXPECT_EQ(rows[i].min, nullptr);
            EXPECT_EQ(rows[i].max, nullptr);
        }
    }
}

TEST(Metadata, ArgvForwardsToTheEntry) {
    for (const Variant &v : all_variants()) {
        std::string why;
        if (!cpu_supports(v.tag, &why)) continue;
        SCOPED_TRACE(v.name());
        auto argv = reinterpret_cast<ArgvFn>(exported(v.name() + "_argv"));
        ASSERT_NE(argv, nullptr);
        Problem p;
        p.elem = v.elem;
        p.filter = v.filter;
        p.image = {0, 0, 5, 4};
        for (int i = 0; i < 20; i++) p.pixels.push_back(i % 2);
        p.mask = {3, 1, {1, 1, 1}};
        p.output = p.image;
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
