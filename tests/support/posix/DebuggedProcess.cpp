// Child processes on posix systems: fork, trace when a debugger is wanted, collect both outputs.
#include "../DebuggedProcess.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace TestSupport {

namespace {

/// Both ends of a pipe, closed in any other program.
struct SPipe {
    int readEnd = -1;
    int writeEnd = -1;

    SPipe(int read, int write) : readEnd(read), writeEnd(write) {}

    SPipe()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) == 0) {
            readEnd = ends[0];
            writeEnd = ends[1];
        }
    }
};

void ReadToEnd(int descriptor, std::string& text)
{
    std::array<char, 4096> part;
    for (;;) {
        ssize_t const count = ::read(descriptor, part.data(), part.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    ::close(descriptor);
}

/// A terminal whose user is this program. Nothing is echoed and line ends stay as they are.
struct STerminal {
    int userEnd = -1;
    int childEnd = -1;

    STerminal(int user, int child) : userEnd(user), childEnd(child) {}

    STerminal()
    {
        userEnd = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (userEnd < 0 || ::grantpt(userEnd) != 0 || ::unlockpt(userEnd) != 0)
            return;
        childEnd = ::open(::ptsname(userEnd), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios settings{};
        ::tcgetattr(childEnd, &settings);
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        ::tcsetattr(childEnd, TCSANOW, &settings);
    }
};

/// Collects what the child writes to its terminal, and types an answer whenever it asks.
void Converse(int terminal, std::vector<EAnswer> const& answers, SChildResult& result)
{
    static constexpr char Prompt[] = "(a)bort, (r)etry, (i)gnore, ignore (f)or good? ";
    std::size_t answered = 0;
    std::size_t questionStart = 0;
    std::array<char, 4096> part;
    for (;;) {
        ssize_t const count = ::read(terminal, part.data(), part.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) // the child's end is closed: an error on a terminal
            break;
        std::string& text = result.standardError;
        text.append(part.data(), static_cast<std::size_t>(count));
        std::size_t const prompt = text.find(Prompt, questionStart);
        if (prompt == std::string::npos || answered == answers.size())
            continue;
        // Blank line, caption, blank line, text.
        std::string const question = text.substr(questionStart, prompt - questionStart);
        std::size_t const captionStart = question.rfind("\n/") + 1;
        std::size_t const captionEnd = question.find("\n\n", captionStart);
        result.captions.push_back(question.substr(captionStart, captionEnd - captionStart));
        result.questions.push_back(question.substr(captionEnd + 2, question.size() - captionEnd - 3));
        questionStart = prompt + sizeof Prompt - 1;
        static constexpr char Letters[] = "arif";
        char const line[2] = {Letters[static_cast<int>(answers[answered++])], '\n'};
        if (::write(terminal, line, sizeof line) != static_cast<ssize_t>(sizeof line))
            break;
    }
    ::close(terminal);
}

/// Runs in the new process; nothing here may allocate.
[[noreturn]] void BecomeChild(char const* program, char* const* arguments, char* const* environment, char const* folder,
                              int input, int output, int error, bool debugged)
{
    ::setsid(); // away from the terminal of the tests, if they have one
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(error, STDERR_FILENO);
    if (folder != nullptr && ::chdir(folder) != 0)
        ::_exit(126);
    if (debugged && ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        ::_exit(125);
    ::execve(program, arguments, environment);
    ::_exit(127);
}

/// The parent's variables, replaced and followed by the options'.
std::vector<std::string> BuildEnvironment(SChildOptions const& options)
{
    auto additions = options.environment;
    if (options.debugged || options.leavesBlocks) {
        // The leak sanitizer traces its own process, too, which a debugged one cannot have.
        char const* const given = std::getenv("ASAN_OPTIONS");
        additions.emplace_back("ASAN_OPTIONS", (given != nullptr ? std::string(given) + ":" : "") + "detect_leaks=0");
    }
    std::vector<std::string> result;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        std::string const text = *variable;
        bool replaced = false;
        for (auto const& [name, value] : additions)
            replaced = replaced || text.rfind(name + "=", 0) == 0;
        if (!replaced)
            result.push_back(text);
    }
    for (auto const& [name, value] : additions)
        result.push_back(name + "=" + value);
    return result;
}

std::vector<char*> MakePointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// Waits for the end of the child; a stop of a traced child is continued with the signal that caused it.
void Follow(pid_t child, SChildOptions const& options, SChildResult& result)
{
    auto const deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(options.GetTimeoutMilliseconds());
    bool seenStart = false;
    for (;;) {
        int status = 0;
        pid_t const found = ::waitpid(child, &status, WNOHANG);
        if (found == 0 || (found < 0 && errno == EINTR)) {
            if (!result.timedOut && std::chrono::steady_clock::now() > deadline) {
                result.timedOut = true;
                ::kill(child, SIGKILL);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        if (found < 0)
            return;
        if (WIFEXITED(status)) {
            result.exitCode = static_cast<std::uint32_t>(WEXITSTATUS(status));
            return;
        }
        if (WIFSIGNALED(status)) {
            result.signal = WTERMSIG(status);
            result.exitCode = 128u + static_cast<std::uint32_t>(result.signal);
            return;
        }
        int deliver = WSTOPSIG(status);
        if (!seenStart && deliver == SIGTRAP) { // the stop that starting the program itself causes
            seenStart = true;
            deliver = 0;
        }
        ::ptrace(PTRACE_CONT, child, nullptr, static_cast<std::intptr_t>(deliver));
    }
}

} // namespace

bool CanAnswerQuestions()
{
    return true;
}

std::string GetProgramPath()
{
    std::array<char, 4096> path;
    ssize_t const size = ::readlink("/proc/self/exe", path.data(), path.size());
    return size > 0 ? std::string(path.data(), static_cast<std::size_t>(size)) : std::string();
}

SChildResult RunProgram(std::string const& program, std::vector<std::string> const& arguments,
                        SChildOptions const& options)
{
    SChildResult result;
    std::vector<std::string> argumentTexts{program};
    argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environmentTexts = BuildEnvironment(options);
    std::vector<char*> const argumentPointers = MakePointers(argumentTexts);
    std::vector<char*> const environmentPointers = MakePointers(environmentTexts);
    char const* const folder = options.folder.empty() ? nullptr : options.folder.c_str();

    bool const asks = !options.answers.empty();
    SPipe const output;
    SPipe const error = asks ? SPipe(-1, -1) : SPipe();
    STerminal const terminal = asks ? STerminal() : STerminal(-1, -1);
    int const input = asks ? terminal.childEnd : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_t const child = ::fork();
    if (child == 0)
        BecomeChild(program.c_str(), argumentPointers.data(), environmentPointers.data(), folder, input,
                    output.writeEnd, asks ? terminal.childEnd : error.writeEnd, options.debugged);
    ::close(input);
    ::close(output.writeEnd);
    if (!asks)
        ::close(error.writeEnd);
    if (child < 0) {
        ::close(output.readEnd);
        ::close(asks ? terminal.userEnd : error.readEnd);
        return result;
    }
    result.started = true;
    result.processId = static_cast<std::uint32_t>(child);
    std::thread outputReader(ReadToEnd, output.readEnd, std::ref(result.standardOutput));
    std::thread errorReader([&] {
        if (asks)
            Converse(terminal.userEnd, options.answers, result);
        else
            ReadToEnd(error.readEnd, result.standardError);
    });
    Follow(child, options, result);
    outputReader.join();
    errorReader.join();
    if (options.debugged)
        result.debuggerOutput = result.standardError;
    return result;
}

} // namespace TestSupport
