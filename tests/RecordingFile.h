/// \file
/// A file that keeps what was written, and can be told to fail.
#pragma once

#include <vlmcore/files.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace VlmTest {

/// An IFile of a host's own: content in a std::string, every write remembered. `onWrite`, when set, is asked first how
/// many bytes of a write to take (it may throw). May be looked at from another thread while it is written to.
class CRecordingFile : public Velmor::IFile {
public:
    using OnWrite = std::function<Velmor::u64(Velmor::u64 call, Velmor::u64 size)>;

    explicit CRecordingFile(OnWrite onWrite = nullptr) : m_onWrite(std::move(onWrite)) {}

    [[nodiscard]] std::string GetContent() const
    {
        std::lock_guard const lock(m_mutex);
        return m_content;
    }

    /// The pieces that arrived, one per call that took something.
    [[nodiscard]] std::vector<std::string> GetWrites() const
    {
        std::lock_guard const lock(m_mutex);
        return m_writes;
    }

    /// Calls of Write so far, failed ones included.
    [[nodiscard]] Velmor::u64 GetCallCount() const { return m_calls; }

    Velmor::CString GetPath() override { return "recording"; }
    Velmor::CString GetFileName() override { return "file"; }
    Velmor::CString GetFileExt() override { return ""; }
    [[nodiscard]] bool IsWritable() const override { return true; }
    [[nodiscard]] bool IsReadable() const override { return false; }
    [[nodiscard]] void* GetNativeHandle() const override { return nullptr; }
    Velmor::u64 Read(void*, Velmor::u64) override { return 0; }

    Velmor::u64 Write(void const* buffer, Velmor::u64 size) override
    {
        Velmor::u64 const taken = m_onWrite ? m_onWrite(m_calls++, size) : (++m_calls, size);
        std::lock_guard const lock(m_mutex);
        std::string const piece(static_cast<char const*>(buffer), taken);
        if (taken > 0)
            m_writes.push_back(piece);
        m_content.replace(m_position, taken, piece);
        m_position += taken;
        return taken;
    }

    Velmor::u64 Seek(Velmor::ESeek::Type origin, Velmor::i64 offset) override
    {
        std::lock_guard const lock(m_mutex);
        Velmor::i64 base = 0;
        if (origin == Velmor::ESeek::Current)
            base = static_cast<Velmor::i64>(m_position);
        else if (origin == Velmor::ESeek::End)
            base = static_cast<Velmor::i64>(m_content.size());
        m_position = static_cast<Velmor::u64>(base + offset);
        return m_position;
    }

    [[nodiscard]] Velmor::u64 GetPosition() const override { return m_position; }
    [[nodiscard]] bool ReachedEOF() const override { return m_position == m_content.size(); }
    [[nodiscard]] Velmor::u64 GetSizeByte() const override { return m_content.size(); }

private:
    OnWrite m_onWrite;
    mutable std::mutex m_mutex;
    std::atomic<Velmor::u64> m_calls{0};
    std::string m_content;
    std::vector<std::string> m_writes;
    Velmor::u64 m_position = 0;
};

} // namespace VlmTest
