#include "../Platform_File.h"

#include "../Platform_SystemError.h"
#include "Posix_Errno.h"
#include "Posix_Path.h"
#include "Posix_PipeSignal.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Velmor::Platform {

static_assert(sizeof(off_t) == 8, "file positions have 64 bits");

// ---- open files ----

namespace {

// Pipes that are open here. Where there are none, no write needs to ask whether it goes to one.
constinit std::atomic<u32> g_pipeCount{0};

int DescriptorOf(FileHandle handle)
{
    return static_cast<int>(reinterpret_cast<i64>(handle));
}

FileHandle HandleOf(int descriptor)
{
    return reinterpret_cast<FileHandle>(static_cast<i64>(descriptor));
}

// The lowest numbers are the standard streams', also in a host that has closed them: what is printed there would go
// into the file.
int MoveOffStandardStreams(int descriptor)
{
    if (descriptor < 0 || descriptor > STDERR_FILENO)
        return descriptor;
    int const moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int const error = errno;
    ::close(descriptor);
    errno = error;
    return moved;
}

// A transfer against the direction of the open is "access denied" on Windows; EBADF does not tell it from a bad handle.
u32 TransferError(int descriptor)
{
    int const number = errno;
    if (number == EBADF && ::fcntl(descriptor, F_GETFL) != -1)
        return ESystemError::AccessDenied;
    return SystemErrorFromErrno(number);
}

// A separator behind the name of a file: on Windows that name is invalid, while a file in a folder's place on the way
// is a path that is not found. Here both are ENOTDIR.
u32 LastErrorOf(char const* path)
{
    int const number = errno;
    u64 count = std::strlen(path);
    if (number != ENOTDIR || path[count - 1] != '/')
        return SystemErrorFromErrno(number);
    while (count > 1 && path[count - 1] == '/')
        --count;
    char name[PATH_MAX];
    std::memcpy(name, path, count);
    name[count] = '\0';
    struct stat information;
    return ::lstat(name, &information) == 0 ? u32{ESystemError::NotAFolder} : SystemErrorFromErrno(number);
}

// The kind of the entry, as in st_mode; 0 when it cannot be told.
mode_t GetKind(int descriptor)
{
    struct stat information;
    return ::fstat(descriptor, &information) == 0 ? information.st_mode & S_IFMT : 0;
}

bool IsPipe(int descriptor)
{
    return g_pipeCount.load(std::memory_order_relaxed) != 0 && GetKind(descriptor) == S_IFIFO;
}

} // namespace

u32 OpenFileHandle(char16_t const* path, u32 rights, EFileCreation creation, FileHandle& handle)
{
    handle = InvalidFileHandle();
    CSystemPath const systemPath(path);
    if (systemPath.GetError() != 0)
        return systemPath.GetError();

    bool const mayRead = (rights & EFileRights::Read) != 0;
    bool const mayWrite = (rights & EFileRights::Write) != 0;
    int flags = mayRead && mayWrite ? O_RDWR : mayWrite ? O_WRONLY : O_RDONLY;
    flags |= O_CLOEXEC; // children inherit no files, as on Windows
    flags |= O_NOCTTY;  // a terminal opened as a file does not become ours
    if (creation == EFileCreation::OpenAlways)
        flags |= O_CREAT;
    else if (creation == EFileCreation::CreateAlways)
        flags |= O_CREAT | O_TRUNC;

    int descriptor;
    do
        descriptor = ::open(systemPath.Get(), flags, 0666);
    while (descriptor == -1 && errno == EINTR);
    descriptor = MoveOffStandardStreams(descriptor);
    if (descriptor == -1)
        return LastErrorOf(systemPath.Get());
    mode_t const kind = GetKind(descriptor);
    if (kind == S_IFDIR) {
        ::close(descriptor);
        return ESystemError::AccessDenied;
    }
    if (kind == S_IFIFO)
        g_pipeCount.fetch_add(1, std::memory_order_relaxed);
    handle = HandleOf(descriptor);
    return ESystemError::None;
}

void CloseFileHandle(FileHandle handle)
{
    if (IsPipe(DescriptorOf(handle)))
        g_pipeCount.fetch_sub(1, std::memory_order_relaxed);
    // Not repeated after EINTR: Linux has closed the descriptor by then, and another thread may own the number.
    ::close(DescriptorOf(handle));
}

u32 ReadFileHandle(FileHandle handle, void* buffer, u64 size, u64& done)
{
    ssize_t count;
    do
        count = ::read(DescriptorOf(handle), buffer, size);
    while (count == -1 && errno == EINTR);
    done = count < 0 ? 0 : static_cast<u64>(count);
    return count < 0 ? TransferError(DescriptorOf(handle)) : u32{ESystemError::None};
}

