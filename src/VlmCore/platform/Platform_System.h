/// \file
/// The seam to the processor, the memory figures and the clock. Nothing here fails, allocates or throws; any thread.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// Processor features by the numbers that Windows gives them.
namespace EProcessorFeature {
enum Type : u32 { MMX = 3, ThreeDNow = 7, SSE2 = 10 };
} // namespace EProcessorFeature

/// What the processor's identification instruction returns.
struct SProcessorRegisters {
    u32 eax;
    u32 ebx;
    u32 ecx;
    u32 edx;
};

/// Bytes; both are totals, not what is free.
struct SMemoryFigures {
    u64 physical;    ///< memory of the machine
    u64 commitLimit; ///< memory plus paging space
};

/// Logical processors that the system runs; at least 1.
[[nodiscard]] u32 GetProcessorCount();

/// Whether the system reports the feature usable.
[[nodiscard]] bool HasProcessorFeature(EProcessorFeature::Type feature);

/// The identification instruction for a leaf and a subleaf. A leaf that the processor lacks gives what it gives.
[[nodiscard]] SProcessorRegisters IdentifyProcessor(u32 leaf, u32 subleaf);

/// Which register files the system saves for its threads, as the extended control register 0 has it: bits 1 and 2 for
/// SSE and AVX, bits 5 to 7 for AVX-512; 0 where the system does not say. A vector instruction is usable only when the
/// processor and these bits have it.
[[nodiscard]] u64 GetEnabledRegisterState();

/// Zeros when the system does not tell.
[[nodiscard]] SMemoryFigures GetMemoryFigures();

/// A counter that only grows, at the pace of all processors alike.
[[nodiscard]] u64 GetPerformanceCounter();

/// Counts per second; constant while the system runs.
[[nodiscard]] u64 GetPerformanceFrequency();

/// The processor's own counter, for which no system is asked: a third of the price of GetPerformanceCounter. How fast
/// it runs is not known. It starts over when the machine wakes, and may differ between processors.
[[nodiscard]] u64 GetTicks();

/// Whether the counter keeps its pace whatever the processor saves or spends.
[[nodiscard]] bool HasSteadyTicks();

} // namespace Velmor::Platform
