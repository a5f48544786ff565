/// \file
/// Where the systems differ in what a test may expect of them; not of the library.
#pragma once

namespace TestSupport {

struct SSystemTraits {
    /// The system's stack walk stops where the thread started. Wine's goes on into memory that holds no frames.
    bool stackWalkEndsAtThreadStart;

    /// A failed assertion asks on the terminal; a process without one cannot ask.
    bool questionNeedsTerminal;

    /// A kill may end a write of the killed process between two pages of the file. Wine kills as Linux does, but its
    /// programs cannot guard against it.
    bool killMayCutWrites;

    /// The name of the exception that an instruction for the system alone raises.
    char const* privilegedInstructionException;

    /// The system can write a dump of the running process.
    bool writesMinidumps;

    /// A stack overflow reaches the crash handler. Wine keeps no stack for it and ends the thread instead.
    bool reportsStackOverflow;

    /// C++ exceptions work in a process that is being debugged. Wine 8 loses itself in access violations on the first.
    bool debuggedProcessMayThrow;

    /// A process that ends has its other threads ended before its modules go. Elsewhere they run on meanwhile.
    bool endsThreadsBeforeModules;

    /// Exit code of a process that its access violation ended, after the crash report.
    unsigned accessViolationExitCode;
};

extern SSystemTraits const SystemTraits;

/// The lowest priority that a thread of this process can have as things stand. Linux: priorities are nice values
/// relative to the process's, and a process that was started with a high one has little room below it, or none.
[[nodiscard]] int GetLowestThreadPriority();

} // namespace TestSupport
