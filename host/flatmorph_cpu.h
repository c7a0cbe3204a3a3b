// Which instruction-set tag of the flatmorph pipelines this processor can run.
//
// The library itself never looks at the processor: calling an avx or avx2
// variant on a machine without those instructions ends in an illegal-instruction
// fault. A host reads the features once, then picks the widest tag they allow.
// The choice is a pure function of a CpuFeatures value, so it can be checked
// against any feature set, not only the machine at hand.
#pragma once

#include <cpuid.h>

#include <cstdint>
#include <string>

namespace flatmorph {

enum class Tag { none, avx, avx2 };

inline const char *tag_name(Tag tag) {
    switch (tag) {
    case Tag::avx: return "avx";
    case Tag::avx2: return "avx2";
    default: return "none";
    }
}

// Sets `*tag` and returns true if `name` is none, avx or avx2.
inline bool parse_tag(const std::string &name, Tag *tag) {
    for (Tag t : {Tag::none, Tag::avx, Tag::avx2})
        if (name == tag_name(t)) {
            *tag = t;
            return true;
        }
    return false;
}

// The processor features the tags depend on, and whether the operating system
// saves the SSE and AVX register state on a context switch (without that the
// AVX instructions fault even on a processor that has them).
struct CpuFeatures {
    bool sse41 = false;
    bool avx = false;
    bool avx2 = false;
    bool fma = false;
    bool bmi1 = false;
    bool os_avx_state = false;  // XCR0 bits 1 (SSE) and 2 (AVX), read by XGETBV
};

// What `tag` needs that `cpu` lacks, as space-separated names; empty if the tag
// runs. `none` needs only the x86-64 baseline. `avx2` code is compiled for AVX
// and SSE4.1 as well, so it needs everything `avx` needs.
inline std::string missing_features(Tag tag, const CpuFeatures &cpu) {
    std::string missing;
    auto need = [&missing](bool present, const char *name) {
        if (!present) missing += missing.empty() ? name : std::string(" ") + name;
    };
    if (tag == Tag::none) return missing;
    need(cpu.avx, "avx");
    need(cpu.sse41, "sse4.1");
    need(cpu.os_avx_state, "os-avx-state");
    if (tag == Tag::avx2) {
        need(cpu.avx2, "avx2");
        need(cpu.fma, "fma");
        need(cpu.bmi1, "bmi1");
    }
    return missing;
}

inline bool can_run(Tag tag, const CpuFeatures &cpu) { return missing_features(tag, cpu).empty(); }

// The widest tag that `cpu` runs.
inline Tag best_tag(const CpuFeatures &cpu) {
    if (can_run(Tag::avx2, cpu)) return Tag::avx2;
    if (can_run(Tag::avx, cpu)) return Tag::avx;
    return Tag::none;
}

// Reads CPUID leaves 1 and 7 and, where the OS has enabled XSAVE, XCR0.
inline CpuFeatures detect_cpu_features() {
    CpuFeatures cpu;
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return cpu;
    cpu.sse41 = ecx & bit_SSE4_1;
    cpu.fma = ecx & bit_FMA;
    cpu.avx = ecx & bit_AVX;
    if (ecx & bit_OSXSAVE) {
        uint32_t xcr0_low = 0, xcr0_high = 0;
        __asm__ volatile("xgetbv" : "=a"(xcr0_low), "=d"(xcr0_high) : "c"(0));
        cpu.os_avx_state = (xcr0_low & 0x6) == 0x6;
    }
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) {
        cpu.avx2 = ebx & bit_AVX2;
        cpu.bmi1 = ebx & bit_BMI;
    }
    return cpu;
}

// The features of the processor this runs on, read once.
inline const CpuFeatures &this_cpu() {
    static const CpuFeatures cpu = detect_cpu_features();
    return cpu;
}

}  // namespace flatmorph
