// Every document of some installed packages must give the totals that expat gives: elements, ends, attributes and bytes
// of text. Documents that need the tokenizer's required quirks to be otherwise are known by their text: they must
// differ from what Mend makes of them, and mended they must give the same totals.
#include "../TestHeap.h"

#include <vlmcore/files.h>
#include <vlmcore/xml_stream.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <expat.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

using namespace Velmor;

namespace {

struct STotals {
    u64 elements = 0;
    u64 ends = 0;
    u64 attributes = 0;
    u64 textBytes = 0; // white space not counted: texts are trimmed
    friend bool operator==(STotals const&, STotals const&) = default;
};

void PrintTo(STotals const& totals, std::ostream* out)
{
    *out << totals.elements << " elements, " << totals.ends << " ends, " << totals.attributes << " attributes, "
         << totals.textBytes << " bytes of text";
}

u64 CountInk(char const* text, std::size_t size)
{
    return static_cast<u64>(
        std::count_if(text, text + size, [](char c) { return std::strchr(" \t\r\n", c) == nullptr; }));
}

std::string ReadWhole(std::filesystem::path const& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// False when expat refuses the document.
bool ParseWithExpat(std::string const& text, STotals& totals)
{
    XML_Parser const parser = XML_ParserCreate(nullptr);
    struct SUser {
        XML_Parser parser;
        STotals& totals;
    } user{parser, totals};
    XML_SetUserData(parser, &user);
    XML_SetElementHandler(
        parser,
        [](void* data, XML_Char const*, XML_Char const**) {
            SUser& self = *static_cast<SUser*>(data);
            ++self.totals.elements;
            // Those that stand in the text, not those that a document type adds.
            self.totals.attributes += static_cast<u64>(XML_GetSpecifiedAttributeCount(self.parser)) / 2;
        },
        [](void* data, XML_Char const*) { ++static_cast<SUser*>(data)->totals.ends; });
    XML_SetCharacterDataHandler(parser, [](void* data, XML_Char const* part, int size) {
        static_cast<SUser*>(data)->totals.textBytes += CountInk(part, static_cast<std::size_t>(size));
    });
    bool const parsed = XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return parsed;
}

/// Throws what ReadXML throws.
STotals Tokenize(std::string const& text, u64 bufferSize)
{
    STotals totals;
    CXMLStream stream;
    stream.OnElementBegin = [&](CString const&) { ++totals.elements; };
    stream.OnElementEnd = [&](CString const*) { ++totals.ends; };
    stream.OnAttribute = [&](TPair<CString, CString> const&) { ++totals.attributes; };
    stream.OnText = [&](CString const* part) {
        if (part != nullptr)
            totals.textBytes += CountInk(static_cast<char const*>(part->GetData()), part->GetAllocatedSize() - 1);
    };
    auto const file = MakeResource<CByteStreamFile>("a.xml", static_cast<void const*>(text.data()), text.size());
    EXPECT_TRUE(ReadXML(*file, stream, bufferSize).complete);
    return totals;
}

/// Says the same in a way that the quirks leave alone: inside values quotes and closing brackets as references, behind
/// "/>" white space to swallow, no document type with declarations of its own, no byte order mark, no bracket at the
/// end of a CDATA section.
std::string Mend(std::string const& text)
{
    std::string result;
    char quote = '\0';
    bool tag = false;
    std::size_t i = text.starts_with("\xEF\xBB\xBF") ? 3 : 0;
    while (i < text.size()) {
        auto const take = [&](std::string_view until) {
            std::size_t const found = text.find(until, i);
            std::size_t const end = found == std::string::npos ? text.size() : found + until.size();
            std::string const part = text.substr(i, end - i);
            i = end;
            return part;
        };
        if (!tag && text.compare(i, 4, "<!--") == 0) {
            result += take("-->");
            continue;
        }
        if (!tag && text.compare(i, 9, "<![CDATA[") == 0) {
            // Brackets at the end of its content keep a section open: they come behind it.
            std::string const section = take("]]>");
            std::size_t const end = section.find_last_not_of("]>") + 1;
            result += section.substr(0, end) + "]]>" + std::string(section.size() - end - 3, ']');
            continue;
        }
        if (!tag && text.compare(i, 2, "<?") == 0) {
            result += take("?>");
            continue;
        }
        if (!tag && text.compare(i, 2, "<!") == 0) {
            std::string const declaration = take(text.find('[', i) < text.find('>', i) ? "]>" : ">");
            if (declaration.ends_with("]>"))
                continue;
            result += declaration;
            continue;
        }
        char const c = text[i++];
        if (quote != '\0' && c != quote && (c == '\'' || c == '"' || c == '>')) {
            result += c == '>' ? "&gt;" : c == '"' ? "&quot;" : "&apos;";
            continue;
        }
        result += c;
        if (quote != '\0') {
            quote = c == quote ? '\0' : quote;
            continue;
        }
        if (!tag) {
            tag = c == '<';
            continue;
        }
        quote = c == '"' || c == '\'' ? c : '\0';
        tag = c != '>';
        if (c == '>' && result[result.size() - 2] == '/' &&
            std::strchr(" \t\r\n", i < text.size() ? text[i] : 'x') == nullptr)
            result += '\n';
    }
    return result;
}

class XMLReal : public testing::TestWithParam<char const*> {};

} // namespace

TEST_P(XMLReal, TotalsAreThoseOfExpat)
{
    std::vector<std::filesystem::path> paths;
    std::error_code error;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(GetParam(), error))
        if (entry.is_regular_file() && (entry.path().extension() == ".xml" || entry.path().extension() == ".its"))
            paths.push_back(entry.path());
    if (paths.empty())
        GTEST_SKIP() << GetParam() << " holds no documents: its package is not installed";
    std::sort(paths.begin(), paths.end());
    unsigned compared = 0;
    unsigned mendedCount = 0;
    u64 bytes = 0;
    for (std::filesystem::path const& path : paths) {
        std::string const text = ReadWhole(path);
        STotals expected;
        if (bytes > 12'000'000 || text.empty() || !ParseWithExpat(text, expected))
            continue;
        bytes += text.size();
        std::string const mended = Mend(text);
        if (mended != text) {
            ++mendedCount;
            STotals again;
            ASSERT_TRUE(ParseWithExpat(mended, again)) << path;
            ASSERT_EQ(again, expected) << path << ": mending changed the document";
        }
        ++compared;
        for (u64 bufferSize : {u64{700}, u64{65536}, u64{text.size()}})
            EXPECT_EQ(Tokenize(mended, bufferSize), expected) << path;
    }
    EXPECT_GT(compared, 0u);
    std::printf("%s: %u documents, %u of them mended\n", GetParam(), compared, mendedCount);
}

INSTANTIATE_TEST_SUITE_P(Packages, XMLReal,
                         testing::Values("/usr/share/mime/packages",            // shared-mime-info
                                         "/usr/share/xml/iso-codes",            // iso-codes
                                         "/usr/share/unicode/cldr/common/main", // unicode-cldr-core
                                         "/usr/share/unicode/cldr/common/annotations",
                                         "/usr/share/unicode/cldr/common/supplemental",
                                         "/usr/share/unicode/cldr/common/collation", "/usr/share/gdb",
                                         "/usr/share/glib-2.0/schemas", "/usr/share/X11/xkb"));

// What the quirks do to real documents, once, by name.
TEST(XMLRealQuirks, ApostrophesInsideValuesMakeLanguageCodesMalformed)
{
    std::string const text = ReadWhole("/usr/share/xml/iso-codes/iso_639-3.xml");
    if (text.empty())
        GTEST_SKIP() << "package iso-codes is not installed";
    EXPECT_THROW((void)Tokenize(text, 65536), CXMLException);
}
