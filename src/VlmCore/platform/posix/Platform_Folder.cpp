#include "../Platform_Folder.h"

#include "../Platform_SystemError.h"
#include "Posix_Errno.h"
#include "Posix_Path.h"

#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Velmor::Platform {

// ---- open folders ----

namespace {

static_assert(sizeof(dirent::d_name) <= SFolderEntry::LongestName + 1, "a byte of a name widens to one unit at most");

// Descriptors are kept raised by one, so that null is none.
int DescriptorOf(void* handle)
{
    return static_cast<int>(reinterpret_cast<i64>(handle)) - 1;
}

void* HandleOf(int descriptor)
{
    return reinterpret_cast<void*>(static_cast<i64>(descriptor) + 1);
}

int OpenFolderAt(int parent, char const* name, int linkFlag)
{
    int descriptor;
    do
        descriptor = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | linkFlag);
    while (descriptor == -1 && errno == EINTR);
    return descriptor;
}

} // namespace

CFolder::~CFolder()
{
    Close();
}

u32 CFolder::Open(char16_t const* path, EFolderUse)
{
    Close();
    CSystemPath const systemPath(path);
    if (systemPath.GetError() != 0)
        return systemPath.GetError();
    int const descriptor = OpenFolderAt(AT_FDCWD, systemPath.Get(), 0);
    if (descriptor == -1) {
        int const number = errno;
        struct stat information;
        bool const isLastPart = number == ENOTDIR && ::stat(systemPath.Get(), &information) == 0;
        return isLastPart ? u32{ESystemError::NotAFolder} : SystemErrorFromErrno(number);
    }
    m_handle = HandleOf(descriptor);
    return ESystemError::None;
}

u32 CFolder::OpenEntry(CFolder const& parent, char16_t const* name)
{
    Close();
    CSystemPath const systemName(name);
    if (systemName.GetError() != 0)
        return systemName.GetError();
    int const descriptor = OpenFolderAt(DescriptorOf(parent.m_handle), systemName.Get(), O_NOFOLLOW);
    if (descriptor == -1)
        return errno == ENOTDIR ? u32{ESystemError::NotAFolder} : LastSystemError();
    m_handle = HandleOf(descriptor);
    return ESystemError::None;
}

void CFolder::Close()
{
    // A listing has taken the descriptor over.
    if (m_listing != nullptr)
        ::closedir(static_cast<DIR*>(m_listing));
    else if (m_handle != nullptr)
        ::close(DescriptorOf(m_handle));
    m_listing = nullptr;
    m_handle = nullptr;
}

void CFolder::Park()
{
    struct stat information;
    if (m_handle == nullptr || ::fstat(DescriptorOf(m_handle), &information) != 0)
        return; // unrecognisable it stays open
    m_identity = {information.st_dev, information.st_ino};
    Close();
}

u32 CFolder::Resume(CFolder const& child)
{
    if (m_handle != nullptr)
        return ESystemError::None;
    // A folder's ".." is no link, and leads to wherever the folder now is.
    int const descriptor = OpenFolderAt(DescriptorOf(child.m_handle), "..", O_NOFOLLOW);
    if (descriptor == -1)
        return LastSystemError();
    m_handle = HandleOf(descriptor);
    struct stat information;
    if (::fstat(descriptor, &information) != 0 || !(m_identity == SIdentity{information.st_dev, information.st_ino})) {
        Close();
        return ESystemError::PathNotFound;
    }
    return ESystemError::None;
}

// ---- entries ----

namespace {

bool IsDots(char const* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// As Windows has it: a link that leads to a folder carries the folder attribute itself.
void SetKind(SEntryKind& kind, int folder, char const* name, mode_t mode)
{
    kind.isLink = S_ISLNK(mode);
    kind.isFolder = S_ISDIR(mode);
    struct stat target;
    if (kind.isLink && ::fstatat(folder, name, &target, 0) == 0)
        kind.isFolder = S_ISDIR(target.st_mode);
}

u32 DescribeAt(int folder, char const* name, SEntryKind& kind)
{
    struct stat information;
    if (::fstatat(folder, name, &information, AT_SYMLINK_NOFOLLOW) != 0)
        return LastSystemError();
    SetKind(kind, folder, name, information.st_mode);
    return ESystemError::None;
}

u32 UnlinkAt(int folder, char16_t const* name, int flags)
{
    CSystemPath const systemName(name);
    if (systemName.GetError() != 0)
        return systemName.GetError();
    return ::unlinkat(folder, systemName.Get(), flags) == 0 ? u32{ESystemError::None} : LastSystemError();
}

} // namespace

bool CFolder::ReadEntry(SFolderEntry& entry, u32& error)
{
    error = ESystemError::None;
    int const folder = DescriptorOf(m_handle);
    if (m_listing == nullptr) {
        // It lists by the descriptor that is held, not one of its own: a walk down a deep tree holds many.
        m_listing = ::fdopendir(folder);
        if (m_listing == nullptr) {
            error = LastSystemError();
            return false;
        }
    }
    while (dirent const* const found = ::readdir(static_cast<DIR*>(m_listing))) {
        if (IsDots(found->d_name))
            continue;
        entry.name[WidenSystemText(found->d_name, std::strlen(found->d_name), entry.name)] = 0;
        entry.kind.isLink = false;
        entry.kind.isFolder = found->d_type == DT_DIR;
        if (found->d_type == DT_LNK)
            SetKind(entry.kind, folder, found->d_name, S_IFLNK);
        else if (found->d_type == DT_UNKNOWN)
            (void)DescribeAt(folder, found->d_name,
                             entry.kind); // gone meanwhile: it is listed as the file it may have been
        return true;
    }
    ::rewinddir(static_cast<DIR*>(m_listing));
    return false;
}

u32 CFolder::DescribeEntry(char16_t const* name, SEntryKind& kind) const
{
    CSystemPath const systemName(name);
    if (systemName.GetError() != 0)
        return systemName.GetError();
    return DescribeAt(DescriptorOf(m_handle), systemName.Get(), kind);
}

u32 CFolder::DeleteFileEntry(char16_t const* name) const
{
    return UnlinkAt(DescriptorOf(m_handle), name, 0);
}

u32 CFolder::DeleteFolderEntry(char16_t const* name) const
{
    SEntryKind kind;
    u32 const error = DescribeEntry(name, kind);
    if (error != 0)
        return error;
    return UnlinkAt(DescriptorOf(m_handle), name, kind.isLink ? 0 : AT_REMOVEDIR);
}

u32 DeleteFolderPath(char16_t const* path)
{
    CSystemPath const systemPath(path);
    if (systemPath.GetError() != 0)
        return systemPath.GetError();
    return ::rmdir(systemPath.Get()) == 0 ? u32{ESystemError::None} : LastSystemError();
}

} // namespace Velmor::Platform
