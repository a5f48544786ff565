#include "../Platform_File.h"

#include "../Platform_SystemError.h"
#include "Windows_Path.h"

#include <windows.h>

namespace Velmor::Platform {

static_assert(EFileRights::Read == GENERIC_READ && EFileRights::Write == GENERIC_WRITE);
static_assert(static_cast<u32>(EFileCreation::CreateAlways) == CREATE_ALWAYS);
static_assert(static_cast<u32>(EFileCreation::OpenExisting) == OPEN_EXISTING);
static_assert(static_cast<u32>(EFileCreation::OpenAlways) == OPEN_ALWAYS);
static_assert(static_cast<u32>(EMoveFrom::Begin) == FILE_BEGIN &&
              static_cast<u32>(EMoveFrom::Current) == FILE_CURRENT && static_cast<u32>(EMoveFrom::End) == FILE_END);

// ---- open files ----

u32 OpenFileHandle(char16_t const* path, u32 rights, EFileCreation creation, FileHandle& handle)
{
    CSystemPath const systemPath(path);
    handle = ::CreateFileW(systemPath.Get(), rights, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           static_cast<DWORD>(creation), FILE_ATTRIBUTE_NORMAL, nullptr);
    return handle == INVALID_HANDLE_VALUE ? ::GetLastError() : u32{ESystemError::None};
}

void CloseFileHandle(FileHandle handle)
{
    ::CloseHandle(handle);
}

u32 ReadFileHandle(FileHandle handle, void* buffer, u64 size, u64& done)
{
    DWORD count = 0;
    bool const succeeded = ::ReadFile(handle, buffer, static_cast<DWORD>(size), &count, nullptr) != FALSE;
    done = count;
    return succeeded ? u32{ESystemError::None} : ::GetLastError();
}

u32 WriteFileHandle(FileHandle handle, void const* buffer, u64 size, u64& done)
{
    DWORD count = 0;
    bool const succeeded = ::WriteFile(handle, buffer, static_cast<DWORD>(size), &count, nullptr) != FALSE;
    done = count;
    return succeeded ? u32{ESystemError::None} : ::GetLastError();
}

u32 MoveFilePosition(FileHandle handle, i64 offset, EMoveFrom from, u64& position)
{
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    LARGE_INTEGER moved;
    if (::SetFilePointerEx(handle, distance, &moved, static_cast<DWORD>(from)) == FALSE)
        return ::GetLastError();
    position = static_cast<u64>(moved.QuadPart);
    return ESystemError::None;
}

u32 GetFileSize(FileHandle handle, u64& size)
{
    LARGE_INTEGER bytes;
    if (::GetFileSizeEx(handle, &bytes) == FALSE)
        return ::GetLastError();
    size = static_cast<u64>(bytes.QuadPart);
    return ESystemError::None;
}

// ---- entries by path ----

bool EntryExists(char16_t const* path)
{
    CSystemPath const systemPath(path);
    WIN32_FIND_DATAW entry;
    HANDLE const search =
        ::FindFirstFileExW(systemPath.Get(), FindExInfoStandard, &entry, FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return false;
    ::FindClose(search);
    return true;
}

bool FolderExists(char16_t const* path)
{
    CSystemPath const systemPath(path);
    DWORD const attributes = ::GetFileAttributesW(systemPath.Get());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

u32 DeleteFileEntry(char16_t const* path)
{
    CSystemPath const systemPath(path);
    return ::DeleteFileW(systemPath.Get()) != FALSE ? u32{ESystemError::None} : ::GetLastError();
}

u32 CreateFolderEntry(char16_t const* path)
{
    CSystemPath const systemPath(path);
    return ::CreateDirectoryW(systemPath.Get(), nullptr) != FALSE ? u32{ESystemError::None} : ::GetLastError();
}

} // namespace Velmor::Platform
