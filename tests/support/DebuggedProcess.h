/// \file
/// Runs a part of a test program as a child process: under a debugger that collects its debugger output, or alone.
/// For everything that ends a process, that only a debugger sees, or that a process can do only once.
///
///     VLMCORE_CHILD(PrintsOneLine)            // runs in the child, instead of the tests; its result is the exit code
///     {
///         Debug::Print("%d\n", 5);
///         return 3;
///     }
///     TEST(Print, ReachesTheDebugger)
///     {
///         auto const child = TestSupport::RunDebugged("PrintsOneLine");
///         EXPECT_EQ(child.debuggerOutput, "5\n");
///         EXPECT_EQ(child.exitCode, 3u);
///     }
///
/// A child starts without a library heap: the global test environments do not run in it.
///
/// Debugger output. Windows: what the process hands to the system's debugger-output function, each piece in order.
/// Linux: a debugger is whatever traces the process, and the output is its standard error.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

/// How to answer the question that a failed assertion asks. Windows: a button of the message box, with a Control key
/// held for IgnoreForGood. Linux: a letter typed on the terminal.
enum class EAnswer { Abort, Retry, Ignore, IgnoreForGood };

/// How to run a child; the defaults run it alone and quiet.
struct SChildOptions {
    SChildOptions() = default; // not an aggregate: braces around one argument of a child are that argument

    bool debugged = false;                                          ///< under a debugging parent
    bool leavesBlocks = false;                                      ///< on purpose: no business of a sanitizer's
    std::vector<std::string> arguments;                             ///< what the child finds in GetChildArguments
    std::vector<std::pair<std::string, std::string>> environment{}; ///< variables added to the parent's
    std::string folder;                                             ///< current folder; empty: the parent's
    std::string program;                                            ///< executable; empty: this test program
    std::vector<EAnswer> answers;                                   ///< one for each question the child will ask
    unsigned timeoutSeconds = 240;                                  ///< then the child is killed
    unsigned killAfterMilliseconds = 0;                             ///< when not 0, takes the place of the timeout

    [[nodiscard]] unsigned GetTimeoutMilliseconds() const
    {
        return killAfterMilliseconds != 0 ? killAfterMilliseconds : timeoutSeconds * 1000;
    }
};

/// What became of a child.
struct SChildResult {
    bool started = false;
    bool timedOut = false;
    std::uint32_t exitCode = 0; ///< exit code; Windows: an exception's code when one ended it; 128 + signal on Linux
    int signal = 0;             ///< Linux: the signal that ended it, else 0
    std::uint32_t processId = 0;
    std::string debuggerOutput; ///< empty for a child that was not debugged
    std::string standardOutput; ///< line ends as "\n" on both systems
    std::string standardError;
    std::vector<std::string> questions;   ///< the texts of the questions that were answered
    std::vector<std::string> captions;    ///< their captions
    std::vector<std::string> threadNames; ///< Windows, debugged: names announced to the debugger, in order
};

/// Runs a child that VLMCORE_CHILD declared, to its end.
[[nodiscard]] SChildResult RunChild(std::string const& name, SChildOptions const& options);
[[nodiscard]] SChildResult RunChild(std::string const& name, std::vector<std::string> const& arguments = {});
[[nodiscard]] SChildResult RunDebugged(std::string const& name, std::vector<std::string> const& arguments = {});

/// False where no question can be shown: on Windows without a display.
[[nodiscard]] bool CanAnswerQuestions();

/// In a child: the arguments of its options.
[[nodiscard]] std::vector<std::string> const& GetChildArguments();

/// Declares a child; use VLMCORE_CHILD.
struct SChildDeclaration {
    SChildDeclaration(char const* name, int (*body)());
};

// The platform's part, one file per system.

/// Full path of the running program.
[[nodiscard]] std::string GetProgramPath();
/// Starts the program with the arguments (the first is not the program) and follows it to its end.
[[nodiscard]] SChildResult RunProgram(std::string const& program, std::vector<std::string> const& arguments,
                                      SChildOptions const& options);

} // namespace TestSupport

/// Declares the body of a child process; a function body that returns int follows.
#define VLMCORE_CHILD(name)                                                                                            \
    static int VlmCoreChild_##name();                                                                                  \
    static ::TestSupport::SChildDeclaration const vlmCoreChildDeclaration_##name{#name, &VlmCoreChild_##name};         \
    static int VlmCoreChild_##name()
