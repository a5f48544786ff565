/// \file
/// Turns the identification of a processor into System::SCPUInfo, apart from the processor it runs on.
#pragma once

#include <vlmcore/system.h>

#include "platform/Platform_System.h"

namespace Velmor {

/// What FillProcessorInfo asks; the functions of Platform_System.h, or a test's description of some processor.
struct SProcessorSource {
    u32 processorCount;
    bool (*hasFeature)(Platform::EProcessorFeature::Type feature);
    Platform::SProcessorRegisters (*identify)(u32 leaf, u32 subleaf);
};

/// Sets every field of `info`.
void FillProcessorInfo(SProcessorSource const& source, System::SCPUInfo& info);

} // namespace Velmor
