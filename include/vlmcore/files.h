/// \file
/// The byte-stream interface IFile and its kinds.
///
/// Errors: CFileException, whose GetFileError() says which kind. Threads: one file belongs to one thread at a time.
#pragma once

#include <vlmcore/exceptions.h>
#include <vlmcore/export.h>
#include <vlmcore/resources.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

/// Origin of a seek.
namespace ESeek {
enum Type : u32 { Begin = 0, End = 1, Current = 2 };
} // namespace ESeek

/// How to open a file: a set of bits, combine with `|`.
namespace EFileOpen {
enum Type : u32 {
    Read = 1,            ///< for reading
    Write = 2,           ///< for writing; without Read and Write both are requested
    OpenAlways = 4,      ///< create the file when it does not exist
    CreateAlways = 8,    ///< create or truncate; wins over OpenAlways
    ThrowIfMissing = 16, ///< only CResourceArchive reads it: throw instead of returning an empty handle
};

[[nodiscard]] constexpr Type operator|(Type a, Type b)
{
    return static_cast<Type>(static_cast<u32>(a) | static_cast<u32>(b));
}
} // namespace EFileOpen

/// A byte stream. The order of the operations is part of the interface.
class VLM_API IFile : public CResource {
public:
    virtual ~IFile();
    [[nodiscard]] virtual CString GetPath() = 0;
    [[nodiscard]] virtual CString GetFileName() = 0;
    [[nodiscard]] virtual CString GetFileExt() = 0;
    [[nodiscard]] virtual bool IsWritable() const = 0;
    [[nodiscard]] virtual bool IsReadable() const = 0;
    [[nodiscard]] virtual void* GetNativeHandle() const = 0;
    virtual u64 Read(void* buffer, u64 size) = 0;
    virtual u64 Write(void const* buffer, u64 size) = 0;
    virtual u64 Seek(ESeek::Type origin, i64 offset) = 0;
    [[nodiscard]] virtual u64 GetPosition() const = 0;
    [[nodiscard]] virtual bool ReachedEOF() const = 0;
    [[nodiscard]] virtual u64 GetSizeByte() const = 0;
};

/// A file of the operating system.
class VLM_API CNativeFile : public IFile {
public:
    CNativeFile(CString const& path, EFileOpen::Type mode);
    CNativeFile(CString const& folder, CString const& path, EFileOpen::Type mode);
    CNativeFile(CNativeFile const&) = delete;
    CNativeFile& operator=(CNativeFile const&) = delete;
    ~CNativeFile() override;

    [[nodiscard]] CString GetPath() override;
    [[nodiscard]] CString GetFileName() override;
    [[nodiscard]] CString GetFileExt() override;
    [[nodiscard]] bool IsWritable() const override;
    [[nodiscard]] bool IsReadable() const override;
    [[nodiscard]] void* GetNativeHandle() const override;
    u64 Read(void* buffer, u64 size) override;
    u64 Write(void const* buffer, u64 size) override;
    u64 Seek(ESeek::Type origin, i64 offset) override;
    [[nodiscard]] u64 GetPosition() const override;
    [[nodiscard]] bool ReachedEOF() const override;
    [[nodiscard]] u64 GetSizeByte() const override;

private:
    void* m_handle;
    EFileOpen::Type m_mode;
    CMutableString m_folder;
    CMutableString m_name;
    CMutableString m_extension;
};

} // namespace Velmor
