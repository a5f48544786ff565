#include "Report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

using namespace Velmor;

namespace {

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

SFileReport SumUp(SIndex const& index)
{
    SFileReport total;
    u64 count = 0;
    for (SFileReport const& report : index.files) {
        if (!report.error.IsEmpty())
            continue;
        ++count;
        total.bytes += report.bytes;
        total.lines += report.lines;
        total.codePoints += report.codePoints;
        for (u64 form = 0; form < 3; ++form)
            total.sizeAs[form] += report.sizeAs[form];
        total.isXML |= report.isXML;
        total.elements += report.elements;
        total.attributes += report.attributes;
    }
    Format(total.path, "%1 of %2 file(s)", count, index.files.GetCount());
    return total;
}

void PrintNumbers(SFileReport const& report)
{
    std::printf("  %-8s %10" PRIu64 " %8" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64 " %10" PRIu64,
                report.encoding, report.bytes, report.lines, report.codePoints, report.sizeAs[0], report.sizeAs[1],
                report.sizeAs[2]);
}

// A text between quotes: control characters, quotes and backslashes escaped. A byte of a name that is no UTF-8 becomes
// the lone surrogate of its value, as in other programs that must not lose it.
void PrintJSONText(CMutableString const& utf8)
{
    char const* const text = GetText(utf8);
    u64 const size = std::strlen(text);
    std::fputc('"', stdout);
    for (u64 offset = 0; offset < size;) {
        u8 const byte = static_cast<u8>(text[offset]);
        u64 const length = MeasureUTF8Character(reinterpret_cast<u8 const*>(text) + offset, size - offset);
        if (byte == '"' || byte == '\\')
            std::printf("\\%c", byte);
        else if (byte < 0x20 || length == 0)
            std::printf("\\u%04x", length == 0 ? 0xDC00u | byte : u32{byte});
        else
            std::fwrite(text + offset, 1, length, stdout);
        offset += length == 0 ? 1 : length;
    }
    std::fputc('"', stdout);
}

void PrintJSONMeasures(SFileReport const& report)
{
    std::printf("\"bytes\": %" PRIu64 ", \"lines\": %" PRIu64 ", \"codePoints\": %" PRIu64 ", \"utf8Bytes\": %" PRIu64
                ", \"utf16Bytes\": %" PRIu64 ", \"utf32Bytes\": %" PRIu64,
                report.bytes, report.lines, report.codePoints, report.sizeAs[0], report.sizeAs[1], report.sizeAs[2]);
}

void PrintXML(SIndex const& index, SFileReport const& total)
{
    if (total.isXML)
        std::printf("XML: %" PRIu64 " elements of %" PRIu64 " names, %" PRIu64 " attributes of %" PRIu64 " names\n",
                    total.elements, index.elementCounts.GetCount(), total.attributes, index.attributeCounts.GetCount());
}

void PrintPlaces(SIndex const& index)
{
    u64 count = 0;
    for (SFileReport const& report : index.files) {
        for (Math::TTuple2<u64> const& place : report.placesFound)
            std::printf("%s:%" PRIu64 ":%" PRIu64 "\n", GetText(report.path), place.x, place.y);
        count += report.placesFound.GetCount();
    }
    std::printf("%" PRIu64 " occurrence(s)\n", count);
}

void PrintJSONPlaces(SFileReport const& report)
{
    std::printf(", \"found\": [");
    char const* separator = "";
    for (Math::TTuple2<u64> const& place : report.placesFound) {
        std::printf("%s[%" PRIu64 ", %" PRIu64 "]", separator, place.x, place.y);
        separator = ", ";
    }
    std::printf("]");
}

void PrintJSONReport(SFileReport const& report, SOptions const& options)
{
    std::printf("    {\"path\": ");
    PrintJSONText(report.path);
    if (!report.error.IsEmpty()) {
        std::printf(", \"error\": ");
        PrintJSONText(report.error);
        std::printf("}");
        return;
    }
    std::printf(", \"encoding\": \"%s\", \"byteOrderMark\": %s, ", report.encoding, report.hasMark ? "true" : "false");
    PrintJSONMeasures(report);
    std::printf(", \"crc32\": \"%08" PRIx32 "\", \"fnv1a64\": \"%016" PRIx64 "\"", report.crc32, report.fnv64);
    if (report.isXML)
        std::printf(", \"elements\": %" PRIu64 ", \"attributes\": %" PRIu64, report.elements, report.attributes);
    if (!options.find.IsEmpty())
        PrintJSONPlaces(report);
    std::printf("}");
}

} // namespace

void PrintTable(SIndex const& index, SOptions const& options)
{
    SFileReport const total = SumUp(index);
    u64 width = total.path.GetLength();
    for (SFileReport const& report : index.files)
        width = std::max(width, report.error.IsEmpty() ? report.path.GetLength() : 0);

    PrintPadded(CMutableString("File"), width);
    std::printf("  %-8s %10s %8s %10s %10s %10s %10s  %-8s %s\n", "Encoding", "Bytes", "Lines", "Characters",
                "as UTF-8", "as UTF-16", "as UTF-32", "CRC-32", "FNV-1a-64");
    for (SFileReport const& report : index.files) {
        if (!report.error.IsEmpty())
            continue;
        PrintPadded(report.path, width);
        PrintNumbers(report);
        std::printf("  %08" PRIx32 " %016" PRIx64 "\n", report.crc32, report.fnv64);
    }
    PrintPadded(total.path, width);
    PrintNumbers(total);
    std::printf("\n");
    PrintXML(index, total);
    if (!options.find.IsEmpty())
        PrintPlaces(index);

    std::fflush(stdout);
    for (SFileReport const& report : index.files) {
        if (!report.error.IsEmpty())
            std::fprintf(stderr, "%s: %s\n", GetText(report.path), GetText(report.error));
    }
}

void PrintJSON(SIndex const& index, SOptions const& options)
{
    SFileReport const total = SumUp(index);
    std::printf("{\n  \"files\": [");
    char const* separator = "\n";
    for (SFileReport const& report : index.files) {
        std::printf("%s", separator);
        PrintJSONReport(report, options);
        separator = ",\n";
    }
    std::printf("\n  ],\n  \"total\": {");
    PrintJSONMeasures(total);
    std::printf(", \"elements\": %" PRIu64 ", \"elementNames\": %" PRIu64 ", \"attributes\": %" PRIu64
                ", \"attributeNames\": %" PRIu64 "}\n}\n",
                total.elements, index.elementCounts.GetCount(), total.attributes, index.attributeCounts.GetCount());
}

void PrintMemory()
{
    Memory::SStatistics statistics{};
    Memory::GetStatistics(statistics);
    std::printf("Heap: %" PRIu64 " bytes in use, %" PRIu64 " blocks from the system, %" PRIu64
                " requests to it so far\n",
                statistics.bytesInUse, statistics.liveCount, statistics.allocationCount);
    for (Memory::SStatistics::SPool const& pool : statistics.pools) {
        u64 bytes = 0;
        for (u64 index = 0; index < pool.classCount; ++index)
            bytes +=
                pool.classes[index].blockSize * pool.classes[index].blocksPerChunk * pool.classes[index].chunkCount;
        std::printf("Pool aligned to %2" PRIu64 ": %8" PRIu64 " live, %10" PRIu64 " allocations so far, %10" PRIu64
                    " bytes in chunks\n",
                    pool.alignment, pool.liveCount, pool.allocationCount, bytes);
    }
}
