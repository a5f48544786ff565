// Crashes arrive as signals, on the signal stack of the thread if it has one. That stack is small, as is what is left
// of the thread's own: the stages of the report run on a large one that is set aside at installation. A stage that
// crashes comes back here as another signal on the same thread; one that hangs, as the signal of a timer. Both jump out
// of it.
#include "../Platform_Crash.h"

#include "../Platform_Thread.h"
#include "Posix_CrashStack.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <ctime>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace Velmor::Platform {

namespace {

constexpr std::size_t StageStackSize = 1024 * 1024;
constexpr std::size_t SignalStackRoom = 32 * 1024;
constexpr int CrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT};

int GetTimerSignal()
{
    return SIGRTMAX - 3;
}

/// The kernel's own record of a signal has grown with the processors; the constant of the headers has not.
std::size_t GetSignalStackSize()
{
    return ::getauxval(AT_MINSIGSTKSZ) + SignalStackRoom;
}

void* MapStack(std::size_t size)
{
    void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    return memory != MAP_FAILED ? memory : nullptr;
}

std::atomic<bool> g_installed{false};
CrashHandler g_handler = nullptr;
char* g_stageStack = nullptr;
void* g_innerSignalStack = nullptr; ///< for signals within a stage

// One thread at a time reports; what follows is its own.
std::atomic<u32> g_stageThread{0}; ///< 0 outside of stages
sigjmp_buf* g_escape = nullptr;    ///< out of the innermost stage

bool IsOnStageStack()
{
    char const* const here = static_cast<char const*>(__builtin_frame_address(0));
    return here >= g_stageStack && here < g_stageStack + StageStackSize;
}

} // namespace

// Stages

namespace {

/// A signal to this thread after the time given, until the scope ends.
class CDeadline {
public:
    explicit CDeadline(u32 milliseconds)
    {
        if (milliseconds == 0 || !g_installed.load())
            return;
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = GetTimerSignal();
        event._sigev_un._tid = static_cast<pid_t>(GetThreadId());
        // The system call itself: the runtime's function may take memory.
        m_running = ::syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &m_timer) == 0;
        itimerspec time{};
        time.it_value.tv_sec = milliseconds / 1000;
        time.it_value.tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000;
        if (m_running)
            ::syscall(SYS_timer_settime, m_timer, 0, &time, nullptr);
    }

    ~CDeadline()
    {
        if (m_running)
            ::syscall(SYS_timer_delete, m_timer);
    }

    CDeadline(CDeadline const&) = delete;
    CDeadline& operator=(CDeadline const&) = delete;

private:
    int m_timer = 0;
    bool m_running = false;
};

struct SStageCall {
    CrashStage stage;
    void* context;
    u32 timeoutMilliseconds;
    bool succeeded;
};

void RunGuarded(SStageCall& call)
{
    sigjmp_buf here;
    sigjmp_buf* const outer = g_escape;
    CDeadline const deadline(call.timeoutMilliseconds);
    if (sigsetjmp(here, 1) == 0) {
        g_escape = &here;
        try {
            call.stage(call.context);
            call.succeeded = true;
        }
        catch (...) {
            call.succeeded = false;
        }
    }
    else {
        call.succeeded = false;
    }
    g_escape = outer;
}

/// The outermost stage, on the stage stack. Signals within it get a stack of their own: the one they would use holds
/// the records of the crash.
void EnterStages(SStageCall* call)
{
    stack_t inner{};
    inner.ss_sp = g_innerSignalStack;
    inner.ss_size = GetSignalStackSize();
    stack_t outer{};
    ::sigaltstack(&inner, &outer);
    g_stageThread.store(GetThreadId());
    RunGuarded(*call);
    g_stageThread.store(0);
    outer.ss_flags &= ~SS_ONSTACK;
    ::sigaltstack(&outer, nullptr);
}

/// Calls EnterStages on the stage stack. This function keeps a frame pointer, by which unwinders find the way back.
__attribute__((noinline)) void SwitchToStages(SStageCall* call)
{
    char* const top = g_stageStack + StageStackSize;
    void (*const function)(SStageCall*) = &EnterStages;
    asm volatile("movq %%rsp, %%rbx\n\t"
                 "movq %[top], %%rsp\n\t"
                 "callq *%[function]\n\t"
                 "movq %%rbx, %%rsp"
                 : "+D"(call)
                 : [top] "r"(top), [function] "r"(function)
                 : "rbx", "rax", "rcx", "rdx", "rsi", "r8", "r9", "r10", "r11", "memory", "cc", "xmm0", "xmm1", "xmm2",
                   "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14",
                   "xmm15");
}

} // namespace

bool RunCrashStage(CrashStage stage, void* context, u32 timeoutMilliseconds)
{
    SStageCall call{stage, context, timeoutMilliseconds, false};
    if (g_installed.load() && !IsOnStageStack())
        SwitchToStages(&call);
    else
        RunGuarded(call);
    return call.succeeded;
}

// Installation

