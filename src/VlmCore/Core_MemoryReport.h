// Reports at shutdown: a logger that is still installed may be unable to write any more, which stops nothing.
#pragma once

#include <utility>

namespace Velmor {

template <class Action>
void RunQuietly(Action&& action) noexcept
{
    try {
        std::forward<Action>(action)();
    }
    catch (...) {
        // There is nobody left to tell.
    }
}

} // namespace Velmor
