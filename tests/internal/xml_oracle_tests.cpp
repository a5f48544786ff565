// The tokenizer against a plain one: every split, every buffer size, random documents and random damage.
#include "../TestHeap.h"
#include "xml_differential.h"

#include <Core_XMLTokenizer.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

using namespace Velmor;
using namespace Velmor::Test;

namespace {

char const* const Documents[] = {
    "<?xml version=\"1.0\" encoding='UTF-8'?>\n<!DOCTYPE a SYSTEM \"a.dtd\">\n<!-- a comment -- with -- hyphens "
    "--->-->\n"
    "<a x=\"1\" y = '2'  long-attribute-name=\"a value of more than thirty-two bytes, &quot;quoted&quot;\">\n"
    "  <b/>\n  <c d='e'/> text &amp; more &#x41;&#66;&unknown; text <![CDATA[ <not> a & tag ]] ]]]>]]>\n"
    "  <f >end</f >\n</a>\n",
    "<r><e1/><e2 a='b'/> \xE2\x82\xAC <\xC3\xA9l\xC3\xA9ment \xC3\xA4='\xF0\x9F\x98\x80 &lt;'>\xE4\xB8\xAD\xE6\x96\x87 "
    "text of "
    "some length, mixed \xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82</\xC3\xA9l\xC3\xA9ment></r>",
    "<![CDATA[a]]><![CDATA[]]><!---->x<!-- - -- -><!>--><?\?><?p a=\"?\"?>y<<z>w</z><z  / ><z //></ z></>",
    "a & b &lt; c &abcdefghijklmnopqrstuvwxyz; d &#x20AC; e &#1; f &g<h i='&amp;&'j=\"&#x41\"k='  '/>\xC3\xA9l</h>",
};

unsigned Stress()
{
    char const* const value = std::getenv("VLMCORE_STRESS");
    return value != nullptr ? static_cast<unsigned>(std::max(1, std::atoi(value))) : 1;
}

void ExpectSame(std::string_view document, auto nextChunk, unsigned callbacks = AllXMLCallbacks)
{
    CXMLDifferential differential(callbacks);
    if (auto difference = differential.Feed(document, nextChunk))
        FAIL() << *difference;
}

class CRandom {
public:
    explicit CRandom(unsigned seed) : m_engine(seed) {}
    std::size_t Below(std::size_t bound) { return m_engine() % bound; }

private:
    std::mt19937 m_engine;
};

/// Pieces of XML, of damage, and of characters that are cut, too long or swallow what follows them.
std::string RandomPiece(CRandom& random)
{
    static std::string const pieces[] = {"<",
                                         ">",
                                         "/",
                                         "</",
                                         "/>",
                                         "<!",
                                         "<!--",
                                         "-->",
                                         "--",
                                         "-",
                                         "<![CDATA[",
                                         "[CDATA[",
                                         "]]>",
                                         "]",
                                         "]]",
                                         "<?",
                                         "?>",
                                         "?",
                                         "\"",
                                         "'",
                                         "=",
                                         " ",
                                         "\n",
                                         "\t",
                                         "  \r\n",
                                         "a",
                                         "name",
                                         "b:c",
                                         "&",
                                         ";",
                                         "&amp;",
                                         "&lt;",
                                         "&#65;",
                                         "&#x41;",
                                         "&#x0;",
                                         "&nothing;",
                                         "&averyveryverylongname;",
                                         "<a>",
                                         "</a>",
                                         "<a b='c'>",
                                         "<a b=\"c\" d='e'/>",
                                         " b='",
                                         "' ",
                                         "text",
                                         "\xC3\xA9",
                                         "\xE2\x82\xAC",
                                         "\xF0\x9F\x98\x80",
                                         "\xC3",
                                         "\xE2",
                                         "\xE2\x82",
                                         "\xF0",
                                         "\xF0\x9F",
                                         "\x80",
                                         "\xBF",
                                         "\xFF",
                                         "\xC0\xBC",
                                         "\xC0\xBE",
                                         "\xC1\xA1",
                                         "\xE0\x80\xBC",
                                         "\xF0\x80\x80\xBC",
                                         "\xE0\x81",
                                         "\xC0\xAF",
                                         "\xC0\xA0",
                                         "\xC0\xA2",
                                         std::string(1, '\0'),
                                         "0123456789",
                                         "a longer text without anything in it that matters to anybody",
                                         "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 \xD0\xBC\xD0\xB8\xD1\x80",
                                         "<item key=\"value\">text</item>\n    "};
    return pieces[random.Below(std::size(pieces))];
}

// Enough ordinary text for a fast walk to start, and to be far from the begin of the buffer.
std::string Ordinary(std::size_t size)
{
    std::string text = "<list>\n";
    while (text.size() < size)
        text += "  <item key=\"value\" other='1 2'>some text</item>\n  <empty/>\n";
    return text;
}

struct SWalk {
    char const* name;
    XMLWalk walk;
};

void PrintTo(SWalk const& walk, std::ostream* out)
{
    *out << walk.name;
}

/// Each test runs with the plain scan alone and with each fast walk that the processor has.
class XMLOracle : public testing::TestWithParam<SWalk> {
protected:
    void SetUp() override
    {
        if (GetParam().walk == WalkXMLAVX2 && ChooseXMLWalk() != WalkXMLAVX2)
            GTEST_SKIP() << "this processor has no AVX2";
        SetXMLWalk(GetParam().walk);
    }
    void TearDown() override { SetXMLWalk(ChooseXMLWalk()); }
};

INSTANTIATE_TEST_SUITE_P(Walks, XMLOracle,
                         testing::Values(SWalk{"Plain", nullptr}, SWalk{"Baseline", WalkXMLBaseline},
                                         SWalk{"AVX2", WalkXMLAVX2}),
                         [](auto const& walk) { return walk.param.name; });

} // namespace

