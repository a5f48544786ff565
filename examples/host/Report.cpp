#include "Report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

using namespace Velmor;

namespace {

using CReports = TVector<SFileReport, 1>;

char const* GetText(CMutableString const& utf8)
{
    return utf8.GetData() == nullptr ? "" : static_cast<char const*>(utf8.GetData());
}

// printf counts bytes where a column counts characters: the missing blanks are added by hand.
void PrintPadded(CMutableString const& text, u64 width)
{
    std::fputs(GetText(text), stdout);
    for (u64 length = text.GetLength(); length < width; ++length)
        std::fputc(' ', stdout);
}

SFileReport SumUp(CReports const& reports)
{
    SFileReport total;
    u64 count = 0;
    for (SFileReport const& report : reports) {
        if (!report.error.IsEmpty())
            continue;
        ++count;
        total.bytes += report.bytes;
        total.lines += report.lines;
        total.codePoints += report.codePoints;
        for (u64 index = 0; index < 3; ++index)
            total.sizeAs[index] += report.sizeAs[index];
    }
    Format(total.path, "%1 of %2 file(s)", count, reports.GetCount());
    return total;
}

void PrintNumbers(SFileReport const& report)
{
    std::printf("  %-8s %10" PRIu64 " %8" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64,
                report.encoding, report.bytes, report.lines, report.codePoints, report.sizeAs[0], report.sizeAs[1],
                report.sizeAs[2]);
}

// A text between quotes: control characters, quotes and backslashes escaped.
void PrintJSONText(CString const& text)
{
    CMutableString const utf8 = text.ToUTF8();
    std::fputc('"', stdout);
    for (char const* unit = GetText(utf8); *unit != 0; ++unit) {
        if (*unit == '"' || *unit == '\\')
            std::printf("\\%c", *unit);
        else if (static_cast<u8>(*unit) < 0x20)
            std::printf("\\u%04x", static_cast<u32>(static_cast<u8>(*unit)));
        else
            std::fputc(*unit, stdout);
    }
    std::fputc('"', stdout);
}

void PrintJSONMeasures(SFileReport const& report)
{
    std::printf("\"bytes\": %" PRIu64 ", \"lines\": %" PRIu64 ", \"codePoints\": %" PRIu64 ", \"utf8Bytes\": %" PRIu64
                ", \"utf16Bytes\": %" PRIu64 ", \"utf32Bytes\": %" PRIu64,
                report.bytes, report.lines, report.codePoints, report.sizeAs[0], report.sizeAs[1], report.sizeAs[2]);
}

} // namespace

void PrintTable(CReports const& reports)
{
    SFileReport const total = SumUp(reports);
    u64 width = total.path.GetLength();
    for (SFileReport const& report : reports)
        width = std::max(width, report.error.IsEmpty() ? report.path.GetLength() : 0);

    PrintPadded(CMutableString("File"), width);
    std::printf("  %-8s %10s %8s %10s %10s %10s %10s  %-8s %-16s\n", "Encoding", "Bytes", "Lines", "Characters",
                "as UTF-8", "as UTF-16", "as UTF-32", "CRC-32", "FNV-1a-64");
    for (SFileReport const& report : reports) {
        if (!report.error.IsEmpty())
            continue;
        PrintPadded(report.path, width);
        PrintNumbers(report);
        std::printf("  %08" PRIx32 " %016" PRIx64 "\n", report.crc32, report.fnv64);
    }
    PrintPadded(total.path, width);
    PrintNumbers(total);
    std::printf("\n");

    std::fflush(stdout);
    for (SFileReport const& report : reports) {
        if (!report.error.IsEmpty())
            std::fprintf(stderr, "%s: %s\n", GetText(report.path), GetText(report.error));
    }
}

void PrintJSON(CReports const& reports)
{
    std::printf("{\n  \"files\": [");
    char const* separator = "\n";
    for (SFileReport const& report : reports) {
        std::printf("%s    {\"path\": ", separator);
        PrintJSONText(report.path);
        if (report.error.IsEmpty()) {
            std::printf(", \"encoding\": \"%s\", \"byteOrderMark\": %s, ", report.encoding,
                        report.hasMark ? "true" : "false");
            PrintJSONMeasures(report);
            std::printf(", \"crc32\": \"%08" PRIx32 "\", \"fnv1a64\": \"%016" PRIx64 "\"}", report.crc32, report.fnv64);
        }
        else {
            std::printf(", \"error\": ");
            PrintJSONText(report.error);
            std::printf("}");
        }
        separator = ",\n";
    }
    std::printf("\n  ],\n  \"total\": {");
    PrintJSONMeasures(SumUp(reports));
    std::printf("}\n}\n");
}

bool IsComplete(CReports const& reports)
{
    return std::all_of(reports.begin(), reports.end(),
                       [](SFileReport const& report) { return report.error.IsEmpty(); });
}
