#include "../SystemTraits.h"

namespace TestSupport {

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = false,
};

} // namespace TestSupport
