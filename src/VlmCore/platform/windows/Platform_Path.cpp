#include "../Platform_Path.h"

#include "../Platform_SystemError.h"
#include "Windows_Path.h"

#include <cwchar>

#include <windows.h>

#include <shlobj.h>

namespace Velmor::Platform {

// ---- names ----

namespace {

// The shortest limit without the prefix is that of CreateDirectoryW: 260 units less a short file name.
constexpr u64 LongestPlainPath = 247;

// The system counts the bytes of a name in 16 bits, its terminator included.
constexpr u64 LongestPath = 32766;

void AppendWide(PathUnits& target, wchar_t const* text, u64 count)
{
    target.Reserve(target.GetCount() + count);
    for (u64 index = 0; index < count; ++index)
        target.Append(static_cast<char16_t>(text[index]));
}

void AppendWide(PathUnits& target, wchar_t const* text)
{
    AppendWide(target, text, std::wcslen(text));
}

// Calls that return the count without the terminator, or the capacity they need with it, or 0 and the last error.
template <class Call>
u32 FetchPath(PathUnits& path, Call call)
{
    path.Clear();
    path.Resize(MAX_PATH);
    for (;;) {
        DWORD const capacity = static_cast<DWORD>(path.GetCount());
        DWORD const count = call(reinterpret_cast<wchar_t*>(path.GetData()), capacity);
        if (count == 0) {
            path.Clear();
            return ::GetLastError();
        }
        path.Resize(count);
        if (count < capacity)
            return ESystemError::None;
    }
}

bool HasPrefix(PathUnits const& path, wchar_t const* prefix)
{
    u64 const count = std::wcslen(prefix);
    return path.GetCount() >= count && std::wmemcmp(AsWide(path.GetData()), prefix, count) == 0;
}

// "\\?\C:\x" is "C:\x", "\\?\UNC\server\x" is "\\server\x".
void DropLongPrefix(PathUnits& path)
{
    bool const isShare = HasPrefix(path, L"\\\\?\\UNC\\");
    if (!isShare && !HasPrefix(path, L"\\\\?\\"))
        return;
    PathUnits plain;
    if (isShare)
        plain.Append(u'\\');
    u64 const dropped = isShare ? 7 : 4;
    AppendWide(plain, AsWide(path.GetData()) + dropped, path.GetCount() - dropped);
    path = std::move(plain);
}

} // namespace

CSystemPath::CSystemPath(char16_t const* path) : m_path(AsWide(path))
{
    u64 const count = std::wcslen(m_path);
    if (count <= LongestPlainPath)
        return;
    bool const isDoubled = path[0] == u'\\' && path[1] == u'\\';
    if (isDoubled && (path[2] == u'?' || path[2] == u'.'))
        return; // a device path or one that has its prefix
    AppendWide(m_long, isDoubled ? L"\\\\?\\UNC" : L"\\\\?\\");
    // Of "\\server\share" one backslash ends the prefix already written.
    AppendWide(m_long, m_path + (isDoubled ? 1 : 0));
    m_long.Append(u'\0');
    m_path = AsWide(m_long.GetData());
}

// ---- folders of the process and the user ----

u32 GetCurrentFolder(PathUnits& folder)
{
    return FetchPath(folder, [](wchar_t* buffer, DWORD capacity) { return ::GetCurrentDirectoryW(capacity, buffer); });
}

u32 MakeAbsolutePath(char16_t const* path, PathUnits& absolute)
{
    u32 const error = FetchPath(absolute, [path](wchar_t* buffer, DWORD capacity) {
        return ::GetFullPathNameW(AsWide(path), capacity, buffer, nullptr);
    });
    return error == 0 && absolute.GetCount() > LongestPath ? u32{ESystemError::NameTooLong} : error;
}

void GetDocumentsFolder(PathUnits& folder)
{
    folder.Clear();
    wchar_t path[MAX_PATH] = {};
    // The result does not matter: a failure leaves the buffer empty.
    ::SHGetFolderPathW(nullptr, CSIDL_PERSONAL, nullptr, SHGFP_TYPE_CURRENT, path);
    AppendWide(folder, path);
}

u32 GetExecutablePath(PathUnits& path)
{
    // This call cuts instead of telling what it needs.
    path.Clear();
    for (u64 capacity = MAX_PATH;; capacity *= 2) {
        path.Resize(capacity);
        DWORD const count =
            ::GetModuleFileNameW(nullptr, reinterpret_cast<wchar_t*>(path.GetData()), static_cast<DWORD>(capacity));
        path.Resize(count);
        if (count == 0)
            return ::GetLastError();
        if (count < capacity)
            return ESystemError::None;
    }
}

u32 ResolveLinks(char16_t const* path, PathUnits& resolved)
{
    resolved.Clear();
    CSystemPath const systemPath(path);
    // Backup semantics: without them folders cannot be opened at all.
    HANDLE const handle = ::CreateFileW(systemPath.Get(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return ::GetLastError();
    struct SClose {
        HANDLE handle;
        ~SClose() { ::CloseHandle(handle); }
    } const close{handle};
    u32 const error = FetchPath(resolved, [handle](wchar_t* buffer, DWORD capacity) {
        return ::GetFinalPathNameByHandleW(handle, buffer, capacity, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    });
    DropLongPrefix(resolved);
    return error;
}

bool IsSameName(char16_t const* first, char16_t const* second, u64 count)
{
    return ::CompareStringOrdinal(AsWide(first), static_cast<int>(count), AsWide(second), static_cast<int>(count),
                                  TRUE) == CSTR_EQUAL;
}

} // namespace Velmor::Platform
