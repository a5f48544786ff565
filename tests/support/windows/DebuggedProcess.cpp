// Child processes on Windows: the parent is the debugger where one is wanted, and collects both outputs.
#include "../DebuggedProcess.h"

#include <chrono>
#include <thread>
#include <windows.h>

namespace TestSupport {

namespace {

constexpr DWORD ThreadNameException = 0x406D1388;

/// Both ends of a pipe; the child inherits the write end.
struct SPipe {
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;

    SPipe()
    {
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        ::CreatePipe(&readEnd, &writeEnd, &inherited, 0);
        ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    }
};

void ReadToEnd(HANDLE pipe, std::string& text)
{
    char part[4096];
    DWORD count = 0;
    while (::ReadFile(pipe, part, sizeof part, &count, nullptr) && count > 0)
        for (DWORD i = 0; i < count; ++i)
            if (part[i] != '\r')
                text.push_back(part[i]);
    ::CloseHandle(pipe);
}

/// An argument as the command-line rules of the C runtime read it back.
std::string Quote(std::string const& argument)
{
    std::string result = "\"";
    std::size_t backslashes = 0;
    for (char const c : argument) {
        if (c == '"')
            result.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        result.push_back(c);
    }
    result.append(backslashes, '\\');
    return result + "\"";
}

/// The variables of this process and the options', as the block that a new process takes.
std::string BuildEnvironment(SChildOptions const& options)
{
    std::string block;
    char* const own = ::GetEnvironmentStringsA();
    for (char const* variable = own; *variable != '\0'; variable += std::string(variable).size() + 1) {
        std::string const text = variable;
        bool replaced = false;
        for (auto const& [name, value] : options.environment)
            replaced = replaced || text.rfind(name + "=", 0) == 0;
        if (!replaced)
            block += text + '\0';
    }
    ::FreeEnvironmentStringsA(own);
    for (auto const& [name, value] : options.environment)
        block += name + "=" + value + '\0';
    return block + '\0';
}

/// Text of the other process, up to its terminator or `limit` bytes.
std::string ReadText(HANDLE process, void const* address, std::size_t limit)
{
    std::string text;
    auto const* at = static_cast<char const*>(address);
    char c = 0;
    SIZE_T count = 0;
    while (text.size() < limit && ::ReadProcessMemory(process, at, &c, 1, &count) && c != '\0') {
        text.push_back(c);
        ++at;
    }
    return text;
}

std::string ReadDebugString(HANDLE process, OUTPUT_DEBUG_STRING_INFO const& info)
{
    std::string text(info.nDebugStringLength, '\0');
    SIZE_T count = 0;
    ::ReadProcessMemory(process, info.lpDebugStringData, text.data(), text.size(), &count);
    text.resize(count);
    return text.c_str(); // up to the terminator
}

/// How the child goes on after an exception that its debugger saw.
DWORD OnException(HANDLE process, EXCEPTION_RECORD const& record, bool& seenStart, SChildResult& result)
{
    if (record.ExceptionCode == EXCEPTION_BREAKPOINT && !seenStart) { // every debugged process starts with one
        seenStart = true;
        return DBG_CONTINUE;
    }
    if (record.ExceptionCode == ThreadNameException && record.NumberParameters >= 2)
        result.threadNames.push_back(
            ReadText(process, reinterpret_cast<void const*>(record.ExceptionInformation[1]), 256));
    return DBG_EXCEPTION_NOT_HANDLED;
}

/// The debugger: runs until the process has ended or its time is over.
void Debug(PROCESS_INFORMATION const& child, SChildOptions const& options, SChildResult& result)
{
    auto const deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(options.GetTimeoutMilliseconds());
    bool seenStart = false;
    for (bool ended = false; !ended;) {
        DEBUG_EVENT event;
        if (!::WaitForDebugEvent(&event, 50)) {
            if (!result.timedOut && std::chrono::steady_clock::now() > deadline) {
                result.timedOut = true;
                ::TerminateProcess(child.hProcess, 253);
            }
            continue;
        }
        DWORD answer = DBG_CONTINUE;
        switch (event.dwDebugEventCode) {
        case OUTPUT_DEBUG_STRING_EVENT:
            result.debuggerOutput += ReadDebugString(child.hProcess, event.u.DebugString);
            break;
        case EXCEPTION_DEBUG_EVENT:
            answer = OnException(child.hProcess, event.u.Exception.ExceptionRecord, seenStart, result);
            break;
        case CREATE_PROCESS_DEBUG_EVENT:
            ::CloseHandle(event.u.CreateProcessInfo.hFile);
            break;
        case LOAD_DLL_DEBUG_EVENT:
            ::CloseHandle(event.u.LoadDll.hFile);
            break;
        case EXIT_PROCESS_DEBUG_EVENT:
            ended = true;
            break;
        default:
            break;
        }
        ::ContinueDebugEvent(event.dwProcessId, event.dwThreadId, answer);
    }
}

bool IsWine()
{
    return ::GetProcAddress(::GetModuleHandleA("ntdll"), "wine_get_version") != nullptr;
}

/// Wine waits two seconds for a window manager's answer about each window, and a display for tests has none.
void DoWithoutWindowManager()
{
    if (IsWine())
        ::RegSetKeyValueA(HKEY_CURRENT_USER, "Software\\Wine\\X11 Driver", "Managed", REG_SZ, "N", 2);
}

/// A crash opens no box and, which takes Wine a minute, no debugger.
void DoWithoutPostMortemDebugger()
{
    ::SetErrorMode(SEM_NOGPFAULTERRORBOX | SEM_FAILCRITICALERRORS); // inherited by the child
    if (IsWine())
        ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Microsoft\\Windows NT\\CurrentVersion\\AeDebug", "Debugger",
                          REG_SZ, "none", 5);
}

/// A message box of the process, or null.
HWND FindMessageBox(DWORD processId)
{
    for (HWND box = nullptr; (box = ::FindWindowExA(nullptr, box, "#32770", nullptr)) != nullptr;) {
        DWORD owner = 0;
        ::GetWindowThreadProcessId(box, &owner);
        if (owner == processId && ::IsWindowVisible(box))
            return box;
    }
    return nullptr;
}

/// The keys as the box's thread sees them: while the inputs of two threads are attached, they share one state.
void HoldControl(DWORD thread, bool hold)
{
    BYTE keys[256] = {};
    ::GetKeyboardState(keys);
    keys[VK_CONTROL] = keys[VK_LCONTROL] = hold ? 0x80 : 0;
    if (hold)
        ::AttachThreadInput(::GetCurrentThreadId(), thread, TRUE);
    ::SetKeyboardState(keys);
    if (!hold)
        ::AttachThreadInput(::GetCurrentThreadId(), thread, FALSE);
}

/// Reads a box and presses a button of it; returns when it is gone.
void AnswerBox(HWND box, EAnswer answer, SChildResult& result)
{
    char text[8192] = {};
    ::GetWindowTextA(box, text, sizeof text);
    result.captions.push_back(text);
    ::SendDlgItemMessageA(box, 0xFFFF, WM_GETTEXT, sizeof text, reinterpret_cast<LPARAM>(text));
    result.questions.push_back(text);
    bool const forGood = answer == EAnswer::IgnoreForGood;
    DWORD const thread = ::GetWindowThreadProcessId(box, nullptr);
    if (forGood)
        HoldControl(thread, true);
    WPARAM const button = answer == EAnswer::Abort ? IDABORT : answer == EAnswer::Retry ? IDRETRY : IDIGNORE;
    ::PostMessageA(box, WM_COMMAND, button, 0);
    for (int i = 0; i < 1000 && ::IsWindow(box); ++i)
        ::Sleep(5);
    if (forGood) {
        ::Sleep(50); // the process asks for the keys after its box has closed
        HoldControl(thread, false);
    }
}

/// The user in front of the boxes of the process, until it has ended.
void AnswerBoxes(PROCESS_INFORMATION const& child, std::vector<EAnswer> const& answers, SChildResult& result)
{
    for (EAnswer const answer : answers) {
        HWND box = nullptr;
        while ((box = FindMessageBox(child.dwProcessId)) == nullptr)
            if (::WaitForSingleObject(child.hProcess, 10) != WAIT_TIMEOUT)
                return;
        AnswerBox(box, answer, result);
    }
}

} // namespace

