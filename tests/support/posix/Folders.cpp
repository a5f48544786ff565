#include "support/Folders.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace TestSupport {

namespace fs = std::filesystem;

bool MakeLink(fs::path const& target, fs::path const& link)
{
    fs::create_symlink(target, link);
    return true;
}

bool LinksAreNative()
{
    return true;
}

bool MakeSparse(fs::path const& path)
{
    WriteText(path, ""); // every file is sparse
    return true;
}

bool IsLink(fs::path const& path)
{
    return fs::is_symlink(path);
}

void RemoveTree(fs::path const& path)
{
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

std::u16string UseDocumentsFolder(fs::path const& wanted)
{
    ::setenv("XDG_DOCUMENTS_DIR", wanted.c_str(), 1);
    return ToText(wanted);
}

std::string FileNotFoundText()
{
    return std::strerror(ENOENT);
}

unsigned OpenHandleCount()
{
    unsigned count = 0;
    for (fs::directory_entry const& entry : fs::directory_iterator("/proc/self/fd"))
        count += entry.path().empty() ? 0u : 1u;
    return count;
}

void CloseNativeHandle(void* handle)
{
    ::close(static_cast<int>(reinterpret_cast<std::intptr_t>(handle)));
}

} // namespace TestSupport
