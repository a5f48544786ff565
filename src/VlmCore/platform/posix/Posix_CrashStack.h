/// \file
/// A stack for the signals of one thread, so that a crash is reported also when its own stack is used up.
#pragma once

namespace Velmor::Platform {

/// Gives the calling thread a signal stack for the length of a scope, if a crash handler is installed and the thread
/// has none. Every thread that the library starts holds one.
class CCrashStack {
public:
    CCrashStack();
    CCrashStack(CCrashStack const&) = delete;
    CCrashStack& operator=(CCrashStack const&) = delete;
    ~CCrashStack();

private:
    void* m_memory = nullptr;
};

} // namespace Velmor::Platform
