#include "../AssertionSwitch.h"

#include <cstdlib>
#include <string>

namespace TestSupport {

CAssertionSwitch::CAssertionSwitch(unsigned value)
{
    ::setenv("VELMOR_SUPPRESS_ASSERTIONS", std::to_string(value).c_str(), 1);
}

CAssertionSwitch::~CAssertionSwitch()
{
    ::unsetenv("VELMOR_SUPPRESS_ASSERTIONS");
}

} // namespace TestSupport
