#include <vlmcore/exceptions.h>
#include <vlmcore/impl/Core_Map.h>

namespace Velmor::Impl {

void ThrowMapError(int line, char const* sentence)
{
    throw CException("include/vlmcore/impl/Core_Map.h(%d): %s", line, sentence);
}

} // namespace Velmor::Impl