namespace {

u32 WriteBytes(FileHandle handle, void const* buffer, u64 size, u64& done)
{
    ssize_t count;
    do
        count = ::write(DescriptorOf(handle), buffer, size);
    while (count == -1 && errno == EINTR);
    done = count < 0 ? 0 : static_cast<u64>(count);
    return count < 0 ? TransferError(DescriptorOf(handle)) : u32{ESystemError::None};
}

} // namespace

u32 WriteFileHandle(FileHandle handle, void const* buffer, u64 size, u64& done)
{
    if (!IsPipe(DescriptorOf(handle))) [[likely]]
        return WriteBytes(handle, buffer, size, done);
    CNoPipeSignal const noSignal; // nobody may read there any more
    return WriteBytes(handle, buffer, size, done);
}

u32 MoveFilePosition(FileHandle handle, i64 offset, EMoveFrom from, u64& position)
{
    int const origin = from == EMoveFrom::Begin ? SEEK_SET : from == EMoveFrom::Current ? SEEK_CUR : SEEK_END;
    off_t const moved = ::lseek(DescriptorOf(handle), offset, origin);
    if (moved == -1)
        return errno == EINVAL ? u32{ESystemError::NegativeSeek} : LastSystemError();
    position = static_cast<u64>(moved);
    return ESystemError::None;
}

u32 GetFileSize(FileHandle handle, u64& size)
{
    struct stat information;
    if (::fstat(DescriptorOf(handle), &information) != 0)
        return LastSystemError();
    size = static_cast<u64>(information.st_size);
    return ESystemError::None;
}

// ---- entries by path ----

namespace {

// Whether `name` matches `pattern`, in which `*` stands for any run and `?` for any unit.
bool MatchesPattern(char16_t const* name, char16_t const* pattern)
{
    char16_t const* retryPattern = nullptr;
    char16_t const* retryName = nullptr;
    while (*name != 0) {
        if (*pattern == u'*') {
            retryPattern = ++pattern;
            retryName = name;
        }
        else if (*pattern == u'?' || *pattern == *name) {
            ++pattern;
            ++name;
        }
        else if (retryPattern != nullptr) {
            pattern = retryPattern;
            name = ++retryName;
        }
        else {
            return false;
        }
    }
    while (*pattern == u'*')
        ++pattern;
    return *pattern == 0;
}

bool AnyEntryMatches(char16_t const* path, u64 nameStart)
{
    char16_t const* const pattern = path + nameStart;
    PathUnits folder;
    for (u64 index = 0; index < nameStart; ++index)
        folder.Append(path[index]);
    folder.Append(u'\0');
    CSystemPath const systemFolder(folder.GetData());
    DIR* const listing = systemFolder.GetError() == 0 ? ::opendir(systemFolder.Get()) : nullptr;
    if (listing == nullptr)
        return false;
    constexpr char16_t AllNames[] = u"*.*"; // also those without a dot
    bool const matchesAll = std::char_traits<char16_t>::compare(pattern, AllNames, 4) == 0;
    bool found = false;
    char16_t name[sizeof(dirent::d_name) + 1];
    while (dirent const* const entry = found ? nullptr : ::readdir(listing)) {
        name[WidenSystemText(entry->d_name, std::strlen(entry->d_name), name)] = 0;
        found = matchesAll || MatchesPattern(name, pattern);
    }
    ::closedir(listing);
    return found;
}

} // namespace

bool EntryExists(char16_t const* path)
{
    CSystemPath const systemPath(path);
    struct stat information;
    if (systemPath.GetError() == 0 && ::lstat(systemPath.Get(), &information) == 0)
        return true;
    u64 nameStart = 0;
    bool hasWildcard = false;
    for (u64 index = 0; path[index] != 0; ++index) {
        if (path[index] == u'\\') {
            nameStart = index + 1;
            hasWildcard = false;
        }
        hasWildcard |= path[index] == u'*' || path[index] == u'?';
    }
    return hasWildcard && AnyEntryMatches(path, nameStart);
}

bool FolderExists(char16_t const* path)
{
    CSystemPath const systemPath(path);
    struct stat information;
    return systemPath.GetError() == 0 && ::stat(systemPath.Get(), &information) == 0 && S_ISDIR(information.st_mode);
}

u32 DeleteFileEntry(char16_t const* path)
{
    CSystemPath const systemPath(path);
    if (systemPath.GetError() != 0)
        return systemPath.GetError();
    return ::unlink(systemPath.Get()) == 0 ? u32{ESystemError::None} : LastErrorOf(systemPath.Get());
}

u32 CreateFolderEntry(char16_t const* path)
{
    CSystemPath const systemPath(path);
    if (systemPath.GetError() != 0)
        return systemPath.GetError();
    if (::mkdir(systemPath.Get(), 0777) == 0)
        return ESystemError::None;
    return errno == EEXIST ? u32{ESystemError::AlreadyExists} : LastSystemError();
}

} // namespace Velmor::Platform
