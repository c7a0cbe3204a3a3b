#include "options.h"

#include "element_types.h"
#include "filters.h"
#include "masks.h"
#include "our_pipelines.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace bench {

namespace {

// Accepts what `lookup` accepts; its exception's message is the error.
template <class Lookup>
CLI::Validator by(Lookup lookup, const std::string &what) {
    return CLI::Validator(
        [lookup](std::string &value) {
            try {
                lookup(value);
                return std::string();
            } catch (const std::exception &e) {
                return std::string(e.what());
            }
        },
        what);
}

}  // namespace

std::optional<int> parse_options(int argc, char **argv, Options &o) {
    CLI::App app(
        "Times our filters against OpenCV's on the same images, masks and thread count, the two side by side "
        "(their repetitions interleaved; medians), after checking that both give the same samples away from the "
        "border. Lists take commas: --sizes 512,4096.",
        "flatmorph_bench");
    app.get_formatter()->column_width(30);
    app.option_defaults()->always_capture_default();
    bool quick = false;
    std::vector<std::string> all_filters;
    for (const FilterInfo &f : bench::all_filters()) all_filters.push_back(f.name);

    app.add_option("--studies", o.studies,
                   "allround: filter x type x size x mask x tag x threads; acceptance: the acceptance set on every "
                   "tag; growth: imdilate uint8 against the mask side, 3 to 63")
        ->delimiter(',')
        ->check(CLI::IsMember({"allround", "acceptance", "growth"}));
    app.add_option("--filters", o.filters, "all-round filters")
        ->delimiter(',')
        ->check(CLI::IsMember(all_filters));
    app.add_option("--types", o.types, "all-round types: uint8, uint16, float32, bool")
        ->delimiter(',')
        ->check(by(elem_type, "TYPE"));
    app.add_option("--sizes", o.sizes, "all-round image sides")
        ->delimiter(',')
        ->check(CLI::Range(8, 65536));
    app.add_option("--masks", o.masks,
                   "all-round masks: rect<N>, disk<N>, line<N>h, line<N>v, N odd")
        ->delimiter(',')
        ->check(by(mask_by_name, "MASK"));
    o.tags = {cpu_tags().back()};
    app.add_option("--tags", o.tags, "all-round tags, of those this processor runs")
        ->delimiter(',')
        ->check(CLI::IsMember(cpu_tags()));
    app.add_option("--threads", o.threads, "all-round thread counts, given alike to both contenders")
        ->delimiter(',')
        ->check(CLI::Range(1, 1024));
    app.add_option("--budget", o.budget_s, "seconds of repetitions per contender and case")
        ->check(CLI::Range(0.0, 60.0));
    app.add_flag("--quick", quick,
                 "a smoke run of under a minute: sizes 256,512, uint8 and float32, rect3, disk7 and line21h, "
                 "imdilate and imtophat, budget 0.03, acceptance and growth at 1024 (options given as well win)");
    app.add_option("--csv", o.csv_path, "write every measurement to this CSV file");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    }

    using Names = std::vector<std::string>;
    auto brief = [&](auto &value, const char *name, auto quick_value) {
        if (quick && app.count(name) == 0) value = quick_value;
    };
    brief(o.filters, "--filters", Names{"imdilate", "imtophat"});
    brief(o.types, "--types", Names{"uint8", "float32"});
    brief(o.sizes, "--sizes", std::vector<int>{256, 512});
    brief(o.masks, "--masks", Names{"rect3", "disk7", "line21h"});
    brief(o.budget_s, "--budget", 0.03);
    if (quick) o.large_side = 1024;

    const std::vector<std::string> runnable = cpu_tags();  // weakest first
    std::sort(o.tags.begin(), o.tags.end(), [&](const std::string &a, const std::string &b) {
        return std::find(runnable.begin(), runnable.end(), a) < std::find(runnable.begin(), runnable.end(), b);
    });
    o.tags.erase(std::unique(o.tags.begin(), o.tags.end()), o.tags.end());
    return std::nullopt;
}

}  // namespace bench
