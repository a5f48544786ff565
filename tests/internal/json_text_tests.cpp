// The JSON builder: whatever bytes go in, a strict reader gets a document, and the characters of valid texts.
#include "Core_JSONText.h"
#include "StrictJSON.h"
#include "TestHeap.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using namespace Velmor;
using VlmTest::CStrictJSON;

[[nodiscard]] std::string Escape(char const* text)
{
    CJSONText json;
    json.AppendEscaped(text);
    return {json.GetData(), json.GetSizeByte()};
}

[[nodiscard]] std::string EscapeMarkup(char const* text)
{
    CJSONText json;
    json.AppendEscapedMarkup(text);
    return {json.GetData(), json.GetSizeByte()};
}

TEST(JSONText, QuotesBackslashesAndControlsAreEscaped)
{
    EXPECT_EQ(Escape("plain text/_"), "plain text/_");
    EXPECT_EQ(Escape("a\"b"), "a\\\"b");
    EXPECT_EQ(Escape("C:\\dir\\a.cpp"), "C:\\\\dir\\\\a.cpp");
    EXPECT_EQ(Escape("\n\t\x01\x1F\x7F"), "\\u000A\\u0009\\u0001\\u001F\x7F");
}

TEST(JSONText, ValidCharactersStandAndStrayBytesAreEscaped)
{
    EXPECT_EQ(Escape("\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"), "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(Escape("\xE4"), "\\u00E4");
    EXPECT_EQ(Escape("\x80z"), "\\u0080z");
    EXPECT_EQ(Escape("\xC3"), "\\u00C3");
    EXPECT_EQ(Escape("\xE2\x82"), "\\u00E2\\u0082");
    EXPECT_EQ(Escape("\xC0\xAF"), "\\u00C0\\u00AF");
    EXPECT_EQ(Escape("\xE0\x80\x80"), "\\u00E0\\u0080\\u0080");
    EXPECT_EQ(Escape("\xED\xA0\x80"), "\\u00ED\\u00A0\\u0080");
    EXPECT_EQ(Escape("\xF4\x90\x80\x80"), "\\u00F4\\u0090\\u0080\\u0080");
}

TEST(JSONText, MarkupIsReplacedOnceAndFromTheAmpersandOn)
{
    EXPECT_EQ(EscapeMarkup("a<b>&c"), "a&lt;b&gt;&amp;c");
    EXPECT_EQ(EscapeMarkup("&lt;"), "&amp;lt;");
    EXPECT_EQ(EscapeMarkup("operator<<\"\\"), "operator&lt;&lt;\\\"\\\\");
    EXPECT_EQ(Escape("a<b>&c"), "a<b>&c");
}

TEST(JSONText, NumbersAreWholeAtTheEndsOfTheirType)
{
    CJSONText json;
    json.AppendDecimal(0);
    json.Append(" ");
    json.AppendDecimal(~u64{0});
    EXPECT_EQ(std::string(json.GetData(), json.GetSizeByte()), "0 18446744073709551615");
}

TEST(JSONText, GrowsAndCuts)
{
    CJSONText json;
    std::string expected;
    for (int part = 0; part < 3000; ++part) {
        json.Append("abcdefg", 7);
        expected += "abcdefg";
    }
    EXPECT_EQ(std::string(json.GetData(), json.GetSizeByte()), expected);
    json.RemoveFront(6);
    json.Truncate(9);
    EXPECT_EQ(std::string(json.GetData(), json.GetSizeByte()), "gabcdefga");
    json.RemoveFront(9);
    EXPECT_EQ(json.GetSizeByte(), 0u);
}

TEST(JSONText, AnyBytesMakeAString)
{
    std::mt19937 random(20140228);
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (unsigned length = static_cast<unsigned>(random() % 12); length > 0; --length)
            text += static_cast<char>(random() % 255 + 1);
        ASSERT_NO_THROW(static_cast<void>(CStrictJSON::Parse("\"" + Escape(text.c_str()) + "\""))) << round;
        ASSERT_NO_THROW(static_cast<void>(CStrictJSON::Parse("\"" + EscapeMarkup(text.c_str()) + "\""))) << round;
    }
}

} // namespace
