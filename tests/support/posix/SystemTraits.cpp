#include "../SystemTraits.h"

namespace TestSupport {

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = true,
    .questionNeedsTerminal = true,
    .killMayCutWrites = false,
};

} // namespace TestSupport
