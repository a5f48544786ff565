#include "../HiddenDebuggingLibrary.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace TestSupport {

namespace {
constexpr char Folder[] = "no_debugging_library";
constexpr char SearchPath[] = "LD_LIBRARY_PATH"; // read when a process starts: this one has started
} // namespace

CHiddenDebuggingLibrary::CHiddenDebuggingLibrary()
{
    // A file of the library's name that is none: the loader finds it first and gives up.
    std::filesystem::path const folder = std::filesystem::absolute(Folder);
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "libdw.so.1") << "not a library";
    ::setenv(SearchPath, folder.c_str(), 1);
}

CHiddenDebuggingLibrary::~CHiddenDebuggingLibrary()
{
    ::unsetenv(SearchPath);
    std::error_code ignored;
    std::filesystem::remove_all(Folder, ignored);
}

bool CHiddenDebuggingLibrary::IsPossible()
{
    return true;
}

} // namespace TestSupport
