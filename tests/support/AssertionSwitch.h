/// \file
/// The user's setting that suppresses assertions, for the length of a scope. Children started within it have it.
#pragma once

namespace TestSupport {

class CAssertionSwitch {
public:
    /// Sets the switch: on Windows the registry value, on Linux the environment variable.
    explicit CAssertionSwitch(unsigned value);
    CAssertionSwitch(CAssertionSwitch const&) = delete;
    CAssertionSwitch& operator=(CAssertionSwitch const&) = delete;
    /// Removes the setting.
    ~CAssertionSwitch();
};

} // namespace TestSupport
