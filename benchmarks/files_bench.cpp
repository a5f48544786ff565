// Folder listing beside std::filesystem, native files beside stdio.
#include <vlmcore/archives.h>
#include <vlmcore/memory.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace Velmor;

namespace fs = std::filesystem;

namespace {

// A folder of its own with entries, and a file; gone at the end.
class CWorkFolder {
public:
    explicit CWorkFolder(int entries) : m_path(fs::temp_directory_path() / "vlmcore-files-bench")
    {
        fs::remove_all(m_path);
        fs::create_directory(m_path);
        for (int index = 0; index < entries; ++index)
            std::ofstream(m_path / ("entry-" + std::to_string(index) + ".txt"));
        m_text = m_path.u16string();
    }
    CWorkFolder(CWorkFolder const&) = delete;
    CWorkFolder& operator=(CWorkFolder const&) = delete;
    ~CWorkFolder() { fs::remove_all(m_path); }

    [[nodiscard]] fs::path const& Path() const { return m_path; }
    [[nodiscard]] std::u16string const& Text() const { return m_text; }

private:
    fs::path m_path;
    std::u16string m_text;
};

void ListOurs(benchmark::State& state, CString const& path)
{
    CWorkFolder const folder(static_cast<int>(state.range(0)));
    CFolderArchive const archive{CString(folder.Text())};
    for (auto _ : state) {
        TVector<CMutableString, 1> files;
        TVector<CMutableString, 1> folders;
        archive.List(path, files, folders);
        benchmark::DoNotOptimize(files.GetData());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void ListStandard(benchmark::State& state)
{
    CWorkFolder const folder(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::vector<std::string> files;
        std::vector<std::string> folders;
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.Path()))
            (entry.is_directory() ? folders : files).push_back(entry.path().filename().string());
        benchmark::DoNotOptimize(files.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The walk alone, nothing kept: what a listing cannot be faster than by much.
void WalkStandard(benchmark::State& state)
{
    CWorkFolder const folder(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        i64 files = 0;
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.Path()))
            files += entry.is_directory() ? 0 : 1;
        benchmark::DoNotOptimize(files);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

constexpr u64 FileBytes = u64{8} << 20;

void WriteOurs(benchmark::State& state)
{
    CWorkFolder const folder(0);
    std::u16string const path = folder.Text() + u"/file";
    std::string const block(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        CNativeFile file(path, EFileOpen::Write | EFileOpen::CreateAlways);
        for (u64 written = 0; written < FileBytes; written += block.size())
            file.Write(block.data(), block.size());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<i64>(FileBytes));
}

void WriteStdio(benchmark::State& state)
{
    CWorkFolder const folder(0);
    std::string const path = (folder.Path() / "file").string();
    std::string const block(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        std::FILE* const file = std::fopen(path.c_str(), "wb");
        std::setvbuf(file, nullptr, _IONBF, 0); // one system call per block, as ours
        for (u64 written = 0; written < FileBytes; written += block.size())
            benchmark::DoNotOptimize(std::fwrite(block.data(), 1, block.size(), file));
        std::fclose(file);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<i64>(FileBytes));
}

void ReadOurs(benchmark::State& state)
{
    CWorkFolder const folder(0);
    std::ofstream(folder.Path() / "file", std::ios::binary) << std::string(FileBytes, 'x');
    std::u16string const path = folder.Text() + u"/file";
    std::string block(static_cast<std::size_t>(state.range(0)), '\0');
    for (auto _ : state) {
        CNativeFile file(path, EFileOpen::Read);
        while (file.Read(block.data(), block.size()) != 0)
            benchmark::DoNotOptimize(block.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<i64>(FileBytes));
}

void ReadStdio(benchmark::State& state)
{
    CWorkFolder const folder(0);
    std::ofstream(folder.Path() / "file", std::ios::binary) << std::string(FileBytes, 'x');
    std::string const path = (folder.Path() / "file").string();
    std::string block(static_cast<std::size_t>(state.range(0)), '\0');
    for (auto _ : state) {
        std::FILE* const file = std::fopen(path.c_str(), "rb");
        std::setvbuf(file, nullptr, _IONBF, 0);
        while (std::fread(block.data(), 1, block.size(), file) != 0)
            benchmark::DoNotOptimize(block.data());
        std::fclose(file);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<i64>(FileBytes));
}

void ListOursUTF8(benchmark::State& state)
{
    ListOurs(state, "");
}

void ListOursUTF16(benchmark::State& state)
{
    ListOurs(state, u"");
}

} // namespace

BENCHMARK(ListOursUTF8)->Name("Files/List/ours")->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(ListOursUTF16)->Name("Files/ListWide/ours")->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(ListStandard)->Name("Files/List/std::filesystem")->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(WalkStandard)->Name("Files/List/directory_iterator alone")->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(ListStandard)->Name("Files/ListWide/std::filesystem")->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(WriteOurs)->Name("Files/Write/ours")->Arg(4096)->Arg(65536)->Arg(1 << 20);
BENCHMARK(WriteStdio)->Name("Files/Write/stdio")->Arg(4096)->Arg(65536)->Arg(1 << 20);
BENCHMARK(ReadOurs)->Name("Files/Read/ours")->Arg(4096)->Arg(65536)->Arg(1 << 20);
BENCHMARK(ReadStdio)->Name("Files/Read/stdio")->Arg(4096)->Arg(65536)->Arg(1 << 20);

int main(int count, char** arguments)
{
    Memory::Initialize(0, 0);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    Memory::Deinitialize();
}
