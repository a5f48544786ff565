#include <vlmcore/strings.h>

namespace Velmor {

bool IString::MapCodepoint(unsigned int& codePoint, TPair<Math::TRange<unsigned int>, unsigned int> const& map)
{
    if (!map.first.Contains(codePoint))
        return false;
    codePoint = codePoint - map.first.lower + map.second;
    return true;
}

bool IString::MapCodepoint(unsigned int& codePoint,
                           TVector<TPair<Math::TRange<unsigned int>, unsigned int>, 1> const& maps)
{
    for (auto const& map : maps) {
        if (MapCodepoint(codePoint, map))
            return true;
    }
    return false;
}

} // namespace Velmor
