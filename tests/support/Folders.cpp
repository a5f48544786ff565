#include "Folders.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TestSupport {

namespace fs = std::filesystem;

std::u16string ToText(fs::path const& path)
{
    std::u16string text = path.u16string();
    for (char16_t& unit : text)
        if (unit == u'/')
            unit = u'\\';
    return text;
}

CTemporaryFolder::CTemporaryFolder()
{
    static std::atomic<unsigned> counter;
    auto const stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    // The system's folder may itself be reached through links or short names: tests compare full paths.
    fs::path const base = fs::canonical(fs::temp_directory_path());
    do
        m_path = base / ("vlmcore-" + std::to_string(stamp) + "-" + std::to_string(counter++));
    while (!fs::create_directory(m_path));
}

CTemporaryFolder::~CTemporaryFolder()
{
    RemoveTree(m_path);
}

void WriteText(fs::path const& path, std::string const& content)
{
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush())
        throw std::runtime_error("cannot write " + path.string());
}

std::string ReadText(fs::path const& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace TestSupport
