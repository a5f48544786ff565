/// \file
/// What this process has cost so far.
#pragma once

namespace TestSupport {

/// Milliseconds that processors have worked for this process, all threads together. In steps of up to 16.
[[nodiscard]] double GetProcessorMilliseconds();

} // namespace TestSupport
