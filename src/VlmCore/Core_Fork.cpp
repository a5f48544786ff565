#include "Core_Fork.h"

#include "platform/Platform_Fork.h"

#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/threads.h>

#include <cstdlib>
#include <new>

namespace Velmor::Fork {

namespace {

/// Of the C runtime: the heap is one of those that enrol.
struct SNote {
    SNote* next;
    SNote* previous;
    EForkRank rank;
    void* object;
    Function function;
    u32 stackOwner; ///< thread with whose stack the object goes, or NoThread
};

constexpr u32 NoThread = IThread::NoThreadId;

constinit CSpinLock g_lock;
constinit SNote* g_first = nullptr; ///< by rank; held still, under the lock, for the time of a copy
constinit SNote* g_last = nullptr;

void Unlink(SNote& note)
{
    (note.next != nullptr ? note.next->previous : g_last) = note.previous;
    (note.previous != nullptr ? note.previous->next : g_first) = note.next;
}

void CallBefore()
{
    g_lock.Acquire();
    for (SNote* note = g_first; note != nullptr; note = note->next)
        note->function(note->object, EFork::Before);
}

void CallInOriginal()
{
    for (SNote* note = g_last; note != nullptr; note = note->previous)
        note->function(note->object, EFork::InOriginal);
    g_lock.TryRelease();
}

void CallInCopy()
{
    u32 const self = Thread::GetId();
    for (SNote* note = g_last; note != nullptr;) {
        SNote* const previous = note->previous;
        if (note->stackOwner == NoThread || note->stackOwner == self) {
            note->function(note->object, EFork::InCopy);
            if (note->stackOwner == self)
                note->stackOwner = Platform::AskThreadId();
        }
        else {
            Unlink(*note);
            std::free(note);
        }
        note = previous;
    }
    g_lock.TryRelease();
}

constexpr Platform::SForkWatch Watch = {&CallBefore, &CallInOriginal, &CallInCopy};

} // namespace

void Enrol(EForkRank rank, void* object, Function function) noexcept
{
    void* const memory = std::malloc(sizeof(SNote));
    if (memory == nullptr)
        return;
    u32 const stackOwner = Platform::IsOnPassingStack(object) ? Thread::GetId() : NoThread;
    TScopedLock const lock(g_lock);
    SNote* next = g_first;
    while (next != nullptr && next->rank < rank)
        next = next->next;
    SNote* const previous = next != nullptr ? next->previous : g_last;
    SNote* const note = ::new (memory) SNote{next, previous, rank, object, function, stackOwner};
    (next != nullptr ? next->previous : g_last) = note;
    (previous != nullptr ? previous->next : g_first) = note;
    Platform::WatchForks(Watch);
}

void Withdraw(void* object) noexcept
{
    SNote* note = nullptr;
    {
        TScopedLock const lock(g_lock);
        note = g_first;
        while (note != nullptr && note->object != object)
            note = note->next;
        if (note == nullptr)
            return;
        Unlink(*note);
    }
    std::free(note);
}

} // namespace Velmor::Fork
