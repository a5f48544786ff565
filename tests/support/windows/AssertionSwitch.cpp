#include "../AssertionSwitch.h"

#include <windows.h>

namespace TestSupport {

namespace {
constexpr char Key[] = "Software\\Velmor";
constexpr char Value[] = "SuppressAssertions";
} // namespace

CAssertionSwitch::CAssertionSwitch(unsigned value)
{
    DWORD const number = value;
    ::RegSetKeyValueA(HKEY_CURRENT_USER, Key, Value, REG_DWORD, &number, sizeof number);
}

CAssertionSwitch::~CAssertionSwitch()
{
    ::RegDeleteKeyValueA(HKEY_CURRENT_USER, Key, Value);
}

} // namespace TestSupport
