// Stacks by frame pointers where they are, by the unwinder where they are not.
//
// A chain of frame pointers is walked in nanoseconds, but a function without one breaks it, and no look at the stack
// tells: the chain then leads astray or jumps a frame. What is true is known per return address, because the function
// around it was compiled one way. So the first time an address is met, the unwinder walks the stack, slowly and by the
// compiler's tables, and what it finds about each frame is remembered; from then on the address is followed, or not.
//
// Every stack has frames without frame pointers: the C runtime's start-up code beneath main and beneath each thread
// function, sorting routines that call back. The unwinder's finding about such a run of frames is remembered by the
// thread, with the place on the stack of each return address, and holds as long as all of them are found unchanged.
//
// Even so a walk is a chain of loads, each waiting for the one before, with a look-up for each frame. A thread that
// allocates in a loop comes by the same stacks again and again, of which an address or two change. So it keeps its last
// walks and compares: loads that wait for nothing. Each word that the walk would have followed is compared, so that the
// outcome is that of the walk.
#include "../Platform_Stack.h"
#include "Posix_ThreadObjects.h"

#include <atomic>
#include <cstddef>
#include <pthread.h>
#include <unwind.h>

// Return addresses and saved frame pointers lie between variables, where the sanitizers do not expect a look.
#if defined(__clang__)
#  define VLM_STACK_LOOK __attribute__((no_sanitize("address", "thread", "undefined")))
#else
#  define VLM_STACK_LOOK __attribute__((no_sanitize("address"), no_sanitize("undefined")))
#endif
#define VLM_STACK_WALK __attribute__((noinline)) VLM_STACK_LOOK

namespace Velmor::Platform {

namespace {

using Address = std::uintptr_t;

constexpr int FramePointerRegister = 6; // rbp in the x86-64 unwind tables
/// Between the frame of a function and that of its caller: the saved frame pointer and the return address.
constexpr Address FrameRecordSize = 2 * sizeof(Address);

// What is known of return addresses

enum class EFrame : u32 { Unknown, Chained, Chainless };

/// Remembers whether the function around a return address keeps a frame pointer. Shared by all threads, without a lock:
/// an entry is one word, the address and the finding in its lowest bit. Two places per address; a third address that
/// needs them pushes one out, which costs time and nothing else.
class CFrameMemory {
public:
    VLM_STACK_LOOK EFrame Find(Address pc) const
    {
        u64 const place = GetPlace(pc);
        for (u64 const candidate : {place, place ^ 1}) {
            u64 const entry = m_entries[candidate].load(std::memory_order_relaxed);
            if (entry >> 1 == pc)
                return (entry & 1) != 0 ? EFrame::Chained : EFrame::Chainless;
        }
        return EFrame::Unknown;
    }

    void Note(Address pc, EFrame kind)
    {
        u64 place = GetPlace(pc);
        u64 const old = m_entries[place].load(std::memory_order_relaxed);
        if (old != 0 && old >> 1 != pc)
            place ^= 1;
        m_entries[place].store(pc << 1 | (kind == EFrame::Chained ? 1u : 0u), std::memory_order_relaxed);
    }

private:
    static constexpr u64 Count = 8192;
    static u64 GetPlace(Address pc) { return (pc * 0x9E3779B97F4A7C15u) >> (64 - 13); }

    std::atomic<u64> m_entries[Count]{};
};

CFrameMemory g_frames;

// The thread

/// A return address and where on the stack it stands.
struct SSlot {
    Address place;
    Address pc;
};

/// A run of frames without frame pointers, as the unwinder found it, and the frame with one that follows.
struct SRun {
    static constexpr u32 MaxSlots = 8;
    u32 count;         ///< slots in use; 0 for an empty entry
    u32 reported;      ///< of them, those that belong to the run; the last one may be there to be checked only
    Address nextFrame; ///< frame pointer of the function that the walk goes on in; 0 at the end of the stack
    SSlot slots[MaxSlots];
};

/// A walk that ended well.
struct SWalk {
    u32 count;   ///< frames; 0 for an empty entry
    u32 sum;     ///< of the low halves of their addresses
    u32 chained; ///< a bit for each frame: the walk followed the frame pointer saved beneath the return address
    bool canRepeat;
    /// Where the return addresses stand, from the first one's place on. One more: what GetDistance says of the frame
    /// pointer behind the last.
    u32 distances[MaxStackFrames + 1];
    Address first;
    Address addresses[MaxStackFrames];

