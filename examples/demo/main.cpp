// flatmorph_demo: runs all six filters on one image with the tag this
// processor supports, writes the results and a contact sheet as PNG files,
// and prints how fast each filter ran.
#include "contact_sheet.h"
#include "image_files.h"
#include "micrograph.h"
#include "options.h"
#include "sample_mapping.h"

#include <flatmorph_host.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <utility>

namespace {

using namespace demo;

constexpr int kUsageError = 2, kRunError = 1;

// What every element type's run shares, settled from the command line.
struct Setup {
    Options options;
    std::string source;  // "built-in micrograph" or the input file
    GreyImage input;
    MaskImage mask;
    flatmorph::Tag tag = flatmorph::Tag::none;
    std::string type;
};

struct Timing {
    const char *filter;
    double megapixels_per_second;
};

// One line on stderr, rewritten in place, while the filters run; only on a
// terminal, so logs and pipes stay clean.
class Progress {
public:
    explicit Progress(int total) : total_(total), shown_(isatty(fileno(stderr))) {}
    void step(const char *filter, int run, int runs) {
        if (!shown_) return;
        std::fprintf(stderr, "\r[%d/%d] %-9s run %d of %d", ++done_, total_, filter, run, runs);
        std::fflush(stderr);
    }
    ~Progress() {
        if (shown_) std::fprintf(stderr, "\r\033[K");
    }

private:
    int total_, done_ = 0;
    bool shown_;
};

std::string output_path(const Setup &s, const std::string &name) {
    return (std::filesystem::path(s.options.output) / (name + ".png")).string();
}

bool residual(flatmorph::Filter filter) {
    return filter == flatmorph::Filter::tophat || filter == flatmorph::Filter::bothat;
}

void print_report(const Setup &s, const std::vector<Timing> &timings) {
    std::printf("flatmorph demo: %s, %dx%d, %d-bit; mask %s; tag %s (%s); median of %d run%s per filter\n\n",
                s.source.c_str(), s.input.width, s.input.height, s.input.bits, s.mask.describe().c_str(),
                flatmorph::tag_name(s.tag), s.options.tag_forced ? "as asked" : "the widest this processor runs",
                s.options.repeat, s.options.repeat == 1 ? "" : "s");
    std::printf("%-10s %-5s %-8s %14s\n", "filter", "tag", "type", "megapixels/s");
    for (const Timing &t : timings)
        std::printf("%-10s %-5s %-8s %14.4g\n", t.filter, flatmorph::tag_name(s.tag), s.type.c_str(),
                    t.megapixels_per_second);
    std::printf("\nwrote %s, one PNG per filter and %s\n", output_path(s, "input").c_str(),
                output_path(s, "contact-sheet").c_str());
}

// Runs each filter `repeat` times, keeping the median speed and the result.
template <typename T>
bool time_filters(const Setup &s, const Raster<T> &image, std::vector<Timing> *timings, std::vector<Panel> *panels,
                  std::string *error) {
    using Clock = std::chrono::steady_clock;
    const int w = image.width, h = image.height;
    const flatmorph::Mask mask{s.mask.bytes.data(), s.mask.width, s.mask.height};
    Progress progress(6 * s.options.repeat);
    for (flatmorph::Filter filter : flatmorph::all_filters) {
        const char *name = flatmorph::filter_name(filter);
        Raster<T> result(w, h);
        std::vector<double> seconds;
        for (int run = 1; run <= s.options.repeat; run++) {
            progress.step(name, run, s.options.repeat);
            const Clock::time_point start = Clock::now();
            const flatmorph::Status status =
                flatmorph::run<T>(filter, s.tag, {image.data(), w, h}, mask, {result.data(), w, h});
            seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
            if (!status.ok()) {
                *error = flatmorph::variant_name(filter, s.type.c_str(), s.tag) + " failed with status " +
                         std::to_string(status.code) + ": " + status.message;
                return false;
            }
        }
        std::nth_element(seconds.begin(), seconds.begin() + seconds.size() / 2, seconds.end());
        timings->push_back({name, w * static_cast<double>(h) / 1e6 / seconds[seconds.size() / 2]});
        panels->push_back({name, to_grey(result, s.input.bits, residual(filter)), residual(filter)});
        if (!write_png(output_path(s, name), panels->back().image, error)) return false;
    }
    return true;
}

template <typename T>
bool run_filters(const Setup &s, std::string *error) {
    const Raster<T> image = to_element_type<T>(s.input);
    std::vector<Panel> panels = {{"input", to_grey(image, s.input.bits, false)}};
    if (!write_png(output_path(s, "input"), panels.back().image, error)) return false;

    std::vector<Timing> timings;
    if (!time_filters(s, image, &timings, &panels, error)) return false;
    panels.push_back({s.mask.describe(), mask_picture(s.mask)});

    const std::string title = "flatmorph  " + s.type + "  " + flatmorph::tag_name(s.tag) + "  " +
                              std::to_string(image.width) + "x" + std::to_string(image.height);
    if (!write_contact_sheet(output_path(s, "contact-sheet"), title, panels, 4, error)) return false;
    print_report(s, timings);
    return true;
}

using Runner = bool (*)(const Setup &, std::string *);

template <typename T>
std::pair<const char *, Runner> runner() {
    return {flatmorph::Element<T>::name, run_filters<T>};
}

const std::vector<std::pair<const char *, Runner>> &runners() {
    static const std::vector<std::pair<const char *, Runner>> table = {
        runner<bool>(),     runner<int8_t>(),   runner<uint8_t>(), runner<int16_t>(), runner<uint16_t>(),
        runner<int32_t>(), runner<uint32_t>(), runner<float>(),   runner<double>(),
    };
    return table;
}

int fail(const std::string &message, int code) {
    std::fprintf(stderr, "flatmorph_demo: error: %s\n", message.c_str());
    return code;
}

int run(int argc, char **argv) {
    Setup s;
    CLI::App app("", "flatmorph_demo");
    std::vector<std::string> types;
    for (const auto &r : runners()) types.push_back(r.first);
    declare_options(app, s.options, types);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        std::fputs(app.help().c_str(), stdout);
        return 0;
    } catch (const CLI::ParseError &e) {
        return fail(e.what(), kUsageError);
    }

