// Tokenizing real documents. Element, attribute and text callbacks count; the peers do the least that tells as much:
// expat and libxml2 with counting handlers, rapidxml and pugixml in their fastest in-place modes (which build a tree
// and leave its visiting to the caller). Every run gets a fresh copy of the document, made outside the measured time.
//
// Buffers of 64 KiB are compared with the whole document at once, which is the peer called "whole", under the same
// terms:
//     _64KiB         nothing is copied: the buffers lie in the document, each from where the one before was consumed
//                    up to
//     _64KiB_filled  both copy what they tokenize: the one 64 KiB by 64 KiB, with the unconsumed tail moved to the
//                    front, the other the whole document before it begins
//     _ReadXML       ReadXML on a file in memory, its buffer's allocation included, beside that same copy of everything
// Tokenizing a copy costs about a tenth more than tokenizing in place, whatever the size of the pieces: so a copy on
// one side alone says something about copies.
#include <vlmcore/files.h>
#include <vlmcore/memory.h>
#include <vlmcore/xml_stream.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#ifdef VLMCORE_BENCH_EXPAT
#  include <expat.h>
#endif
#ifdef VLMCORE_BENCH_LIBXML2
#  include <libxml/parser.h>
#endif
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wshadow"
#ifdef VLMCORE_BENCH_RAPIDXML
#  include <rapidxml/rapidxml.hpp>
#endif
#pragma GCC diagnostic pop
#ifdef VLMCORE_BENCH_PUGIXML
#  include <pugixml.hpp>
#endif

using namespace Velmor;

namespace {

struct SCounts {
    u64 elements = 0;
    u64 attributes = 0;
    u64 texts = 0;
};

struct SDocument {
    std::string name;
    std::string text;
};

std::string ReadFile(std::filesystem::path const& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Quotes and closing brackets inside attribute values, which end a value here or make the text malformed, replaced by
/// their entities; every parser gets the same text.
std::string EscapeValues(std::string const& text)
{
    std::string result;
    char quote = 0;
    bool tag = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char const c = text[i];
        if (!tag && text.compare(i, 4, "<!--") == 0) {
            std::size_t const end = text.find("-->", i) + 3;
            result.append(text, i, end - i);
            i = end - 1;
            continue;
        }
        if (quote != 0 && c != quote && (c == '\'' || c == '"' || c == '>')) {
            result += c == '>' ? "&gt;" : c == '"' ? "&quot;" : "&apos;";
            continue;
        }
        if (quote != 0)
            quote = c == quote ? '\0' : quote;
        else if (!tag)
            tag = c == '<' && text[i + 1] != '!' && text[i + 1] != '?';
        else if (c == '"' || c == '\'')
            quote = c;
        else
            tag = c != '>';
        result += c;
    }
    return result;
}

/// The locale files of the CLDR under one root, up to 16 MB; prologs left out, since a document has one.
std::string JoinLocales()
{
    std::filesystem::path const folder = "/usr/share/unicode/cldr/common/main";
    std::error_code error;
    std::vector<std::filesystem::path> paths;
    for (auto const& entry : std::filesystem::directory_iterator(folder, error))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::string result = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<locales>\n";
    for (auto const& path : paths) {
        if (result.size() > 16'000'000)
            break;
        std::string const text = ReadFile(path);
        std::size_t const root = text.find("<ldml>");
        if (root != std::string::npos)
            result += text.substr(root);
    }
    return paths.empty() ? std::string() : result + "</locales>\n";
}

std::vector<SDocument> const& Documents()
{
    static std::vector<SDocument> const documents = [] {
        std::vector<SDocument> found = {{"freedesktop", ReadFile("/usr/share/mime/packages/freedesktop.org.xml")},
                                        {"iso_639-3", ReadFile("/usr/share/xml/iso-codes/iso_639-3.xml")},
                                        {"cldr", JoinLocales()}};
        std::erase_if(found, [](SDocument const& document) { return document.text.empty(); });
        for (SDocument& document : found)
            document.text = EscapeValues(document.text);
        return found;
    }();
    return documents;
}

void SetCounters(CXMLStream& stream, SCounts& counts)
{
    stream.OnElementBegin = [&counts](CString const&) { ++counts.elements; };
    stream.OnAttribute = [&counts](TPair<CString, CString> const&) { ++counts.attributes; };
    stream.OnText = [&counts](CString const* text) { counts.texts += text != nullptr; };
}

void OursWhole(char* text, u64 size, SCounts& counts)
{
    CXMLStream stream;
    SetCounters(stream, counts);
    benchmark::DoNotOptimize(stream.ProcessData(text, static_cast<unsigned>(size)));
}

constexpr u64 BufferSize = 65536;

void OursInBuffers(char* text, u64 size, SCounts& counts)
{
    CXMLStream stream;
    SetCounters(stream, counts);
    for (u64 offset = 0, consumed = 1; offset < size && consumed != 0; offset += consumed)
        consumed = stream.ProcessData(text + offset, static_cast<unsigned>(std::min(BufferSize, size - offset)));
}

/// The loop of a host that reads through a buffer of 64 KiB, from memory.
void OursFilled(char* text, u64 size, SCounts& counts)
{
    static char buffer[BufferSize];
    CXMLStream stream;
    SetCounters(stream, counts);
    u64 filled = 0;
    for (u64 offset = 0; offset < size;) {
        u64 const count = std::min(sizeof buffer - filled, size - offset);
        std::memcpy(buffer + filled, text + offset, count);
        offset += count;
        filled += count;
        u64 const consumed = stream.ProcessData(buffer, static_cast<unsigned>(filled));
        filled -= consumed;
        std::memmove(buffer, buffer + consumed, filled);
    }
}

/// The host that reads the whole file into memory it has already.
void OursWholeFilled(char* text, u64 size, SCounts& counts)
{
    static std::vector<char> buffer;
    if (buffer.size() < size)
        buffer.resize(size);
    std::memcpy(buffer.data(), text, size);
    OursWhole(buffer.data(), size, counts);
}

void OursReadXML(char* text, u64 size, SCounts& counts)
{
    CXMLStream stream;
    SetCounters(stream, counts);
    CByteStreamFile file("document.xml", static_cast<void const*>(text), size);
    if (!ReadXML(file, stream, BufferSize).complete)
        std::fprintf(stderr, "ReadXML: the document is not complete\n");
}

#ifdef VLMCORE_BENCH_EXPAT
void Expat(char* text, u64 size, SCounts& counts)
{
    XML_Parser const parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &counts);
    XML_SetElementHandler(
        parser,
        [](void* user, XML_Char const*, XML_Char const** attributes) {
            SCounts& c = *static_cast<SCounts*>(user);
            ++c.elements;
            for (; *attributes != nullptr; attributes += 2)
                ++c.attributes;
        },
        [](void*, XML_Char const*) {});
    XML_SetCharacterDataHandler(parser, [](void* user, XML_Char const*, int) { ++static_cast<SCounts*>(user)->texts; });
    if (XML_Parse(parser, text, static_cast<int>(size), 1) != XML_STATUS_OK)
        std::fprintf(stderr, "expat: %s\n", XML_ErrorString(XML_GetErrorCode(parser)));
    XML_ParserFree(parser);
}
#endif