namespace {

struct SExceptionRecord {
    u32 code;
    u32 flags;
    SExceptionRecord* next;
    void* address;
    u32 parameterCount;
    u64 parameters[15];
};

struct SExceptionPointers {
    SExceptionRecord* record;
    void* context;
};

u32 GetArithmeticCode(int reason)
{
    switch (reason) {
    case FPE_INTDIV:
        return 0xC0000094;
    case FPE_INTOVF:
        return 0xC0000095;
    case FPE_FLTDIV:
        return 0xC000008E;
    case FPE_FLTOVF:
        return 0xC0000091;
    case FPE_FLTUND:
        return 0xC0000093;
    case FPE_FLTRES:
        return 0xC000008F;
    case FPE_FLTSUB:
        return 0xC000008C;
    default:
        return 0xC0000090;
    }
}

/// An access just beyond the stack pointer can only have failed because the stack ends there.
bool IsStackOverflow(siginfo_t const& info, u64 stackPointer)
{
    constexpr u64 Reach = 64 * 1024;
    u64 const address = reinterpret_cast<u64>(info.si_addr);
    return address + Reach >= stackPointer && address < stackPointer + 4096;
}

/// The exception code of the same meaning; an abort has the code with which Windows ends a program that gave up.
u32 GetExceptionCode(int signal, siginfo_t const& info, u64 stackPointer)
{
    bool const sent = info.si_code <= 0; // by another process or a call, not by an instruction
    switch (signal) {
    case SIGSEGV:
        return !sent && IsStackOverflow(info, stackPointer) ? 0xC00000FD : 0xC0000005;
    case SIGBUS:
        return info.si_code == BUS_ADRALN ? 0x80000002 : 0xC0000006;
    case SIGFPE:
        return GetArithmeticCode(info.si_code);
    case SIGILL:
        return info.si_code == ILL_PRVOPC || info.si_code == ILL_PRVREG ? 0xC0000096 : 0xC000001D;
    case SIGTRAP:
        return 0x80000003;
    default:
        return 0x40000015;
    }
}

void RestoreDefaultActions()
{
    struct sigaction action{};
    action.sa_handler = SIG_DFL;
    for (int const signal : CrashSignals)
        ::sigaction(signal, &action, nullptr);
}

void OnTimer(int, siginfo_t*, void*)
{
    if (g_stageThread.load() == GetThreadId() && g_escape != nullptr)
        siglongjmp(*g_escape, 1);
}

void OnCrash(int signal, siginfo_t* info, void* context)
{
    if (g_stageThread.load() == GetThreadId() && g_escape != nullptr)
        siglongjmp(*g_escape, 1);

    auto const& registers = static_cast<ucontext_t const*>(context)->uc_mcontext.gregs;
    SExceptionRecord record{};
    record.code = GetExceptionCode(signal, *info, static_cast<u64>(registers[REG_RSP]));
    record.address = reinterpret_cast<void*>(registers[REG_RIP]);
    if (signal == SIGTRAP) // the processor reports the place behind the breakpoint
        record.address = static_cast<char*>(record.address) - 1;
    if (signal == SIGSEGV || signal == SIGBUS) { // as on Windows: the kind of access, and to what
        record.parameterCount = 2;
        record.parameters[0] = (registers[REG_ERR] & 0x10) != 0 ? 8u : (registers[REG_ERR] & 2) != 0 ? 1u : 0u;
        record.parameters[1] = reinterpret_cast<u64>(info->si_addr);
    }
    SExceptionPointers pointers{&record, context};
    g_handler(&pointers);

    RestoreDefaultActions();
    // An instruction that failed fails again on return. A signal that was sent has to be sent again.
    if (info->si_code <= 0 || signal == SIGTRAP || signal == SIGABRT)
        ::syscall(SYS_tgkill, ::getpid(), GetThreadId(), signal);
}

} // namespace

void InstallCrashHandler(CrashHandler handler)
{
    g_handler = handler;
    g_stageStack = static_cast<char*>(MapStack(StageStackSize));
    g_innerSignalStack = MapStack(GetSignalStackSize());
    if (g_stageStack == nullptr || g_innerSignalStack == nullptr)
        return;
    g_installed.store(true);
    static CCrashStack const stackOfThisThread;

    struct sigaction action{};
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER; // not deferred: a stage may crash in the same way
    sigemptyset(&action.sa_mask);
    action.sa_sigaction = &OnTimer;
    ::sigaction(GetTimerSignal(), &action, nullptr);
    action.sa_sigaction = &OnCrash;
    for (int const signal : CrashSignals)
        ::sigaction(signal, &action, nullptr);
}

CCrashStack::CCrashStack()
{
    stack_t current{};
    if (!g_installed.load() || ::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0)
        return;
    stack_t own{};
    own.ss_size = GetSignalStackSize();
    own.ss_sp = m_memory = MapStack(own.ss_size);
    if (m_memory != nullptr)
        ::sigaltstack(&own, nullptr);
}

CCrashStack::~CCrashStack()
{
    if (m_memory == nullptr)
        return;
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    ::sigaltstack(&none, nullptr);
    ::munmap(m_memory, GetSignalStackSize());
}

// Dumps

bool WriteMinidump(char const*, u32, void*)
{
    return false; // the system has no such service; its own core file is written after the report
}

} // namespace Velmor::Platform
