/// \file
/// Conversions between numbers and text give the same digits whatever a host has done to its thread's floating-point
/// environment: rounding mode, unmasked exceptions, subnormal numbers flushed to zero.
#pragma once

#include <vlmcore/types.h>

#include <xmmintrin.h>

namespace Velmor {

/// While it lives, this thread rounds to nearest, keeps subnormal numbers and has every exception masked. Afterwards
/// all is as before, the flags of exceptions that happened meanwhile included: none is left behind.
class CDefaultFloatEnvironment {
public:
    CDefaultFloatEnvironment() : m_control(_mm_getcsr()) { _mm_setcsr(Default); }
    CDefaultFloatEnvironment(CDefaultFloatEnvironment const&) = delete;
    CDefaultFloatEnvironment& operator=(CDefaultFloatEnvironment const&) = delete;
    ~CDefaultFloatEnvironment() { _mm_setcsr(m_control); }

    /// Whether this thread has that environment anyway. (Reading it costs a few cycles, changing it many more.)
    [[nodiscard]] static bool IsGiven() { return (_mm_getcsr() & ~Flags) == Default; }

private:
    static constexpr u32 Default = _MM_MASK_MASK; // all else is 0
    static constexpr u32 Flags = _MM_EXCEPT_MASK;

    u32 m_control;
};

/// Calls `function` in the default floating-point environment.
template <class Result, class... Parameters>
[[nodiscard]] inline Result CallInDefaultFloatEnvironment(Result (*function)(Parameters...), Parameters... arguments)
{
    if (CDefaultFloatEnvironment::IsGiven()) [[likely]]
        return function(arguments...);
    // Compilers take floating-point arithmetic for independent of the environment, and may move it. They cannot move
    // what they cannot see.
    Result (*const volatile hidden)(Parameters...) = function;
    CDefaultFloatEnvironment const environment;
    return hidden(arguments...);
}

} // namespace Velmor