TEST_P(XMLOracle, EverySplitOfEveryDocument)
{
    for (std::string_view const document : Documents)
        for (std::size_t first = 1; first <= document.size(); ++first)
            ExpectSame(document, [&, call = 0]() mutable { return call++ == 0 ? first : document.size(); });
    std::string const longer = Ordinary(200) + Documents[0] + Documents[1] + Ordinary(200);
    for (std::size_t first = 1; first <= longer.size(); ++first)
        ExpectSame(longer, [&, call = 0]() mutable { return call++ == 0 ? first : longer.size(); });
}

TEST_P(XMLOracle, EveryPairOfSplits)
{
    std::string_view const document = Documents[2];
    for (std::size_t first = 1; first <= document.size(); ++first)
        for (std::size_t second = 1; first + second <= document.size(); ++second)
            ExpectSame(document, [&, call = 0]() mutable {
                return call++ == 0 ? first : call == 2 ? second : document.size();
            });
}

TEST_P(XMLOracle, EveryChunkSize)
{
    for (std::string_view const document : Documents)
        for (std::size_t size = 1; size <= document.size(); ++size)
            ExpectSame(document, [&] { return size; });
    std::string longer = Ordinary(300);
    for (std::string_view const document : Documents)
        longer += std::string(document) + Ordinary(100);
    for (std::size_t size = 1; size <= longer.size(); ++size)
        ExpectSame(longer, [&] { return size; });
}

TEST_P(XMLOracle, EverySetOfCallbacks)
{
    for (std::string_view const document : Documents)
        for (unsigned callbacks = 0; callbacks <= AllXMLCallbacks; ++callbacks) {
            std::string const longer = Ordinary(300) + std::string(document) + Ordinary(200);
            for (std::size_t size : {std::size_t{7}, std::size_t{200}, longer.size()})
                ExpectSame(longer, [&] { return size; }, callbacks);
        }
}

TEST_P(XMLOracle, EveryByteReplacedByEveryOther)
{
    std::string const original = "<a b='c'>\xC3\xA9&lt;<!--d--><e/> \xE2\x82\xAC</a>";
    for (std::size_t i = 0; i < original.size(); ++i)
        for (int byte = 0; byte < 256; ++byte) {
            std::string document = original;
            document[i] = static_cast<char>(byte);
            ExpectSame(document, [&] { return document.size(); });
            std::string const longer = Ordinary(200) + document + Ordinary(200);
            ExpectSame(longer, [&] { return longer.size(); });
        }
}

TEST_P(XMLOracle, RandomDocuments)
{
    CRandom random(1);
    for (unsigned run = 0; run < 4000 * Stress(); ++run) {
        std::string document;
        if (random.Below(2) == 0)
            document = Ordinary(random.Below(300));
        for (std::size_t count = random.Below(40); count-- > 0;)
            document += RandomPiece(random);
        if (random.Below(2) == 0)
            document += Ordinary(random.Below(300));
        std::size_t const largest = 1 + random.Below(2) * random.Below(document.size() + 1);
        unsigned const callbacks = random.Below(4) == 0 ? static_cast<unsigned>(random.Below(128)) : AllXMLCallbacks;
        ExpectSame(document, [&] { return largest == 1 ? document.size() + 1 : 1 + random.Below(largest); }, callbacks);
        if (HasFatalFailure())
            FAIL() << "run " << run;
    }
}

