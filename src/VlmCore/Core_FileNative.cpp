#include "Core_FileError.h"
#include "Core_FileTransfer.h"
#include "Core_Path.h"

#include "platform/Platform_File.h"

#include <vlmcore/files.h>

#include <iterator>

namespace Velmor {

namespace {

void* OpenNative(Path::PathUnits const& path, EFileOpen::Type mode)
{
    // Neither bit asks for both rights; the file then still reports neither.
    u32 rights = (mode & (EFileOpen::Read | EFileOpen::Write)) != 0
                     ? 0
                     : Platform::EFileRights::Read | Platform::EFileRights::Write;
    if ((mode & EFileOpen::Read) != 0)
        rights |= Platform::EFileRights::Read;
    if ((mode & EFileOpen::Write) != 0)
        rights |= Platform::EFileRights::Write;
    Platform::EFileCreation const creation =
        (mode & EFileOpen::CreateAlways) != 0 ? Platform::EFileCreation::CreateAlways
        : (mode & EFileOpen::OpenAlways) != 0 ? Platform::EFileCreation::OpenAlways
                                              : Platform::EFileCreation::OpenExisting;
    void* handle = Platform::InvalidFileHandle();
    RaiseFileError(Platform::OpenFileHandle(path.GetData(), rights, creation, handle));
    return handle;
}

} // namespace

// The name is split before the file is opened: what can run out of memory runs out without a handle in hand.

CNativeFile::CNativeFile(CString const& path, EFileOpen::Type mode)
    : m_handle(Platform::InvalidFileHandle()), m_mode(mode)
{
    Path::PathUnits const full = Path::Normalize(path);
    m_name = Path::Split(Path::ViewOf(full));
    m_handle = OpenNative(full, mode);
}

CNativeFile::CNativeFile(CString const& folder, CString const& path, EFileOpen::Type mode)
    : m_handle(Platform::InvalidFileHandle()), m_mode(mode)
{
    Path::PathUnits const full = Path::NormalizeJoined(folder, path);
    m_name = Path::Split(Path::ViewOf(full));
    m_handle = OpenNative(full, mode);
}

CNativeFile::~CNativeFile()
{
    if (m_handle != Platform::InvalidFileHandle())
        Platform::CloseFileHandle(m_handle);
}

bool CNativeFile::IsWritable() const
{
    return (m_mode & EFileOpen::Write) != 0;
}

bool CNativeFile::IsReadable() const
{
    return (m_mode & EFileOpen::Read) != 0;
}

u64 CNativeFile::Read(void* buffer, u64 size)
{
    return TransferInPieces<EShortCount::Ends>(size, [&](u64 offset, u64 count, u64& done) {
        return Platform::ReadFileHandle(m_handle, static_cast<u8*>(buffer) + offset, count, done);
    });
}

u64 CNativeFile::Write(void const* buffer, u64 size)
{
    return TransferInPieces<EShortCount::GoesOn>(size, [&](u64 offset, u64 count, u64& done) {
        return Platform::WriteFileHandle(m_handle, static_cast<u8 const*>(buffer) + offset, count, done);
    });
}

u64 CNativeFile::Seek(ESeek::Type origin, i64 offset)
{
    using Platform::EMoveFrom;
    constexpr EMoveFrom Methods[] = {EMoveFrom::Begin, EMoveFrom::End, EMoveFrom::Current};
    bool const isKnown = origin < std::size(Methods);
    u64 position = 0;
    RaiseFileError(Platform::MoveFilePosition(m_handle, isKnown ? offset : 0,
                                              isKnown ? Methods[origin] : EMoveFrom::Current, position));
    return position;
}

u64 CNativeFile::GetPosition() const
{
    u64 position = 0;
    RaiseFileError(Platform::MoveFilePosition(m_handle, 0, Platform::EMoveFrom::Current, position));
    return position;
}

bool CNativeFile::ReachedEOF() const
{
    u64 position = 0;
    u64 size = 0;
    return Platform::MoveFilePosition(m_handle, 0, Platform::EMoveFrom::Current, position) != 0 ||
           Platform::GetFileSize(m_handle, size) != 0 || position == size;
}

u64 CNativeFile::GetSizeByte() const
{
    u64 size = 0;
    return Platform::GetFileSize(m_handle, size) == 0 ? size : 0;
}

} // namespace Velmor
