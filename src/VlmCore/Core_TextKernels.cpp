#include "Core_TextKernels.h"

#include "Core_ProcessorFeatures.h"

#include <atomic>

namespace Velmor::TextKernels {

SKernels const PlainKernels{};

namespace {

SKernels const& GetSet(ELevel level)
{
    switch (level) {
    case ELevel::AVX512:
        return AVX512Kernels;
    case ELevel::AVX2:
        return AVX2Kernels;
    case ELevel::SSE2:
        return SSE2Kernels;
    default:
        return PlainKernels;
    }
}

/// Null until text is first used. Every thread would choose the same, so no order is needed.
constinit std::atomic<SKernels const*> g_chosen{nullptr};

SKernels const& Choose()
{
    SKernels const& best = GetSet(GetBestLevel());
    g_chosen.store(&best, std::memory_order_relaxed);
    return best;
}

} // namespace

SKernels const& Get()
{
    SKernels const* const chosen = g_chosen.load(std::memory_order_relaxed);
    return chosen != nullptr ? *chosen : Choose();
}

ELevel GetBestLevel()
{
#if defined(__x86_64__) || defined(_M_X64)
    SProcessorFeatures const& features = GetProcessorFeatures();
    return features.avx512Bytes ? ELevel::AVX512 : features.avx2 ? ELevel::AVX2 : ELevel::SSE2;
#else
    return ELevel::Plain;
#endif
}

bool Force(ELevel level)
{
    if (level > GetBestLevel())
        return false;
    g_chosen.store(&GetSet(level), std::memory_order_relaxed);
    return true;
}

} // namespace Velmor::TextKernels