TEST_P(XMLOracle, RandomDamage)
{
    CRandom random(2);
    for (unsigned run = 0; run < 2500 * Stress(); ++run) {
        std::string document = Ordinary(random.Below(2) * random.Below(300));
        document += Documents[random.Below(std::size(Documents))];
        document += Ordinary(random.Below(2) * random.Below(300));
        for (std::size_t count = 1 + random.Below(6); count-- > 0;) {
            std::size_t const at = random.Below(document.size());
            switch (random.Below(4)) {
            case 0:
                document[at] = static_cast<char>(random.Below(256));
                break;
            case 1:
                document.erase(at, 1 + random.Below(4));
                break;
            case 2:
                document.insert(at, RandomPiece(random));
                break;
            default:
                document.insert(at, document.substr(random.Below(document.size()), random.Below(50)));
                break;
            }
        }
        std::size_t const largest = random.Below(document.size()) + 1;
        ExpectSame(document, [&] { return 1 + random.Below(largest); });
        if (HasFatalFailure())
            FAIL() << "run " << run;
    }
}

TEST_P(XMLOracle, RandomBytes)
{
    CRandom random(3);
    for (unsigned run = 0; run < 4000 * Stress(); ++run) {
        // Few different bytes, so that delimiters come about.
        static constexpr char alphabet[] = "<>/!?-[]=\"' &;aCDAT\xC0\xC3\xE0\xF0\xBC\xBE\x80";
        std::string document(random.Below(120), ' ');
        for (char& byte : document)
            byte =
                random.Below(8) == 0 ? static_cast<char>(random.Below(256)) : alphabet[random.Below(sizeof alphabet)];
        std::size_t const largest = random.Below(document.size() + 1) + 1;
        ExpectSame(document, [&] { return 1 + random.Below(largest); });
        if (HasFatalFailure())
            FAIL() << "run " << run;
    }
}

// Delimiters at every distance from the beginning of a vector, in every state that scans for them.
// A lead byte that claims another lead byte leaves that one without its own claims, wherever a window ends.
TEST_P(XMLOracle, LeadBytesThatClaimLeadBytesAtEveryDistance)
{
    std::string const before = Ordinary(200);
    for (char const* piece :
         {"\xF0\xC3\xA9<", "\xF0\xE3<!", "\xE3\xC3<", "\xC3\xE3\xA9<", "\xC3\xC3<", "\xF0\xF0\xF0<"})
        for (std::size_t distance = 0; distance < 150; ++distance) {
            std::string const document =
                before + std::string(distance, 'x') + piece + "b>y</b><c d='" + piece + "'>" + Ordinary(200);
            ExpectSame(document, [&] { return document.size(); });
        }
}

TEST_P(XMLOracle, DelimitersAtEveryDistance)
{
    struct SFrame {
        char const* before;
        char const* after;
    };
    for (SFrame const& frame :
         {SFrame{"", "<a>"}, SFrame{"<", ">"}, SFrame{"<a", " b='c'>"}, SFrame{"<a ", "b='c'>"},
          SFrame{"<a b", "='c'>"}, SFrame{"<a b=", "'c'>"}, SFrame{"<a b='", "'>"}, SFrame{"</", ">"},
          SFrame{"</a ", ">"}, SFrame{"<!--", "-->"}, SFrame{"<![CDATA[", "]]>"}, SFrame{"<?", "?>"}, SFrame{"<!", ">"},
          SFrame{"<a b='", "&lt;'>"}, SFrame{"", "&lt;<a>"}})
        for (char const* filler : {"a", " ", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xE0\xA4\x85", "-", "]",
                                   "\x80", "\xFF", "&", "\xC3"})
            for (std::size_t count = 0; count < 140; ++count) {
                std::string document = frame.before;
                for (std::size_t i = 0; i < count; ++i)
                    document += filler;
                document += frame.after;
                document = Ordinary(230) + document + Ordinary(130);
                ExpectSame(document, [&] { return document.size(); });
                ASSERT_FALSE(HasFatalFailure());
            }
}

// The walk never asks for it: a token that moves to the front has room there. The guard is tried by hand.
TEST(XMLTokenizer, ATokenThatWouldReachUnreadTextIsRefused)
{
    char buffer[] = "name and more";
    CXMLStream stream;
    CXMLTokenizer tokenizer(stream, buffer, 13);
    EXPECT_EQ(tokenizer.ExtractTrimmed({5, 8}, 0), 4u);
    EXPECT_STREQ(buffer, "and");
    try {
        tokenizer.ExtractTrimmed({5, 8}, 6);
        ADD_FAILURE();
    }
    catch (CException const& error) {
        EXPECT_STREQ(static_cast<char const*>(error.GetText().GetData()),
                     "src/VlmCore/Core_XMLStream.cpp(188): Stack collides with unread buffer data. XML Data corruption "
                     "imminent.");
    }
    EXPECT_STREQ(buffer + 4, " and more");
    EXPECT_EQ(tokenizer.ExtractTrimmed({5, 8}, 5), 9u); // up to the token's own end there is room
}
