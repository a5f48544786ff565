/// \file
/// The byte-stream interface IFile and its kinds: files of the operating system, growing buffers, views of memory, and
/// nothing at all.
///
///     TResourcePtr<IFile> const file = MakeResource<CNativeFile>("~\\notes.txt", EFileOpen::Read);
///     char text[512];
///     u64 const bytes = file->Read(text, sizeof text);
///
/// Paths: backslashes and slashes separate, on every platform; "~" in front is the documents folder. docs/files.md has
/// the grammar. Positions, sizes and counts are bytes.
///
/// Errors: CFileException, whose GetFileError() says which kind; CBadAllocation, and then the file is as it was.
/// Threads: one file belongs to one thread at a time; different files are independent.
#pragma once

#include <vlmcore/exceptions.h>
#include <vlmcore/export.h>
#include <vlmcore/resources.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

/// Origin of a seek.
namespace ESeek {
enum Type : u32 {
    Begin = 0,   ///< from the start
    End = 1,     ///< from the end; which way a positive offset leads depends on the kind of file, see IFile::Seek
    Current = 2, ///< from the current position
};
} // namespace ESeek

/// How to open a file: a set of bits, combine with `|`.
///
/// With neither Read nor Write a native file is opened for both, yet reports itself as neither readable nor writable
/// (kept: hosts depend on it).
namespace EFileOpen {
enum Type : u32 {
    Read = 1,         ///< for reading
    Write = 2,        ///< for writing
    OpenAlways = 4,   ///< create the file when it does not exist
    CreateAlways = 8, ///< create the file or empty an existing one, even when only Read is asked; wins over OpenAlways
    ThrowIfMissing = 16, ///< only CResourceArchive reads it: throw instead of returning an empty handle
};

[[nodiscard]] constexpr Type operator|(Type a, Type b)
{
    return static_cast<Type>(static_cast<u32>(a) | static_cast<u32>(b));
}
} // namespace EFileOpen

/// A byte stream. The order of the operations is part of the interface; hosts may implement it.
class VLM_API IFile : public CResource {
public:
    virtual ~IFile();

    /// Folder of the file's path, without a trailing separator; empty when there is none. The three texts are views:
    /// valid as long as the file.
    [[nodiscard]] virtual CString GetPath() = 0;
    /// Name without folder and extension; of ".profile" empty.
    [[nodiscard]] virtual CString GetFileName() = 0;
    /// What follows the last full stop of the name: "gz" of "archive.tar.gz".
    [[nodiscard]] virtual CString GetFileExt() = 0;

    /// Whether the file was opened for it.
    [[nodiscard]] virtual bool IsWritable() const = 0;
    [[nodiscard]] virtual bool IsReadable() const = 0;

    /// What is beneath: the system's handle, the first byte of memory, or null.
    [[nodiscard]] virtual void* GetNativeHandle() const = 0;

    /// Reads up to `size` bytes at the position and moves it behind them. Returns the bytes read; 0 at the end.
    virtual u64 Read(void* buffer, u64 size) = 0;

    /// Writes `size` bytes at the position and moves it behind them. Returns the bytes written, which may be fewer.
    virtual u64 Write(void const* buffer, u64 size) = 0;

    /// Moves the position. Native and resource files add the offset to the origin and return the new position; memory
    /// and byte-stream files subtract it from the end (so 3 from the end is 3 before it) and return 0 (kept: hosts
    /// depend on both).
    virtual u64 Seek(ESeek::Type origin, i64 offset) = 0;

    /// Bytes from the start.
    [[nodiscard]] virtual u64 GetPosition() const = 0;
    /// True when the position is the size. Never throws.
    [[nodiscard]] virtual bool ReachedEOF() const = 0;
    /// 0 when the size is unknown. Never throws.
    [[nodiscard]] virtual u64 GetSizeByte() const = 0;
};

/// The three parts of a file's path.
struct SFileName {
    CMutableString folder;    ///< without a separator at its end
    CMutableString name;      ///< without folder and extension
    CMutableString extension; ///< without its dot
};

/// A file of the operating system, open from construction to destruction, shared with other readers and writers.
class VLM_API CNativeFile : public IFile {
public:
    /// Normalises `path` and opens the file. Throws CFileException, NotFound for a missing file that `mode` does not
    /// create. A folder cannot be opened.
    CNativeFile(CString const& path, EFileOpen::Type mode);
    /// Opens `folder`, a backslash and `path`, joined as they stand.
    CNativeFile(CString const& folder, CString const& path, EFileOpen::Type mode);
    CNativeFile(CNativeFile const&) = delete;
    CNativeFile& operator=(CNativeFile const&) = delete;
    ~CNativeFile() override;

    [[nodiscard]] CString GetPath() override { return CString(m_name.folder); }
    [[nodiscard]] CString GetFileName() override { return CString(m_name.name); }
    [[nodiscard]] CString GetFileExt() override { return CString(m_name.extension); }
    /// Whether the mode passed asked for it.
    [[nodiscard]] bool IsWritable() const override;
    [[nodiscard]] bool IsReadable() const override;
    /// HANDLE on Windows; elsewhere the file descriptor, cast.
    [[nodiscard]] void* GetNativeHandle() const override { return m_handle; }
    /// Sizes of 4 GiB and more are carried out in full, in several calls of the system.
    u64 Read(void* buffer, u64 size) override;
    /// A full disk shows as a count below `size` or as a CFileException, and as that on the next call at the latest.
    u64 Write(void const* buffer, u64 size) override;
    /// An unknown origin moves nothing. Before the start: CFileException.
    u64 Seek(ESeek::Type origin, i64 offset) override;
    [[nodiscard]] u64 GetPosition() const override;
    /// True also when the position or the size cannot be had.
    [[nodiscard]] bool ReachedEOF() const override;
    [[nodiscard]] u64 GetSizeByte() const override;

private:
    void* m_handle;
    EFileOpen::Type m_mode;
    SFileName m_name;
};