#ifdef VLMCORE_BENCH_LIBXML2
void LibXml2(char* text, u64 size, SCounts& counts)
{
    xmlSAXHandler handler = {};
    handler.initialized = XML_SAX2_MAGIC;
    handler.startElementNs = [](void* user, xmlChar const*, xmlChar const*, xmlChar const*, int, xmlChar const**,
                                int count, int, xmlChar const**) {
        SCounts& c = *static_cast<SCounts*>(user);
        ++c.elements;
        c.attributes += static_cast<u64>(count);
    };
    handler.characters = [](void* user, xmlChar const*, int) { ++static_cast<SCounts*>(user)->texts; };
    xmlSAXUserParseMemory(&handler, &counts, text, static_cast<int>(size));
}
#endif

#ifdef VLMCORE_BENCH_RAPIDXML
void RapidXml(char* text, u64, SCounts& counts)
{
    static rapidxml::xml_document<> document; // keeps its first pool, as a program that parses often would
    document.clear();
    document.parse<rapidxml::parse_fastest>(text);
    counts.elements += document.first_node() != nullptr;
}
#endif

#ifdef VLMCORE_BENCH_PUGIXML
void PugiXml(char* text, u64 size, SCounts& counts)
{
    pugi::xml_document document;
    benchmark::DoNotOptimize(document.load_buffer_inplace(text, size, pugi::parse_minimal, pugi::encoding_utf8));
    counts.elements += !document.first_child().empty();
}
#endif

using Parse = void (*)(char*, u64, SCounts&);

void Run(benchmark::State& state, SDocument const& document, Parse parse)
{
    std::vector<char> copy(document.text.size() + 1);
    SCounts counts;
    for ([[maybe_unused]] auto _ : state) {
        std::memcpy(copy.data(), document.text.c_str(), copy.size());
        counts = {};
        std::clock_t const begin = std::clock(); // processor time: the machine may be busy
        parse(copy.data(), document.text.size(), counts);
        state.SetIterationTime(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC);
    }
    state.SetBytesProcessed(static_cast<i64>(state.iterations()) * static_cast<i64>(document.text.size()));
    state.counters["elements"] = static_cast<double>(counts.elements);
    state.counters["attributes"] = static_cast<double>(counts.attributes);
    state.counters["texts"] = static_cast<double>(counts.texts);
}

void Register(SDocument const& document, char const* mode, char const* parser, Parse parse)
{
    std::string const name = "XML/" + document.name + mode + "/" + parser;
    benchmark::RegisterBenchmark(name.c_str(),
                                 [&document, parse](benchmark::State& state) { Run(state, document, parse); })
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

} // namespace

int main(int argc, char** argv)
{
    Memory::Initialize(0, 0);
    if (Documents().size() < 3)
        std::fprintf(stderr, "Some documents are missing: install shared-mime-info, iso-codes, unicode-cldr-core\n");
    for (SDocument const& document : Documents()) {
        Register(document, "", "ours", OursWhole);
        Register(document, "_64KiB", "ours", OursInBuffers);
        Register(document, "_64KiB", "whole", OursWhole);
        Register(document, "_64KiB_filled", "ours", OursFilled);
        Register(document, "_64KiB_filled", "whole", OursWholeFilled);
        Register(document, "_ReadXML", "ours", OursReadXML);
        Register(document, "_ReadXML", "whole", OursWholeFilled);
#ifdef VLMCORE_BENCH_EXPAT
        Register(document, "", "expat", Expat);
#endif
#ifdef VLMCORE_BENCH_LIBXML2
        Register(document, "", "libxml2", LibXml2);
#endif
#ifdef VLMCORE_BENCH_RAPIDXML
        Register(document, "", "rapidxml", RapidXml);
#endif
#ifdef VLMCORE_BENCH_PUGIXML
        Register(document, "", "pugixml", PugiXml);
#endif
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