    [[nodiscard]] Address GetPlace(u32 index) const { return first + distances[index]; }
    /// Of the return address that goes with a saved frame pointer; of the end of the chain what no other has.
    [[nodiscard]] u64 GetDistance(Address savedFrame) const
    {
        return savedFrame != 0 ? savedFrame + sizeof(Address) - first : u64{~u32{0}};
    }
};

struct SThreadStack {
    static constexpr u32 RunCount = 8;
    static constexpr u32 WalkCount = 4;
    Address low = 0; ///< bounds of the stack; both 0 until asked for
    Address high = 0;
    bool isBusy = false; ///< a capture is at work: one in a signal's handler keeps its hands off
    SRun runs[RunCount]{};
    SWalk walks[WalkCount]{};
};

static_assert(sizeof(SThreadStack) < 3 * 1024, "fits into a page");

// The initial-exec model makes this one instruction also from a shared library; eight bytes fit the loader's reserve
// when the library is loaded late.
[[gnu::tls_model("initial-exec")]] thread_local SThreadStack* t_stack = nullptr;

constinit TThreadObjects<SThreadStack> g_threadStacks([]() -> SThreadStack*& { return t_stack; });

/// The calling thread's; null when there is none to be had now.
SThreadStack* FindThreadStack()
{
    SThreadStack* const known = t_stack;
    return known != nullptr ? known : g_threadStacks.Claim();
}

void FindStackBounds(SThreadStack& stack)
{
    pthread_attr_t attributes;
    if (::pthread_getattr_np(::pthread_self(), &attributes) != 0)
        return;
    void* low = nullptr;
    std::size_t size = 0;
    if (::pthread_attr_getstack(&attributes, &low, &size) == 0) {
        stack.low = reinterpret_cast<Address>(low);
        stack.high = stack.low + size;
    }
    ::pthread_attr_destroy(&attributes);
}

SRun& GetRun(SThreadStack& stack, Address place, Address pc)
{
    return stack.runs[((place >> 3) ^ pc ^ (pc >> 7)) % SThreadStack::RunCount];
}

// The unwinder

/// What the unwinder tells about one frame.
struct SUnwoundFrame {
    Address pc;
    Address stackPointer; ///< as the function has it at the call
    Address framePointer; ///< the register's value in the function
};

struct SUnwinding {
    // The capture's own frames come first, and a run that starts within the last frames asked for is to be seen whole.
    static constexpr u32 Capacity = MaxStackFrames + 4 + SRun::MaxSlots;
    u32 count = 0;
    SUnwoundFrame frames[Capacity];
};

_Unwind_Reason_Code OnFrame(_Unwind_Context* context, void* argument)
{
    SUnwinding& unwinding = *static_cast<SUnwinding*>(argument);
    Address const pc = _Unwind_GetIP(context);
    if (unwinding.count == SUnwinding::Capacity || pc == 0)
        return _URC_END_OF_STACK;
    unwinding.frames[unwinding.count++] = {pc, _Unwind_GetCFA(context), _Unwind_GetGR(context, FramePointerRegister)};
    return _URC_NO_REASON;
}

/// Remembers what the unwinder found: which addresses chain, and the runs of those that do not.
VLM_STACK_WALK void Learn(SUnwinding const& unwinding, SThreadStack& stack)
{
    auto const isOnStack = [&stack](Address place) { return place >= stack.low && place < stack.high; };
    u32 const count = unwinding.count;
    bool chained[SUnwinding::Capacity] = {};
    for (u32 i = 0; i + 1 < count; ++i) {
        SUnwoundFrame const& frame = unwinding.frames[i];
        SUnwoundFrame const& caller = unwinding.frames[i + 1];
        chained[i] = caller.stackPointer == frame.framePointer + FrameRecordSize && isOnStack(frame.framePointer) &&
                     *reinterpret_cast<Address const*>(frame.framePointer) == caller.framePointer;
        g_frames.Note(frame.pc, chained[i] ? EFrame::Chained : EFrame::Chainless);
    }
    bool const complete = count < SUnwinding::Capacity; // else nothing is known of the last frame
    if (complete && count > 0)
        g_frames.Note(unwinding.frames[count - 1].pc, EFrame::Chainless);

    for (u32 first = 1; first < count; ++first) {
        if (chained[first] || !chained[first - 1])
            continue;
        SRun run{};
        u32 i = first;
        // The first frame that chains again is taken along: its return address must be found unchanged too.
        for (; i < count && run.count < SRun::MaxSlots; ++i) {
            run.slots[run.count++] = {unwinding.frames[i].stackPointer - sizeof(Address), unwinding.frames[i].pc};
            if (chained[i])
                break;
        }
        if (i < count ? !chained[i] : !complete)
            continue; // longer than an entry, or cut off: the unwinder's each time
        run.reported = run.count;
        run.nextFrame = i < count ? unwinding.frames[i].framePointer : 0;
        GetRun(stack, run.slots[0].place, run.slots[0].pc) = run;
    }
}

/// Return addresses from `caller` on, by the unwinder.
__attribute__((noinline)) u32 CaptureByUnwinder(void** addresses, Address caller, SThreadStack* stack)
{
    SUnwinding unwinding;
    _Unwind_Backtrace(&OnFrame, &unwinding);
    if (stack != nullptr)
        Learn(unwinding, *stack);
    u32 first = 0;
    while (first < unwinding.count && unwinding.frames[first].pc != caller)
        ++first;
    u32 count = 0;
    for (u32 i = first; i < unwinding.count && count < MaxStackFrames; ++i)
        addresses[count++] = reinterpret_cast<void*>(unwinding.frames[i].pc);
    return count;
}

// The walk

/// Follows a remembered run; null when the stack no longer holds it.
VLM_STACK_WALK SRun const* FindRun(SThreadStack& stack, Address place, Address pc)
{
    SRun const& run = GetRun(stack, place, pc);
    if (run.count == 0 || run.slots[0].place != place)
        return nullptr;
    for (u32 i = 0; i < run.count; ++i)
        if (run.slots[i].place < place || run.slots[i].place >= stack.high ||
            *reinterpret_cast<Address const*>(run.slots[i].place) != run.slots[i].pc)
            return nullptr;
    return &run;
}

/// Walks from the record at `frame` on. The walk's count is 0 when something on the way is not known.
VLM_STACK_WALK void WalkChain(SWalk& walk, Address frame, SThreadStack& stack)
{
    Address const highest = stack.high - FrameRecordSize;
    u32 count = 0;
    u32 sum = 0;
    u32 chained = 0;
    bool isWhole = stack.high - frame <= ~u32{0}; // or the distances do not fit
    walk.first = frame + sizeof(Address);
    auto const add = [&](Address place, Address pc) {
        walk.distances[count] = static_cast<u32>(place - walk.first);
        walk.addresses[count++] = pc;
        sum += static_cast<u32>(pc);
    };
    walk.count = 0;
    for (Address lowest = frame; frame != 0;) {
        if (frame < lowest || frame > highest || frame % sizeof(Address) != 0)
            return;
        Address const place = frame + sizeof(Address);
        Address const pc = *reinterpret_cast<Address const*>(place);
        add(place, pc);
        if (count == MaxStackFrames)
            break;
        lowest = frame + FrameRecordSize;
        EFrame const kind = g_frames.Find(pc);
        if (kind == EFrame::Unknown)
            return;
        if (kind == EFrame::Chained) {
            frame = *reinterpret_cast<Address const*>(frame);
            chained |= 1u << (count - 1);
            walk.distances[count] = static_cast<u32>(walk.GetDistance(frame));
            continue;
        }
        SRun const* const run = FindRun(stack, place, pc);
        if (run == nullptr)
            return;
        u32 i = 1;
        for (; i < run->reported && count < MaxStackFrames; ++i)
            add(run->slots[i].place, run->slots[i].pc);
        isWhole = isWhole && i == run->reported;
        if (count == MaxStackFrames)
            break;
        frame = run->nextFrame;
        if (frame != 0)
            // The run ended in a function with a frame pointer, whose own return address is the next to report.
            lowest = run->slots[run->reported - 1].place;
    }
    // A run holds as a whole or not at all: one that was cut is not there to be compared the next time.
    walk.canRepeat = isWhole;
    walk.chained = chained;
    walk.sum = sum;
    walk.count = count;
}

/// True when the stack is the one of the walk, or differs from it in functions only that chain as theirs did: the walk
/// is then as if made anew. Its first place is where the capture begins.
VLM_STACK_LOOK inline bool Refresh(SWalk& walk)
{
    for (u32 i = 0; i < walk.count; ++i) {
        Address const place = walk.GetPlace(i);
        bool const isChained = (walk.chained >> i & 1) != 0;
        if (isChained &&
            walk.GetDistance(*reinterpret_cast<Address const*>(place - sizeof(Address))) != walk.distances[i + 1])
            return false;
        Address const pc = *reinterpret_cast<Address const*>(place);
        if (pc == walk.addresses[i]) [[likely]]
            continue;
        // Another call of a function, or of another function of the same frame size. What does not chain belongs to a
        // run, and the last frame that there is room for is the end whatever it is: both are the walk's business.
        if (!isChained || g_frames.Find(pc) != EFrame::Chained)
            return false;
        walk.sum += static_cast<u32>(pc) - static_cast<u32>(walk.addresses[i]);
        walk.addresses[i] = pc;
    }
    return true;
}

/// The walk from the record at `frame` on; null when something on the way is not known.
VLM_STACK_LOOK inline SWalk const* FindWalk(Address frame, SThreadStack& stack)
{
    SWalk& walk = stack.walks[(frame >> 4) % SThreadStack::WalkCount];
    if (walk.count == 0 || !walk.canRepeat || walk.first != frame + sizeof(Address) || !Refresh(walk))
        WalkChain(walk, frame, stack);
    return walk.count != 0 ? &walk : nullptr;
}

} // namespace

VLM_STACK_WALK u32 CaptureStack(void** addresses, u32* hash)
{
    Address const frame = reinterpret_cast<Address>(__builtin_frame_address(0));
    Address const caller = reinterpret_cast<Address>(__builtin_return_address(0));
    SThreadStack* const stack = FindThreadStack();
    bool const isAlone = stack != nullptr && !stack->isBusy;
    bool onOwnStack = false;
    if (isAlone) {
        stack->isBusy = true;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (stack->high == 0)
            FindStackBounds(*stack);
        onOwnStack = frame >= stack->low && frame < stack->high; // not on a signal stack or a coroutine's
        SWalk const* const walk = onOwnStack ? FindWalk(frame, *stack) : nullptr;
        u32 const count = walk != nullptr ? walk->count : 0;
        for (u32 i = 0; i < count; ++i)
            addresses[i] = reinterpret_cast<void*>(walk->addresses[i]);
        if (count != 0 && hash != nullptr)
            *hash = walk->sum;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        stack->isBusy = false;
        if (count != 0)
            return count;
    }
    u32 const count = CaptureByUnwinder(addresses, caller, onOwnStack ? stack : nullptr);
    if (hash != nullptr) {
        u32 sum = 0;
        for (u32 i = 0; i < count; ++i)
            sum += static_cast<u32>(reinterpret_cast<Address>(addresses[i]));
        *hash = sum;
    }
    return count;
}

} // namespace Velmor::Platform