    const flatmorph::CpuFeatures &cpu = flatmorph::this_cpu();
    s.tag = s.options.tag_forced ? s.options.tag : flatmorph::best_tag(cpu);
    if (!flatmorph::can_run(s.tag, cpu))
        return fail(std::string("this processor cannot run tag ") + flatmorph::tag_name(s.tag) + ": it lacks " +
                        flatmorph::missing_features(s.tag, cpu),
                    kUsageError);

    std::string error;
    if (s.options.input.empty()) {
        s.source = "built-in micrograph";
        s.input = synthetic_micrograph(s.options.width, s.options.height);
    } else if (!read_grey_image(s.options.input, &s.input, &error)) {
        return fail(error, kRunError);
    } else {
        s.source = s.options.input;
    }

    s.type = s.options.type.empty() ? (s.input.bits == 8 ? "uint8" : "uint16") : s.options.type;
    const auto &table = runners();
    const auto chosen = std::find_if(table.begin(), table.end(), [&](const auto &r) { return s.type == r.first; });

    s.mask = make_mask(s.options.mask, s.options.size);
    if (s.mask.width > s.input.width || s.mask.height > s.input.height)
        return fail("mask " + s.mask.describe() + " is larger than the " + std::to_string(s.input.width) + "x" +
                        std::to_string(s.input.height) + " image",
                    kUsageError);

    std::error_code ec;
    std::filesystem::create_directories(s.options.output, ec);
    if (ec) return fail("cannot create output folder " + s.options.output + ": " + ec.message(), kRunError);

    return chosen->second(s, &error) ? 0 : fail(error, kRunError);
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        return fail(e.what(), kRunError);
    }
}
