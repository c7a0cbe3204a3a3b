// Which instruction-set tag of the flatmorph pipelines this processor can run.
//
// The library itself never looks at the processor: calling an avx or avx2
// variant on a machine without those instructions ends in an illegal-instruction
// fault. A host reads the features once, then picks the widest tag they allow.
// Reading the registers is a thin wrapper; decoding them and choosing the tag
// are pure functions, so they can be checked on any register values.
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

// The processor features the tags depend on, and whether the operating system
// saves the SSE and AVX register state on a context switch (without that the
// AVX instructions fault even on a processor that has them).
struct CpuFeatures {
    bool sse41 = false, avx = false, avx2 = false, fma = false, bmi1 = false;
    bool os_avx_state = false;
};

// The registers the features are decoded from.
struct CpuidRegisters {
    uint32_t leaf1_ecx = 0;  // CPUID leaf 1
    uint32_t leaf7_ebx = 0;  // CPUID leaf 7, sub-leaf 0
    uint64_t xcr0 = 0;       // XGETBV(0); meaningful only when leaf 1 reports OSXSAVE
};

// The OS saves the AVX state only if it has enabled XSAVE (OSXSAVE) and set
// both XCR0 bit 1 (SSE state) and bit 2 (AVX state): the upper halves of the
// YMM registers are lost on a context switch without bit 2.
inline CpuFeatures decode_cpu_features(const CpuidRegisters &r) {
    const auto has = [](uint64_t reg, uint64_t bits) { return (reg & bits) == bits; };
    return {has(r.leaf1_ecx, bit_SSE4_1), has(r.leaf1_ecx, bit_AVX), has(r.leaf7_ebx, bit_AVX2),
            has(r.leaf1_ecx, bit_FMA),    has(r.leaf7_ebx, bit_BMI), has(r.leaf1_ecx, bit_OSXSAVE) && has(r.xcr0, 0x6)};
}

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

// The registers of the processor this runs on. XGETBV faults unless the OS
// has enabled XSAVE, so XCR0 is read only then.
inline CpuidRegisters read_cpuid_registers() {
    CpuidRegisters r;
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return r;
    r.leaf1_ecx = ecx;
    if (ecx & bit_OSXSAVE) {
        uint32_t low = 0, high = 0;
        __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
        r.xcr0 = static_cast<uint64_t>(high) << 32 | low;
    }
    if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) r.leaf7_ebx = ebx;
    return r;
}

// The features of the processor this runs on, read once.
inline const CpuFeatures &this_cpu() {
    static const CpuFeatures cpu = decode_cpu_features(read_cpuid_registers());
    return cpu;
}

}  // namespace flatmorph
