#include "../SystemTraits.h"

namespace TestSupport {

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = false,
    .questionNeedsTerminal = false,
};

} // namespace TestSupport
