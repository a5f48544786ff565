#include "../Platform_Folder.h"

#include "../Platform_SystemError.h"
#include "Windows_Path.h"

#include <cwchar>

#include <windows.h>

namespace Velmor::Platform {

// ---- open folders ----

namespace {

static_assert(sizeof(WIN32_FIND_DATAW::cFileName) / sizeof(wchar_t) >= SFolderEntry::LongestName + 1);

// Reparse points of other kinds (files kept elsewhere, deduplicated files) are no links: only those whose tag says that
// they stand for another name. Without a tag the attribute decides.
bool IsLink(DWORD attributes, DWORD tag)
{
    constexpr DWORD NameSurrogateBit = 0x20000000;
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && (tag == 0 || (tag & NameSurrogateBit) != 0);
}

void SetKind(SEntryKind& kind, WIN32_FIND_DATAW const& data)
{
    kind.isFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    kind.isLink = IsLink(data.dwFileAttributes, data.dwReserved0);
}

// `folder`, a backslash unless it ends in one, and `name`; terminated.
PathUnits JoinEntry(PathUnits const& folder, char16_t const* name)
{
    PathUnits path(folder);
    path.RemoveAt(path.GetCount() - 1);
    if (path[path.GetCount() - 1] != u'\\')
        path.Append(u'\\');
    do
        path.Append(*name);
    while (*name++ != 0);
    return path;
}

u32 OpenFolderPath(char16_t const* path, EFolderUse use, DWORD linkFlag, void*& handle)
{
    CSystemPath const systemPath(path);
    // Without the right to share deletion nobody renames or removes the folder while it is open.
    DWORD const share = FILE_SHARE_READ | FILE_SHARE_WRITE | (use == EFolderUse::Look ? FILE_SHARE_DELETE : 0);
    HANDLE const opened = ::CreateFileW(systemPath.Get(), FILE_LIST_DIRECTORY, share, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_BACKUP_SEMANTICS | linkFlag, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
        return ::GetLastError();
    BY_HANDLE_FILE_INFORMATION information;
    if (::GetFileInformationByHandle(opened, &information) == FALSE)
        information.dwFileAttributes = 0;
    bool const isFolder = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (!isFolder) {
        ::CloseHandle(opened);
        return ESystemError::NotAFolder;
    }
    handle = opened;
    return ESystemError::None;
}

} // namespace

CFolder::~CFolder()
{
    Close();
}

u32 CFolder::Open(char16_t const* path, EFolderUse use)
{
    Close();
    for (char16_t const* unit = path; unit == path || unit[-1] != 0; ++unit)
        m_path.Append(*unit);
    return OpenFolderPath(path, use, 0, m_handle);
}

u32 CFolder::OpenEntry(CFolder const& parent, char16_t const* name)
{
    Close();
    m_path = JoinEntry(parent.m_path, name);
    u32 const error = OpenFolderPath(m_path.GetData(), EFolderUse::Hold, FILE_FLAG_OPEN_REPARSE_POINT, m_handle);
    if (error != 0)
        return error;
    // Asked while the handle holds the entry in place.
    SEntryKind kind;
    if (parent.DescribeEntry(name, kind) != 0 || kind.isLink) {
        Close();
        return ESystemError::NotAFolder;
    }
    return ESystemError::None;
}

void CFolder::Close()
{
    if (m_listing != nullptr)
        ::FindClose(m_listing);
    if (m_handle != nullptr)
        ::CloseHandle(m_handle);
    m_listing = nullptr;
    m_handle = nullptr;
    m_path.Clear();
}

// Handles are many, and only one that is held keeps its folder in place.
void CFolder::Park() {}

u32 CFolder::Resume(CFolder const&)
{
    return ESystemError::None;
}

// ---- entries ----

bool CFolder::ReadEntry(SFolderEntry& entry, u32& error)
{
    error = ESystemError::None;
    WIN32_FIND_DATAW data;
    bool found = true;
    if (m_listing == nullptr) {
        PathUnits const pattern = JoinEntry(m_path, u"*.*");
        CSystemPath const systemPath(pattern.GetData());
        HANDLE const listing =
            ::FindFirstFileExW(systemPath.Get(), FindExInfoStandard, &data, FindExSearchNameMatch, nullptr, 0);
        if (listing == INVALID_HANDLE_VALUE) {
            error = ::GetLastError();
            return false;
        }
        m_listing = listing;
    }
    else {
        found = ::FindNextFileW(m_listing, &data) != FALSE;
    }
    while (found && (std::wcscmp(data.cFileName, L".") == 0 || std::wcscmp(data.cFileName, L"..") == 0))
        found = ::FindNextFileW(m_listing, &data) != FALSE;
    if (!found) {
        ::FindClose(m_listing);
        m_listing = nullptr;
        return false;
    }
    u64 count = 0;
    for (; count < SFolderEntry::LongestName && data.cFileName[count] != 0; ++count)
        entry.name[count] = static_cast<char16_t>(data.cFileName[count]);
    entry.name[count] = 0;
    SetKind(entry.kind, data);
    return true;
}

u32 CFolder::DescribeEntry(char16_t const* name, SEntryKind& kind) const
{
    PathUnits const path = JoinEntry(m_path, name);
    CSystemPath const systemPath(path.GetData());
    WIN32_FIND_DATAW data;
    HANDLE const search =
        ::FindFirstFileExW(systemPath.Get(), FindExInfoStandard, &data, FindExSearchNameMatch, nullptr, 0);
    if (search == INVALID_HANDLE_VALUE)
        return ::GetLastError();
    ::FindClose(search);
    SetKind(kind, data);
    return ESystemError::None;
}

u32 CFolder::DeleteFileEntry(char16_t const* name) const
{
    PathUnits const path = JoinEntry(m_path, name);
    CSystemPath const systemPath(path.GetData());
    return ::DeleteFileW(systemPath.Get()) != FALSE ? u32{ESystemError::None} : ::GetLastError();
}

u32 CFolder::DeleteFolderEntry(char16_t const* name) const
{
    PathUnits const path = JoinEntry(m_path, name);
    return DeleteFolderPath(path.GetData());
}

u32 DeleteFolderPath(char16_t const* path)
{
    // The system removes a junction or a folder link itself.
    CSystemPath const systemPath(path);
    return ::RemoveDirectoryW(systemPath.Get()) != FALSE ? u32{ESystemError::None} : ::GetLastError();
}

} // namespace Velmor::Platform
