#include "support/Folders.h"

#include <vector>

#include <windows.h>

#include <shlobj.h>
#include <winioctl.h>

namespace TestSupport {

namespace fs = std::filesystem;

namespace {

bool linksAreNative = true;

bool MakeSymbolicLink(fs::path const& target, fs::path const& link)
{
    constexpr DWORD AllowUnprivileged = 2;
    DWORD const kind = fs::is_directory(target) ? SYMBOLIC_LINK_FLAG_DIRECTORY : 0;
    return ::CreateSymbolicLinkW(link.c_str(), target.c_str(), kind | AllowUnprivileged) != FALSE && fs::exists(link);
}

// What the system keeps of a junction, as FSCTL_SET_REPARSE_POINT takes it.
bool MakeJunction(fs::path const& target, fs::path const& link)
{
    if (!fs::is_directory(target) || !fs::create_directory(link))
        return false;
    std::wstring const substitute = L"\\??\\" + target.wstring();
    WORD const bytes = static_cast<WORD>(substitute.size() * sizeof(wchar_t));
    std::vector<WORD> data;
    DWORD const tag = IO_REPARSE_TAG_MOUNT_POINT;
    for (WORD const word :
         {static_cast<WORD>(tag & 0xFFFF), static_cast<WORD>(tag >> 16), static_cast<WORD>(bytes + 12), WORD{0},
          WORD{0}, bytes, static_cast<WORD>(bytes + 2), WORD{0}})
        data.push_back(word);
    for (wchar_t const unit : substitute)
        data.push_back(unit);
    data.push_back(0);
    data.push_back(0);
    HANDLE const handle = ::CreateFileW(link.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    DWORD returned = 0;
    bool const made =
        handle != INVALID_HANDLE_VALUE &&
        ::DeviceIoControl(handle, FSCTL_SET_REPARSE_POINT, data.data(), static_cast<DWORD>(data.size() * sizeof(WORD)),
                          nullptr, 0, &returned, nullptr) != FALSE;
    if (handle != INVALID_HANDLE_VALUE)
        ::CloseHandle(handle);
    if (!made)
        fs::remove(link);
    return made;
}

// Where Windows calls run on another system: that system's name of a path. Empty on Windows itself.
std::wstring ToHostName(fs::path const& path)
{
    using Convert = char*(CDECL*)(wchar_t const*);
    auto const convert = reinterpret_cast<Convert>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
    if (convert == nullptr)
        return {};
    char* const text = convert(path.c_str());
    std::string const copy = text != nullptr ? text : "";
    ::HeapFree(::GetProcessHeap(), 0, text);
    return fs::path(copy).wstring();
}

// Runs a tool of that system, and waits until it has made `isDone` true.
template <class Condition>
bool RunHostTool(std::wstring const& name, std::wstring const& arguments, Condition const& isDone)
{
    std::wstring const program = L"Z:\\bin\\" + name;
    std::wstring command = program + L" " + arguments;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process;
    if (::CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                         &process) == FALSE)
        return false;
    ::WaitForSingleObject(process.hProcess, 10000);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    for (int attempt = 0; attempt < 200 && !isDone(); ++attempt)
        ::Sleep(10); // the tool may run on after its stand-in process has ended
    return isDone();
}

bool Exists(std::wstring const& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// That system's own tool makes its own kind of link.
bool MakeHostLink(fs::path const& target, fs::path const& link)
{
    std::wstring const targetName = ToHostName(target);
    std::wstring const folderName = ToHostName(link.parent_path());
    if (targetName.empty() || folderName.empty())
        return false;
    return RunHostTool(L"ln", L"-s \"" + targetName + L"\" \"" + folderName + L"/" + link.filename().wstring() + L"\"",
                       [&] { return Exists(link.wstring()); });
}

// Windows calls do not see such a link: they would go through it, and cannot remove it.
void RemoveHostTree(fs::path const& path)
{
    std::wstring const name = ToHostName(path);
    if (name.size() > 1)
        (void)RunHostTool(L"rm", L"-rf \"" + name + L"\"", [&] { return !Exists(path.wstring()); });
}

void RemoveTreeByCalls(std::wstring const& path)
{
    WIN32_FIND_DATAW entry;
    HANDLE const listing = IsLink(path) ? INVALID_HANDLE_VALUE : ::FindFirstFileW((path + L"\\*").c_str(), &entry);
    if (listing != INVALID_HANDLE_VALUE) {
        do {
            std::wstring const name = entry.cFileName;
            if (name != L"." && name != L"..")
                RemoveTreeByCalls(path + L"\\" + name);
        } while (::FindNextFileW(listing, &entry) != FALSE);
        ::FindClose(listing);
    }
    if (::DeleteFileW(path.c_str()) == FALSE)
        ::RemoveDirectoryW(path.c_str());
}

} // namespace

bool MakeLink(fs::path const& target, fs::path const& link)
{
    linksAreNative = MakeSymbolicLink(target, link) || MakeJunction(target, link);
    return linksAreNative || MakeHostLink(target, link);
}

bool LinksAreNative()
{
    return linksAreNative;
}

bool MakeSparse(fs::path const& path)
{
    HANDLE const handle = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        return false;
    // Where Windows calls run on another system, this is not known, and that system's files are sparse anyway.
    DWORD returned = 0;
    bool const isSparse =
        ::DeviceIoControl(handle, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr) != FALSE ||
        ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name") != nullptr;
    ::CloseHandle(handle);
    return isSparse;
}

bool IsLink(fs::path const& path)
{
    DWORD const attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

void RemoveTree(fs::path const& path)
{
    std::wstring const text = path.wstring();
    std::wstring const prefixed = text.starts_with(L"\\\\?\\") ? text : L"\\\\?\\" + text;
    if (!linksAreNative)
        RemoveHostTree(path);
    RemoveTreeByCalls(prefixed);
    if (Exists(prefixed))
        RemoveHostTree(path); // a link is left of another program
}

std::u16string UseDocumentsFolder(fs::path const&)
{
    wchar_t* folder = nullptr;
    if (::SHGetKnownFolderPath(FOLDERID_Documents, 0, nullptr, &folder) != S_OK)
        return {};
    std::u16string const text = ToText(fs::path(folder));
    ::CoTaskMemFree(folder);
    return text;
}

std::string FileNotFoundText()
{
    char text[256] = {};
    ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_FILE_NOT_FOUND, 0, text, sizeof text, nullptr);
    return text;
}

unsigned OpenHandleCount()
{
    DWORD count = 0;
    ::GetProcessHandleCount(::GetCurrentProcess(), &count);
    return count;
}

void CloseNativeHandle(void* handle)
{
    ::CloseHandle(handle);
}

} // namespace TestSupport