/// A buffer that grows as it is written, exactly as far as needed: for many small appends collect first.
class VLM_API CMemoryFile : public IFile {
public:
    /// An empty file; `path` is only split into its parts.
    explicit CMemoryFile(CString const& path);
    CMemoryFile(CMemoryFile const&) = delete;
    CMemoryFile& operator=(CMemoryFile const&) = delete;
    ~CMemoryFile() override;

    [[nodiscard]] CString GetPath() override { return CString(m_name.folder); }
    [[nodiscard]] CString GetFileName() override { return CString(m_name.name); }
    [[nodiscard]] CString GetFileExt() override { return CString(m_name.extension); }
    [[nodiscard]] bool IsWritable() const override { return true; }
    [[nodiscard]] bool IsReadable() const override { return true; }
    /// First byte of the contents, null while there were none; changes when the file grows.
    [[nodiscard]] void* GetNativeHandle() const override { return m_buffer.data; }
    u64 Read(void* buffer, u64 size) override;
    /// Always whole, or CBadAllocation. `buffer` may lie in the file's own contents.
    u64 Write(void const* buffer, u64 size) override;
    /// Beyond the end the file grows, and what lies between is whatever the memory held. Before the start is 0.
    u64 Seek(ESeek::Type origin, i64 offset) override;
    [[nodiscard]] u64 GetPosition() const override { return m_position; }
    [[nodiscard]] bool ReachedEOF() const override { return m_position == m_buffer.size; }
    [[nodiscard]] u64 GetSizeByte() const override { return m_buffer.size; }

private:
    struct SBuffer {
        u8* data = nullptr;
        u64 size = 0;
        u64 capacity = 0;
        f32 growth = 1.5f; // part of the layout; files grow exactly
    };

    [[nodiscard]] u8* AllocateLarger(u64 capacity) const;
    void AdoptStorage(u8* storage, u64 capacity);

    SFileName m_name;
    SBuffer m_buffer;
    u64 m_position = 0;
};

/// A view of memory that the caller owns and keeps alive. Read-only or writable by the constness of what it is given.
class VLM_API CByteStreamFile : public IFile {
public:
    /// Reading only; the constness of `data` decides. `path` is taken apart, never looked up. Throws CBadAllocation.
    CByteStreamFile(CString const& path, void const* data, u64 size);
    /// Reading and writing.
    CByteStreamFile(CString const& path, void* data, u64 size);
    CByteStreamFile(CByteStreamFile const&) = delete;
    CByteStreamFile& operator=(CByteStreamFile const&) = delete;
    ~CByteStreamFile() override;

    [[nodiscard]] CString GetPath() override { return CString(m_name.folder); }
    [[nodiscard]] CString GetFileName() override { return CString(m_name.name); }
    [[nodiscard]] CString GetFileExt() override { return CString(m_name.extension); }
    [[nodiscard]] bool IsWritable() const override { return m_isWritable; }
    [[nodiscard]] bool IsReadable() const override { return true; }
    [[nodiscard]] void* GetNativeHandle() const override { return m_data; }
    u64 Read(void* buffer, u64 size) override;
    /// All or nothing: 0 when `size` bytes do not fit before the end. Read-only: CFileException, Denied.
    u64 Write(void const* buffer, u64 size) override;
    /// Stays between the start and the end.
    u64 Seek(ESeek::Type origin, i64 offset) override;
    [[nodiscard]] u64 GetPosition() const override { return m_position; }
    [[nodiscard]] bool ReachedEOF() const override { return m_position == m_size; }
    [[nodiscard]] u64 GetSizeByte() const override { return m_size; }

private:
    SFileName m_name;
    void* m_data;
    u64 m_size;
    u64 m_position = 0;
    bool m_isWritable;
};

/// A file that takes nothing and has nothing, but a name: every count and position is 0.
class VLM_API CNullFile : public IFile {
public:
    /// A null file that carries a name. Throws CBadAllocation.
    explicit CNullFile(CString const& path);
    CNullFile(CNullFile const&) = delete;
    CNullFile& operator=(CNullFile const&) = delete;
    ~CNullFile() override;

    [[nodiscard]] CString GetPath() override { return CString(m_name.folder); }
    [[nodiscard]] CString GetFileName() override { return CString(m_name.name); }
    [[nodiscard]] CString GetFileExt() override { return CString(m_name.extension); }
    [[nodiscard]] bool IsWritable() const override { return true; }
    [[nodiscard]] bool IsReadable() const override { return true; }
    [[nodiscard]] void* GetNativeHandle() const override { return nullptr; }
    u64 Read(void* buffer, u64 size) override;
    u64 Write(void const* buffer, u64 size) override;
    u64 Seek(ESeek::Type origin, i64 offset) override;
    [[nodiscard]] u64 GetPosition() const override { return 0; }
    [[nodiscard]] bool ReachedEOF() const override { return true; }
    [[nodiscard]] u64 GetSizeByte() const override { return 0; }

private:
    SFileName m_name;
};

} // namespace Velmor
