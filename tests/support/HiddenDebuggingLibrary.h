/// \file
/// Keeps the system's debugging library from children, for the length of a scope. Children started within it do
/// without.
#pragma once

namespace TestSupport {

class CHiddenDebuggingLibrary {
public:
    CHiddenDebuggingLibrary();
    CHiddenDebuggingLibrary(CHiddenDebuggingLibrary const&) = delete;
    CHiddenDebuggingLibrary& operator=(CHiddenDebuggingLibrary const&) = delete;
    ~CHiddenDebuggingLibrary();

    /// False where the library cannot be hidden: Windows itself always has it.
    [[nodiscard]] static bool IsPossible();
};

} // namespace TestSupport
