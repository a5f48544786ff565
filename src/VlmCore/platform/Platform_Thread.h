/// \file
/// Seam: threads of the system.
///
/// Nothing here throws or takes memory from the library's heap. Errors are Windows error numbers, 0 is success.
/// Priorities are Windows thread priorities: -15 (idle), -2 to 2, 15 (time critical), 0 is normal.
#pragma once

#include <vlmcore/types.h>

#include <atomic>

namespace Velmor::Platform {

// The calling thread

/// The system's number of the calling thread; never all ones. Costs a memory access: asked on every lock.
[[nodiscard]] u32 GetThreadId();

/// Whether a sleeping thread may be woken early to serve what the system queued for it (Windows: asynchronous
/// procedure calls; posix: signal handlers run in either case and do not end the sleep).
enum class ESleep : u32 { Alertable, Deaf };

/// Sleeps at least `milliseconds`, less only when alerted; 0 yields. All ones is for ever (Windows) or 49 days (posix).
void SleepThread(u32 milliseconds, ESleep kind);

/// Gives the rest of the time slice to another thread that is ready; returns at once when there is none.
void YieldThread();

/// Sleeps while `word` is `expected`: until WakeSleeper is called for it, but `milliseconds` at most; may end early.
void SleepOn(std::atomic<u32>& word, u32 expected, u32 milliseconds);

/// Ends the sleep of a thread in SleepOn on this word; the caller has changed the word before. The thread may be one
/// that is only about to sleep: it then does not.
void WakeSleeper(std::atomic<u32>& word);

/// Hints the processor that this is a busy-wait loop: saves power and lets a sibling of the same core run.
void RelaxProcessor();

/// Bytes of a thread's name that debuggers get to see; longer names are cut, at the border of a UTF-8 character.
extern u32 const ThreadNameBytes;

/// Names the calling thread for debuggers. UTF-8, never null. A hint: fails silently.
void NameThread(char const* name);

/// Priority of the calling thread. Posix: from its nice value compared with that of the process.
[[nodiscard]] i32 GetThreadPriority();

// Other threads

/// Body of a thread. Must not let exceptions out.
using ThreadBody = void (*)(void* argument);

/// Starts a thread and gives its handle, to be ended with JoinThread exactly once.
/// \param stackBytes  0 for the system's default. Windows: bytes committed at once. Posix: rounded up to what the
///                    system needs at least.
/// \param priority    a hint. Posix: the nice value moves by -5 for each step; raising needs a privilege.
/// \param handle      changed only on success; never null then.
[[nodiscard]] u32 StartThread(ThreadBody body, void* argument, u32 stackBytes, i32 priority, void*& handle);

/// Waits until the thread has ended and gives its handle back. Must not be called by that thread. In a copy of the
/// process that the thread is of (see Platform_Fork.h) there is nothing to wait for.
void JoinThread(void* handle);

/// True when SynchronizeThread does what it says; not every system that this runs on has the means. Readies it; may be
/// called again and again.
[[nodiscard]] bool CanSynchronizeThreads();

/// A full memory barrier in the thread with the id and in this one: what that one stored
/// before is visible here afterwards, and what was stored here before is visible to all that it loads afterwards. The
/// thread may have ended. Takes microseconds.
void SynchronizeThread(u32 threadId);

/// False when no thread of the process has the id (see Thread::GetId) any more; true also when that cannot be told. A
/// few microseconds.
[[nodiscard]] bool IsThreadAlive(u32 threadId);

/// True at the end of a process when the system has ended all its other threads, in the middle of whatever they were
/// doing, and nobody will ever release what they held. Windows ends them before it unloads the DLLs, where the
/// functions run that these registered for the exit; those of the program itself run before, with the threads still at
/// work, as all do on posix systems. Costs next to nothing; no lock of the system's is taken.
[[nodiscard]] bool HasEndedOtherThreads();

// Types

/// Writes the readable name of a type behind a keyword and a blank, "class Velmor::CFoo", from what
/// `std::type_info::name` gives with this compiler; cut to `size` bytes with the terminator.
void DescribeType(char const* rawName, char* out, u64 size);

} // namespace Velmor::Platform
