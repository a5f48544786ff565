/// \file
/// A file whose bytes are made as they are read.
#pragma once

#include <vlmcore/files.h>

#include <algorithm>

namespace TestSupport {

/// A read-only file of a host's own, of `size` bytes; derived classes say which. Cannot seek.
class CProducedFile : public Velmor::IFile {
public:
    explicit CProducedFile(Velmor::u64 size) : m_size(size) {}

    Velmor::CString GetPath() override { return ""; }
    Velmor::CString GetFileName() override { return "produced"; }
    Velmor::CString GetFileExt() override { return ""; }
    [[nodiscard]] bool IsWritable() const override { return false; }
    [[nodiscard]] bool IsReadable() const override { return true; }
    [[nodiscard]] void* GetNativeHandle() const override { return nullptr; }
    Velmor::u64 Read(void* buffer, Velmor::u64 size) override
    {
        Velmor::u64 const count = std::min(size, m_size - m_position);
        Produce(static_cast<char*>(buffer), m_position, count);
        m_position += count;
        return count;
    }
    Velmor::u64 Write(void const*, Velmor::u64) override { return 0; }
    Velmor::u64 Seek(Velmor::ESeek::Type, Velmor::i64) override { return m_position; }
    [[nodiscard]] Velmor::u64 GetPosition() const override { return m_position; }
    [[nodiscard]] bool ReachedEOF() const override { return m_position == m_size; }
    [[nodiscard]] Velmor::u64 GetSizeByte() const override { return m_size; }

protected:
    /// Writes the bytes from `position` on.
    virtual void Produce(char* bytes, Velmor::u64 position, Velmor::u64 count) = 0;

private:
    Velmor::u64 m_size;
    Velmor::u64 m_position = 0;
};

} // namespace TestSupport
