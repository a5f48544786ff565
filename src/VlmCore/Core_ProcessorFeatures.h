/// \file
/// Which vector instructions may be used, for code that chooses its path once at run time.
#pragma once

/// Lets one function use instructions that the rest of the library does not require. Its helpers need the same mark.
#if defined(__GNUC__) || defined(__clang__)
#  define VLM_TARGET(features) __attribute__((target(features)))
#else
#  define VLM_TARGET(features)
#endif

namespace Velmor {

/// True when the processor has the instructions and the system saves their registers.
struct SProcessorFeatures {
    bool carrylessMultiply;     ///< PCLMULQDQ with SSSE3 and SSE4.1
    bool avx2;                  ///< AVX2, and BMI1 and BMI2, which came with it
    bool avx512;                ///< AVX-512 F, BW, DQ and VL
    bool avx512Bytes;           ///< AVX-512 VBMI and VBMI2 besides, with AVX2 and BMI2
    bool wideCarrylessMultiply; ///< VPCLMULQDQ on 512-bit registers
};

/// Asks the processor, once per process. Any thread.
[[nodiscard]] SProcessorFeatures const& GetProcessorFeatures();

} // namespace Velmor
