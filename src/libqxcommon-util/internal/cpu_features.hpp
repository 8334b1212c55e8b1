// Run-time detection of the vector instructions the codecs may use.
#pragma once

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#define QX_HAVE_X86_DISPATCH 1
#endif

namespace qx::detail {

#ifdef QX_HAVE_X86_DISPATCH

// 0: not probed yet, 1: no AVX2, 2: AVX2 usable. A plain int with a constant
// initialiser: probing twice from two threads is harmless, as both find the
// same answer.
inline int avx2_state = 0;

inline int probe_avx2() noexcept {
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    bool usable = false;
    if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_OSXSAVE) != 0 &&
        (ecx & bit_AVX) != 0) {
        unsigned int xcr0_low = 0, xcr0_high = 0;
        // The operating system must save the vector registers (XMM and YMM).
        __asm__("xgetbv" : "=a"(xcr0_low), "=d"(xcr0_high) : "c"(0));
        if ((xcr0_low & 0x6U) == 0x6U && __get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx))
            usable = (ebx & bit_AVX2) != 0;
    }
    const int state = usable ? 2 : 1;
    __atomic_store_n(&avx2_state, state, __ATOMIC_RELAXED);
    return state;
}

inline bool have_avx2() noexcept {
    int state = __atomic_load_n(&avx2_state, __ATOMIC_RELAXED);
    if (state == 0)
        state = probe_avx2();
    return state == 2;
}

#else

constexpr bool have_avx2() noexcept {
    return false;
}

#endif

} // namespace qx::detail
