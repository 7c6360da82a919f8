#pragma once

#if defined(__SSE__) || defined(__x86_64__)
#include <xmmintrin.h>
#define ARBO_HAVE_MXCSR 1
#endif

#include <cstdint>

// Floating-point numbers too small for the normal range ("denormals") are
// computed in microcode on x86, tens of times slower than normal ones. A
// decaying filter or envelope walks right into that range as a note fades,
// so a release would cost more than the note itself. Pd does not switch
// them off; the audio thread does, by setting flush-to-zero (results that
// would be denormal become 0) and denormals-are-zero (denormal inputs read
// as 0). The cost is a register read and write.
namespace Denormals {

#ifdef ARBO_HAVE_MXCSR
constexpr unsigned int MXCSR_DAZ = 0x0040;
constexpr unsigned int MXCSR_FTZ = 0x8000;
#endif

// Switches flush-to-zero and denormals-are-zero on for the calling thread.
inline void flushToZero() noexcept
{
#ifdef ARBO_HAVE_MXCSR
    _mm_setcsr(_mm_getcsr() | MXCSR_DAZ | MXCSR_FTZ);
#elif defined(__aarch64__)
    std::uint64_t fpcr;
    __asm__ __volatile__("mrs %0, fpcr" : "=r"(fpcr));
    __asm__ __volatile__("msr fpcr, %0" : : "r"(fpcr | (std::uint64_t(1) << 24)));
#endif
}

// Whether the calling thread flushes denormals (false where unknown).
inline bool isFlushingToZero() noexcept
{
#ifdef ARBO_HAVE_MXCSR
    return (_mm_getcsr() & (MXCSR_DAZ | MXCSR_FTZ)) == (MXCSR_DAZ | MXCSR_FTZ);
#elif defined(__aarch64__)
    std::uint64_t fpcr;
    __asm__ __volatile__("mrs %0, fpcr" : "=r"(fpcr));
    return (fpcr & (std::uint64_t(1) << 24)) != 0;
#else
    return false;
#endif
}

// Sets the mode for the calling thread for the scope's lifetime and restores
// the previous one after: for measurements that compare both modes.
class Scope
{
public:
    explicit Scope(bool flush) noexcept
    {
#ifdef ARBO_HAVE_MXCSR
        mSaved = _mm_getcsr();
        const unsigned int bits = MXCSR_DAZ | MXCSR_FTZ;
        _mm_setcsr(flush ? (mSaved | bits) : (mSaved & ~bits));
#else
        if (flush) {
            flushToZero();
        }
#endif
    }
    ~Scope()
    {
#ifdef ARBO_HAVE_MXCSR
        _mm_setcsr(mSaved);
#endif
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
#ifdef ARBO_HAVE_MXCSR
    unsigned int mSaved = 0;
#endif
};

} // namespace Denormals