bool CanAnswerQuestions()
{
    HWND const window = ::CreateWindowA("STATIC", "", WS_POPUP, 0, 0, 1, 1, nullptr, nullptr, nullptr, nullptr);
    if (window != nullptr)
        ::DestroyWindow(window);
    return window != nullptr;
}

std::string GetProgramPath()
{
    char path[4096];
    DWORD const size = ::GetModuleFileNameA(nullptr, path, sizeof path);
    return std::string(path, size);
}

SChildResult RunProgram(std::string const& program, std::vector<std::string> const& arguments,
                        SChildOptions const& options)
{
    SChildResult result;
    std::string commandLine = Quote(program);
    for (std::string const& argument : arguments)
        commandLine += " " + Quote(argument);
    std::string environment = BuildEnvironment(options);
    if (!options.answers.empty())
        DoWithoutWindowManager();

    DoWithoutPostMortemDebugger();
    SPipe const output, error;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.writeEnd;
    startup.hStdError = error.writeEnd;
    PROCESS_INFORMATION child{};
    BOOL const started = ::CreateProcessA(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                                          options.debugged ? DEBUG_ONLY_THIS_PROCESS : 0, environment.data(),
                                          options.folder.empty() ? nullptr : options.folder.c_str(), &startup, &child);
    ::CloseHandle(output.writeEnd);
    ::CloseHandle(error.writeEnd);
    if (!started) {
        ::CloseHandle(output.readEnd);
        ::CloseHandle(error.readEnd);
        return result;
    }
    result.started = true;
    result.processId = child.dwProcessId;
    std::thread outputReader(ReadToEnd, output.readEnd, std::ref(result.standardOutput));
    std::thread errorReader(ReadToEnd, error.readEnd, std::ref(result.standardError));
    std::thread user([&] { AnswerBoxes(child, options.answers, result); });
    if (options.debugged)
        Debug(child, options, result);
    else if (::WaitForSingleObject(child.hProcess, options.GetTimeoutMilliseconds()) == WAIT_TIMEOUT) {
        result.timedOut = true;
        ::TerminateProcess(child.hProcess, 253);
    }
    ::WaitForSingleObject(child.hProcess, INFINITE);
    user.join();
    DWORD exitCode = 0;
    ::GetExitCodeProcess(child.hProcess, &exitCode);
    result.exitCode = exitCode;
    outputReader.join();
    errorReader.join();
    ::CloseHandle(child.hThread);
    ::CloseHandle(child.hProcess);
    return result;
}

} // namespace TestSupport
