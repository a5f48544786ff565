/// \file
/// The process-wide log and its loggers, and the memory event log.
///
/// A host creates a logger, installs it with Log::Initialize, writes messages from anywhere, takes the logger back with
/// Log::Release and destroys it:
///
///     Velmor::CFileLogger logger("run.log", 64 * 1024);
///     Velmor::Log::Initialize(&logger);
///     Velmor::Log::InfoF("%d files", count);
///     Velmor::Log::Release();
///
/// Cost: without a logger every function is one load and one branch. With a buffered CFileLogger a message costs its
/// formatting and a copy; the file is written by a thread of the logger's own.
///
/// Errors: a message that cannot be formatted for want of memory throws CBadAllocation; what a logger of the host's own
/// throws passes through. Files that fail never throw from a logger of this library. Threads: messages may be written
/// from any thread; Initialize and Release must not run beside them.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/files.h>
#include <vlmcore/impl/Core_Lock.h>
#include <vlmcore/resources.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

#include <atomic>

namespace Velmor {

class CJSONMemoryLogWriter;
class CLogWriter;
class ILogger;

namespace Log {

/// Level of a message.
namespace EMessage {
enum Type : u32 { Debug = 0, Info = 1, Warning = 2, Error = 3 };
} // namespace EMessage

/// Installs `logger` as the process-wide logger and writes "Log start." to it as an Info message. The logger stays the
/// caller's; one that was installed before is replaced without a word. Null uninstalls.
VLM_API void Initialize(ILogger* logger);

/// Writes "Log end." as an Info message, uninstalls the logger and returns it; null when there is none.
VLM_API ILogger* Release();

/// Write a message, stamped with System::GetTimeMs. Nothing happens without a logger. The text is read during the call
/// only; any encoding, null counts as empty.
VLM_API void Debug(CString const& message);
VLM_API void Info(CString const& message);
VLM_API void Warning(CString const& message);
VLM_API void Error(CString const& message);

/// Format printf-style, without heap memory, then write the message as the function without F does. The text may have
/// 2047 bytes; a longer one is an error of the caller and ends the process as the C runtime's invalid-parameter
/// handling does. Without a logger the arguments are not looked at.
VLM_API void DebugF(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void InfoF(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void WarningF(char const* format, ...) VLM_PRINTF(1, 2);
VLM_API void ErrorF(char const* format, ...) VLM_PRINTF(1, 2);

/// Writes the calling thread's stack, one Info message "<module, address> file(line) : symbol" per frame, all with one
/// time stamp. \param skip  frames to leave out, counted from the innermost, which is the library's own capture;
/// nothing is written when there are no more frames than that.
VLM_API void Callstack(unsigned char skip);

/// Writes six Info messages about the processor, memory and caches, and one for each vector width available, all with
/// one time stamp.
VLM_API void SystemInfo();

} // namespace Log

/// Where messages go. Implement it to send them elsewhere.
class VLM_API ILogger {
public:
    virtual ~ILogger();

    /// Takes one message. Called from whichever thread logs, from several at once when several do.
    /// \param timestamp  milliseconds of System::GetTimeMs.
    /// \param message    valid during the call only.
    virtual void Write(Log::EMessage::Type type, u64 timestamp, CString const& message) = 0;
};

/// Prints "timestamp: [level] message" and a new line to standard output, text as UTF-8, flushed line by line so that
/// it keeps its place among the output of a host with a C runtime of its own, and survives a crash. What an output
/// without a reader or without room does not take is lost; on Linux neither ends the process, and an interrupting
/// signal loses nothing.
class VLM_API CConsoleLogger : public ILogger {
public:
    CConsoleLogger();
    ~CConsoleLogger() override;

    void Write(Log::EMessage::Type type, u64 timestamp, CString const& message) override;
};

/// Sends messages to the system's event log, source "Orbisk": the event log on Windows, syslog on Linux. Event
/// identifiers count up from 0x60000000 and start over after 0x6000FFFF. The time stamp is the system's own.
/// A system without an event log loses the messages silently. What is too long for an event becomes several.
class VLM_API CSystemLogger : public ILogger {
public:
    /// Throws CBadAllocation.
    CSystemLogger();
    CSystemLogger(CSystemLogger const&) = delete;
    CSystemLogger& operator=(CSystemLogger const&) = delete;
    ~CSystemLogger() override;

    void Write(Log::EMessage::Type type, u64 timestamp, CString const& message) override;

private:
    struct SEventLog;

    SEventLog* m_eventLog;
};

/// Writes "timestamp: [level] message" lines, UTF-8, to a file; directly, or through two buffers that a thread of its
/// own drains.
///
/// | state                  | Write                                            | destruction                          |
/// |------------------------|--------------------------------------------------|--------------------------------------|
/// | unbuffered, file       | one write to the file                            | drops the file                       |
/// | unbuffered, no file    | the message is lost                              | nothing                              |
/// | buffered, file         | copies into the buffer; waits while it is full   | writes what was accepted, then drops |
/// | buffered, no file      | copies into the buffer, which is then discarded  | stops the thread                     |
///
/// A line that does not fit the rest of the buffer is split across buffers: when it goes on, as many zero bytes follow
/// its end as were written of it before, as far as they fit (kept: see docs/quirks.md). Choose the buffer large against
/// the lines.
///
/// Errors: a file that throws or writes short never shows here. What it took is not written again, the rest of what it
/// was given is lost and reported with Debug::Print, and the next lines go on. A line that the file itself logs here
/// from within its Write is dropped and reported likewise: it would wait for that very write to end, or cause the next
/// write, which logs again. Threads: any number may write; the lines of one thread keep their order. The file belongs
/// to the logger's threads until the logger is gone. A child made by fork may log on: see docs/threads.md.
class VLM_API CFileLogger : public ILogger {
public:
    /// Creates the file, or empties it. One that cannot be opened leaves the logger without a file.
    /// \param bufferSize  bytes of each of the two buffers; 0 writes every line at once.
    CFileLogger(CString const& path, u64 bufferSize);
    /// Shares `file`, which may be empty. Writing starts at its current position.
    CFileLogger(TResourcePtr<IFile> const& file, u64 bufferSize);
    CFileLogger(CFileLogger const&) = delete;
    CFileLogger& operator=(CFileLogger const&) = delete;
    ~CFileLogger() override;

    void Write(Log::EMessage::Type type, u64 timestamp, CString const& message) override;

private:
    friend class CLogWriter;
    friend struct SFileLoggerFork;

    struct SBuffer {
        u8* data = nullptr;
        std::atomic<u64> used{0};
    };

    void StartWriter();
    void WriteBuffered(u8 const* line, u64 lineSize);
    [[nodiscard]] u64 WriteToFile(u8 const* data, u64 size) noexcept;
    [[nodiscard]] bool IsCalledByFile() const;

    CLogWriter* m_writer = nullptr;
    CSpinLock m_lock;
    std::atomic<u32> m_fileThread{Impl::NoOwner}; ///< the one that is within the file's Write
    TResourcePtr<IFile> m_file;
    SBuffer m_buffers[2];
    u64 m_bufferSize;
    std::atomic<i32> m_index{0};
    bool m_isOwnFile = false; ///< opened by the logger, not handed to it
};

/// Where memory events go. Installed with Memory::InitializeLog, taken back with Memory::ReleaseLog. Called from the
/// thread that allocates, frees, retains or releases, before it goes on.
class VLM_API IMemoryLogger {
public:
    virtual ~IMemoryLogger();

    /// A block of `size` bytes was handed out.
    virtual void OnAllocate(void const* address, u64 size) = 0;
    /// The block is about to go back.
    virtual void OnFree(void const* address) = 0;
    /// The reference count at `address` went up.
    virtual void OnRetain(void const* address) = 0;
    /// The reference count at `address` went down; the object may be gone already.
    virtual void OnRelease(void const* address) = 0;
};

/// Records every event with its call stack into two JSON files, joined by the number "CSHash":
///
///     { "Data": [                                                     { "Data": [
///     { "Timestamp": 5, "Address": "0x7F10", "Size": 24,              { "CSHash": 77, "Stack": [
///       "HeapSize": 91024, "Event": "alloc", "CSHash": 77 }           { "Module": "app", "Symbol": "main",
///     ,{ ... "Event": "free", ... }                                     "File": "app.cpp", "Line": 12 }
///     ]}                                                              ]}
///                                                                     ]}
///
/// (an event is one line; so is a frame). A stack is written once, before the first event that refers to it; the
/// library's own frames are left out of it. Each file is a complete JSON document whenever the process ends.
///
/// Buffered, an event costs the capture of its stack and a copy; a thread of the logger's own resolves the symbols and
/// writes. A thread that finds the buffer full waits for the writer; should the writer stand still for five seconds,
/// because that thread holds something which the writer needs, events are dropped until it moves again and their number
/// is reported with Debug::Print. Unbuffered, the thread that reports an event writes it itself, and the events which
/// that causes in turn are dropped. Neither way are the writer's own allocations recorded.
///
/// Errors: a file that throws or writes short loses what it was given, is made a complete document again as soon as it
/// can be, and the loss is reported with Debug::Print; nothing is thrown to the thread that allocates. Threads: any
/// number may report. The files belong to the logger until it is gone. In a child made by fork the logger records
/// nothing and writes nothing: the files are the parent's.
class VLM_API CFileMemoryLogger : public IMemoryLogger {
public:
    /// Creates both files, or empties them. Throws CFileException when one cannot be opened, CBadAllocation.
    /// \param capacity  events that each of the two buffers takes, 304 bytes an event; 0 writes every event at once.
    CFileMemoryLogger(CString const& eventsPath, CString const& stacksPath, u64 capacity);
    /// Shares both files; writing starts at their current positions. An empty handle loses what would go there.
    /// Throws CBadAllocation.
    CFileMemoryLogger(TResourcePtr<IFile> const& events, TResourcePtr<IFile> const& stacks, u64 capacity);
    CFileMemoryLogger(CFileMemoryLogger const&) = delete;
    CFileMemoryLogger& operator=(CFileMemoryLogger const&) = delete;
    /// Writes what was accepted. Take the logger back with Memory::ReleaseLog first.
    ~CFileMemoryLogger() override;

    void OnAllocate(void const* address, u64 size) override;
    void OnFree(void const* address) override;
    void OnRetain(void const* address) override;
    void OnRelease(void const* address) override;

private:
    friend class CJSONMemoryLogWriter;
    friend struct SMemoryLoggerFork;

    struct SRecord {
        u64 address;
        u64 size;
        u64 heapSize;
        u32 stackHash;
        u64 timestamp;
        u64 event;
    };

    /// Return addresses, a null behind the last unless all are in use.
    struct SStack {
        void* frames[32];
    };

    /// One block of memory: `capacity` records, and behind them a stack for each, which most events leave untouched.
    struct SBuffer {
        SRecord* records = nullptr;
        std::atomic<u64> count{0};
    };

    void Start();
    [[nodiscard]] SStack* GetStacks(SBuffer const& buffer) const;
    void Record(u64 event, void const* address, u64 size);
    void Fill(SRecord& record) const;
    void RecordUnbuffered(u64 event, void const* address, u64 size);
    void RecordBuffered(u64 event, void const* address, u64 size);

    CJSONMemoryLogWriter* m_writer = nullptr;
    CRecursiveSpinLock m_lock;
    TResourcePtr<IFile> m_events;
    TResourcePtr<IFile> m_stacks;
    SBuffer m_buffers[2];
    u64 m_capacity;
    std::atomic<i32> m_index{0};
    bool m_areOwnFiles = false; ///< opened by the logger, not handed to it
};

} // namespace Velmor
