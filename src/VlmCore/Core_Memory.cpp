#include <vlmcore/memory.h>

namespace Velmor {

CBadAllocation::~CBadAllocation() = default;

char const* CBadAllocation::what() const noexcept
{
    return "bad allocation";
}

} // namespace Velmor
