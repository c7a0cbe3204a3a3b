#include "options.h"

#include "element_types.h"
#include "filters.h"
#include "masks.h"
#include "our_pipelines.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>

namespace bench {

const char *usage() {
    return R"(Usage: flatmorph_bench [options]
Times our filters against OpenCV's on the same images, masks and thread count,
after checking that both give the same samples away from the border (the
table's rim column counts the samples nearer the border where they differ).

  --studies LIST  cases, growth, small                     (default: all three)
                    cases:  every filter x type x size x mask x tag x threads
                    growth: imdilate uint8 against the number of active mask
                            elements, squares, disks and lines of sides 3 to 31
                    small:  64 x 64 images: imopen against imerode + imdilate
  --filters LIST  imdilate, imerode, imopen, imclose, imtophat, imbothat
  --types LIST    uint8, uint16, float32, bool   (bool: OpenCV on a 0/1 uint8 image)
  --sizes LIST    sides of the square images             (default: 1024,4096)
  --masks LIST    rect<N>, disk<N>, line<N>h, line<N>v with N odd
                                   (default: rect3,rect5,rect15,disk7,disk15,line21h,line21v)
  --tags LIST     none, avx, avx2                (default: all this processor runs)
  --threads LIST  thread counts                            (default: 1,2)
  --budget S      seconds of repetitions per measurement   (default: 0.4)
  --quick         a quick subset: 1024 only, uint8 and float32, rect3, disk7 and
                  line21h, the best tag, 2 threads, budget 0.1, a shorter growth
                  (options given as well override these)
  --csv FILE      also write every measurement to FILE as CSV
  --help
)";
}

int Options::most_threads() const { return *std::max_element(threads.begin(), threads.end()); }

namespace {

std::vector<std::string> split(const std::string &list) {
    std::vector<std::string> items;
    std::istringstream in(list);
    for (std::string item; std::getline(in, item, ',');)
        if (!item.empty()) items.push_back(item);
    if (items.empty()) throw std::invalid_argument("empty list");
    return items;
}

std::vector<int> positive_numbers(const std::string &list) {
    std::vector<int> numbers;
    for (const std::string &item : split(list)) {
        if (item.size() > 9 || item.find_first_not_of("0123456789") != std::string::npos || std::stoi(item) < 1)
            throw std::invalid_argument("not a positive number: " + item);
        numbers.push_back(std::stoi(item));
    }
    return numbers;
}

template <class Check>
std::vector<std::string> checked(const std::string &list, Check check) {
    std::vector<std::string> items = split(list);
    for (const std::string &item : items) check(item);
    return items;
}

std::vector<std::string> supported_tags(const std::string &list) {
    const std::vector<std::string> wanted = split(list), runnable = cpu_tags();
    for (const std::string &tag : wanted)
        if (std::find(runnable.begin(), runnable.end(), tag) == runnable.end())
            throw std::invalid_argument("tag '" + tag + "' is unknown or not run by this processor");
    std::vector<std::string> tags;
    for (const std::string &tag : runnable)
        if (std::find(wanted.begin(), wanted.end(), tag) != wanted.end()) tags.push_back(tag);
    return tags;
}

// The options as given, by name without the dashes; `--name value` or `--name=value`.
std::map<std::string, std::string> given_options(int argc, char **argv) {
    std::map<std::string, std::string> given;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg.rfind("--", 0) != 0) throw std::invalid_argument("unexpected argument '" + arg + "'");
        arg = arg.substr(2);
        if (arg == "quick" || arg == "help") {
            given[arg] = "";
        } else if (const size_t eq = arg.find('='); eq != std::string::npos) {
            given[arg.substr(0, eq)] = arg.substr(eq + 1);
        } else {
            if (i + 1 == argc) throw std::invalid_argument("--" + arg + " needs a value");
            given[arg] = argv[++i];
        }
    }
    return given;
}

}  // namespace

Options parse_options(int argc, char **argv) {
    std::map<std::string, std::string> given = given_options(argc, argv);
    Options o;
    o.help = given.erase("help") > 0;
    o.quick = given.erase("quick") > 0;

    const std::string all_tags = [] {
        std::string list;
        for (const std::string &tag : cpu_tags()) list += tag + ",";
        return list;
    }();
    std::map<std::string, std::string> value = {
        {"studies", "cases,growth,small"},
        {"filters", "imdilate,imerode,imopen,imclose,imtophat,imbothat"},
        {"types", o.quick ? "uint8,float32" : "uint8,uint16,float32,bool"},
        {"sizes", o.quick ? "1024" : "1024,4096"},
        {"masks", o.quick ? "rect3,disk7,line21h" : "rect3,rect5,rect15,disk7,disk15,line21h,line21v"},
        {"tags", o.quick ? cpu_tags().back() : all_tags},
        {"threads", o.quick ? "2" : "1,2"},
        {"budget", o.quick ? "0.1" : "0.4"},
        {"csv", ""},
    };
    for (const auto &[name, v] : given) {
        if (!value.count(name)) throw std::invalid_argument("unknown option --" + name);
        value[name] = v;
    }

    o.studies = checked(value["studies"], [](const std::string &s) {
        if (s != "cases" && s != "growth" && s != "small") throw std::invalid_argument("unknown study '" + s + "'");
    });
    o.filters = checked(value["filters"], [](const std::string &f) { filter_by_name(f); });
    o.types = checked(value["types"], [](const std::string &t) { elem_type(t); });
    o.masks = checked(value["masks"], [](const std::string &m) { mask_by_name(m); });
    o.tags = supported_tags(value["tags"]);
    o.sizes = positive_numbers(value["sizes"]);
    o.threads = positive_numbers(value["threads"]);
    o.budget_s = std::stod(value["budget"]);
    o.csv_path = value["csv"];
    return o;
}

}  // namespace bench
