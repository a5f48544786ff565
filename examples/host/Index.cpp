#include "Index.h"

#include <algorithm>
#include <cstdio>

using namespace Velmor;

namespace {

using CNames = TVector<CMutableString, 1>;

// Appends every file below `folder`, sorted by name, subfolders behind the files. False when it is no folder.
bool ListFolder(CString const& folder, CNames& files)
{
    CNames found;
    CNames subfolders;
    try {
        CFolderArchive(folder).List("", found, subfolders);
    }
    catch (CFileException const&) {
        return false; // a file, or nothing at all: opening it will tell
    }
    std::sort(found.begin(), found.end());
    std::sort(subfolders.begin(), subfolders.end());
    auto const join = [&folder](CString const& name) {
        CMutableString path;
        Format(path, folder.EndsWith("/") || folder.EndsWith("\\") ? "%1%2" : "%1/%2", folder, name);
        return path;
    };
    for (CMutableString const& name : found)
        files.Append(join(name));
    for (CMutableString const& name : subfolders)
        ListFolder(join(name), files);
    return true;
}

// One line on the terminal that says how far it is; nothing when nobody looks.
class CProgress {
public:
    explicit CProgress(u64 total) : m_total(total), m_isShown(System::IsTerminal(System::EConsole::Error)) {}
    CProgress(CProgress const&) = delete;
    CProgress& operator=(CProgress const&) = delete;
    ~CProgress()
    {
        if (m_isShown)
            std::fputs("\r\x1b[K", stderr);
    }

    void Show(u64 done, CString const& path) const
    {
        if (!m_isShown)
            return;
        CMutableString line;
        Format(line, "\r\x1b[K%1/%2 %3", done, m_total, path);
        std::fputs(static_cast<char const*>(line.GetData()), stderr);
    }

private:
    u64 m_total;
    bool m_isShown;
};

void LogReport(SFileReport const& report)
{
    CMutableString line;
    if (report.error.IsEmpty()) {
        Format(line, "%1: %2, %3 bytes, %4 lines, %5 code points, CRC-32 %x6", report.path, report.encoding,
               report.bytes, report.lines, report.codePoints, report.crc32);
        Log::Info(line);
    }
    else {
        Format(line, "%1: %2", report.path, report.error);
        Log::Warning(line);
    }
}

} // namespace

TVector<SFileReport, 1> BuildIndex(SOptions const& options)
{
    CNames files;
    for (CMutableString const& path : options.paths) {
        if (!ListFolder(path, files))
            files.Append(path);
    }

    TVector<SFileReport, 1> reports;
    reports.Resize(files.GetCount());
    CProgress const progress(files.GetCount());
    for (u64 index = 0; index < files.GetCount(); ++index) {
        progress.Show(index, files[index]);
        reports[index].path = std::move(files[index]);
        MeasureFile(reports[index]);
        LogReport(reports[index]);
    }
    return reports;
}
