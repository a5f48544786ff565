#include "Index.h"

#include "Names.h"
#include "Source.h"

#include <algorithm>
#include <cstdio>

using namespace Velmor;

namespace {

// ---- measuring one file ----

void MeasureText(SFileReport& report, CString const& text)
{
    report.lines = text.Count("\n", 0);
    report.codePoints = text.GetLength();
    // Converted for real, not only measured: this is what a host would store or send.
    CMutableString const converted[3] = {text.ToUTF8(), text.ToUTF16(), text.ToUTF32()};
    constexpr u64 TerminatorSize[3] = {1, 2, 4};
    for (u64 index = 0; index < 3; ++index)
        report.sizeAs[index] = converted[index].GetAllocatedSize() - TerminatorSize[index];
}

// Line and column of every occurrence that does not overlap the one before.
void FindPlaces(SFileReport& report, CString const& text, CString const& wanted)
{
    TVector<u64> matches; // indices of code points
    u64 passed = 0;
    CString rest = text;
    for (u64 at = rest.Find(wanted, 0); at != IString::NotFound; at = rest.Find(wanted, 0)) {
        matches.Append(passed + at);
        u64 const behind = at + wanted.GetLength();
        rest = rest.GetSubstring(behind);
        passed += behind;
    }
    u64 next = 0;
    u64 index = 0;
    Math::TTuple2<u64> place{1, 1};
    for (u32 const codePoint : text.GetCodePoints()) {
        if (next == matches.GetCount())
            break;
        if (index++ == matches[next]) {
            report.placesFound.Append(place);
            ++next;
        }
        place = codePoint == '\n' ? Math::TTuple2<u64>{place.x + 1, 1} : Math::TTuple2<u64>{place.x, place.y + 1};
    }
}

void WriteReplaced(SOptions const& options, CString const& path, CTextFile const& file)
{
    // The memory file touches nothing: it only knows how to take a path apart.
    CMemoryFile parts(ToSystemName(path.Replace('/', '\\', 0)));
    CMutableString const name = FromSystemName(parts.GetFileName());
    CMutableString const extension = FromSystemName(parts.GetFileExt());
    CMutableString target;
    Format(target, extension.IsEmpty() ? "%1/%2" : "%1/%2.%3", options.replaceFolder, name, extension);
    CNativeFile copy(ToSystemName(target), EFileOpen::Write | EFileOpen::CreateAlways);
    file.WriteLike(copy, file.GetText().Replace(options.replaceFrom, options.replaceTo, 0));
}

struct SNameCounts {
    CWeakTypeMap elements;
    CWeakTypeMap attributes;
};

// By an id of all of the name: the map's own, from the name's GetHash, sees only the beginning of one beyond ASCII.
void CountName(CWeakTypeMap& counts, CString const& name)
{
    constexpr u32 Basis = 0x811C9DC5;
    CManagedWeakType& count = counts[GetFNV32(name.GetData(), name.GetAllocatedSize() - 1, 0, Basis)];
    count = count + CWeakType(1);
}

void AddCounts(CWeakTypeMap& totals, CWeakTypeMap const& counts)
{
    for (auto [id, count] : counts.GetVariables())
        totals[id] = totals[id] + count;
}

void CountXML(SFileReport& report, CString const& text, SNameCounts& counts)
{
    CXMLStream stream;
    stream.OnElementBegin = [&](CString name) {
        ++report.elements;
        CountName(counts.elements, name);
    };
    stream.OnAttribute = [&](TPair<CString, CString> attribute) {
        ++report.attributes;
        CountName(counts.attributes, attribute.first);
    };
    CMutableString const utf8 = text.ToUTF8();
    CByteStreamFile file("", utf8.GetData(), utf8.GetAllocatedSize() - 1);
    report.isXML = true;
    ReadXML(file, stream);
}

// ---- all files ----

// One line on the terminal that says how far it is; nothing when nobody looks. May be called by several threads.
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

    void Show(CString const& path)
    {
        u64 const started = m_started.fetch_add(1) + 1;
        if (!m_isShown)
            return;
        CMutableString line;
        Format(line, "\r\x1b[K%1/%2 %3", started, m_total, path);
        std::fputs(static_cast<char const*>(line.GetData()), stderr);
    }

private:
    u64 m_total;
    bool m_isShown;
    std::atomic<u64> m_started{0};
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

// What the jobs of one index share.
struct SWork {
    SOptions const& options;
    CSource const& source;
    SIndex& index;
    CProgress& progress;
    CSpinLock lock; // of the index's name counts
};

// Measures one file on a thread of the pool. Each job has a report of its own to write to.
class CMeasureJob : public IThreadJob {
public:
    CMeasureJob(SWork& work, SFileReport& report) : m_work(work), m_report(report) {}

    void Execute() override
    {
        m_work.progress.Show(m_report.path);
        try {
            Measure();
        }
        catch (CException const& exception) {
            m_report.error = exception.GetText();
        }
        catch (std::bad_alloc const&) {
            m_report.error = CString("Out of memory.");
        }
        LogReport(m_report);
    }

private:
    void Measure()
    {
        CTextFile const file(*m_work.source.Open(m_report.path), m_report);
        u64 const malformed = file.FindMalformed();
        if (malformed != m_report.bytes) {
            Format(m_report.error, "Not a text file: no %1 character at byte %2.", m_report.encoding, malformed);
            return;
        }
        SOptions const& options = m_work.options;
        MeasureText(m_report, file.GetText());
        if (!options.find.IsEmpty())
            FindPlaces(m_report, file.GetText(), options.find);
        if (!options.replaceFrom.IsEmpty())
            WriteReplaced(options, m_report.path, file);
        if (m_report.path.EndsWith(".xml") || file.GetText().StartsWith("<?xml"))
            MeasureXML(file.GetText());
    }

    void MeasureXML(CString const& text)
    {
        SNameCounts counts;
        CountXML(m_report, text, counts);
        TScopedLock const guard(m_work.lock);
        AddCounts(m_work.index.elementCounts, counts.elements);
        AddCounts(m_work.index.attributeCounts, counts.attributes);
    }

    SWork& m_work;
    SFileReport& m_report;
};

} // namespace

void BuildIndex(SOptions const& options, SIndex& index)
{
    CSource const source(options);
    for (CMutableString const& path : options.paths) {
        for (CMutableString& name : source.List(path)) {
            index.files.Append(SFileReport());
            index.files[index.files.GetCount() - 1].path = std::move(name);
        }
    }

    CProgress progress(index.files.GetCount());
    SWork work{options, source, index, progress, {}};
    CThreadPool pool(options.jobs);
    for (SFileReport& report : index.files)
        pool.PushJob(Memory::New<CMeasureJob>(EHeap::Pool, work, report));
    pool.WaitForJobs();
}

bool IsComplete(SIndex const& index)
{
    return std::all_of(index.files.begin(), index.files.end(),
                       [](SFileReport const& report) { return report.error.IsEmpty(); });
}
