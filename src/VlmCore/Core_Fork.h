/// \file
/// What of the library must survive that the process is copied (fork).
///
/// The copy is made while other threads are anywhere, also in the middle of the library, and it has none of them: a
/// lock that one of them held would stay locked for ever, a thread that should work would not be there, and what two
/// processes think to be theirs would be done twice. So whatever has a lock or a thread, and outlives a call, enrols
/// here. A system that copies no processes never calls.
#pragma once

#include <vlmcore/types.h>

namespace Velmor {

class IThread;

enum class EFork : u8 {
    Before,     ///< in the original: take the locks whose data must be whole in the copy
    InOriginal, ///< give them back
    InCopy,     ///< likewise; the threads are gone (see ForgetThread), locks not taken before may be anybody's
};

/// In which order locks are taken by one thread, and so for a copy; they are given back the other way round.
enum class EForkRank : u8 { Loggers, Pools, Symbols, Heap };

namespace Fork {

using Function = void (*)(void* object, EFork moment);

/// `function(object, moment)` is called around every copy. It must not throw, nor ask the library's heap for memory. An
/// object on a thread's stack is no more in the copy that another thread makes: the stack is used for other threads
/// there, but for that of the process's first one. So its own thread enrols it, and it is forgotten in such a copy.
/// Without memory for the note nothing is enrolled. Any thread.
void Enrol(EForkRank rank, void* object, Function function) noexcept;
/// Nothing for what is not enrolled. Before any of the object's locks is taken.
void Withdraw(void* object) noexcept;

/// Enrols an object with `void FollowFork(EFork)`.
template <class Object>
void Enrol(EForkRank rank, Object& object) noexcept
{
    Enrol(rank, &object, [](void* self, EFork moment) { static_cast<Object*>(self)->FollowFork(moment); });
}

/// In a copy: makes an idle object of one whose thread was left in the original.
void ForgetThread(IThread& thread) noexcept;
/// In a copy that this object's thread has made: gives the object the thread's new id.
void FollowThread(IThread& thread) noexcept;

} // namespace Fork
} // namespace Velmor
