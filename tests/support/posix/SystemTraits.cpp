#include "../SystemTraits.h"

namespace TestSupport {

SSystemTraits const SystemTraits = {
    .stackWalkEndsAtThreadStart = true,
};

} // namespace TestSupport
