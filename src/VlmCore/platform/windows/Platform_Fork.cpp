#include "../Platform_Fork.h"

namespace Velmor::Platform {

// Copies

void WatchForks(SForkWatch const&) {}

} // namespace Velmor::Platform
