// Texts that one module builds and another reads, replaces and frees.
#include "../support/CountingHooks.h"
#include "../support/PluginModule.h"
#include "../support/StringAccess.h"
#include "Plugin.h"

#include <gtest/gtest.h>

#include <new>
#include <optional>

using namespace Velmor;
using StringPlugin::SPlugin;
using Velmor::Test::CCountingHooks;

namespace {

u64 GetLiveCount()
{
    Memory::SStatistics statistics{};
    EXPECT_TRUE(Memory::GetStatistics(statistics));
    return statistics.liveCount;
}

class StringModules : public ::testing::Test {
protected:
    void SetUp() override
    {
        CCountingHooks::Reset();
        CCountingHooks::Initialize(EHeapFlag::Passthrough);
        m_plugin.emplace(VLMCORE_PLUGIN_NAME);
        (*m_plugin)->adopt(Memory::GetExternalHooks());
        m_live = GetLiveCount();
    }

    void TearDown() override
    {
        EXPECT_EQ(GetLiveCount(), m_live) << "every text went back to the heap";
        m_plugin.reset();
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    }

    std::optional<TestSupport::TPluginModule<SPlugin>> m_plugin;
    u64 m_live = 0;
};

/// A string of the host alone: the plugin knows nothing of its class.
class CFixedLength : public CString {
public:
    using CString::CString;
    [[nodiscard]] u64 GetLength() const override { return 2; }
};

} // namespace

TEST_F(StringModules, ThePluginReplacesTextsOfTheHost)
{
    CMutableString text("a text of the host");
    (*m_plugin)->assign(text, u"one of the plugin");
    EXPECT_EQ(text, "one of the plugin");
    EXPECT_EQ(text.GetEncoding(), EStringEncoding::UTF16);
    EXPECT_EQ(text.GetLength(), 17u);
    EXPECT_EQ(text.GetAllocatedSize(), 36u);
    (*m_plugin)->assign(text, text.GetSubstring(7));
    EXPECT_EQ(text, "the plugin") << "a part of itself";
    (*m_plugin)->assign(text, CString());
    EXPECT_EQ(text.GetData(), nullptr);
}

TEST_F(StringModules, ThePluginFormatsTextsOfTheHost)
{
    CMutableString text("Ada");
    (*m_plugin)->greet(text, text, 36);
    EXPECT_EQ(text, u"Ada (36), 0x24");
    (*m_plugin)->greet(text, CString(U"\u00C9va"), -1);
    EXPECT_EQ(text, u"\u00C9va (-1), 0xFFFFFFFFFFFFFFFF");
}

TEST_F(StringModules, TheHostFreesTextsOfThePlugin)
{
    CMutableString text = (*m_plugin)->makeUpperCase("gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(text, "GR\xC3\xBC\xC3\x9F");
    text = text + "!";
    EXPECT_EQ(text, "GR\xC3\xBC\xC3\x9F!");
    TVector<CMutableString, 1> pieces;
    pieces.Append(CMutableString("zero"));
    (*m_plugin)->split(pieces, "one,two,three,four,five,six,seven,eight,nine");
    ASSERT_EQ(pieces.GetCount(), 10u);
    EXPECT_EQ(pieces[0], "zero");
    EXPECT_EQ(pieces[9], "nine");
    pieces.Append(CMutableString("ten"));
    EXPECT_EQ(IString::Join("+", pieces, 8), "eight+nine+ten");
}

TEST_F(StringModules, OperationsReachTheOtherModulesClasses)
{
    EXPECT_EQ((*m_plugin)->getLength(CFixedLength("more than two")), 2u);
    EXPECT_EQ((*m_plugin)->getLength(CMutableString("five!")), 5u);
    EXPECT_TRUE((*m_plugin)->isEqual(CMutableString("same"), u"same"));
    EXPECT_FALSE((*m_plugin)->isEqual("this", U"that"));
}

TEST_F(StringModules, MissingMemoryPassesFromThePlugin)
{
    CMutableString text("stays");
    CCountingHooks::FailFrom(1);
    EXPECT_THROW((*m_plugin)->assign(text, u"never"), std::bad_alloc);
    EXPECT_THROW((*m_plugin)->greet(text, text, 1), std::bad_alloc);
    EXPECT_THROW((void)(*m_plugin)->makeUpperCase("x"), std::bad_alloc);
    CCountingHooks::FailFrom(0);
    EXPECT_EQ(text, "stays");
    EXPECT_EQ(text.GetAllocatedSize(), 6u);
}
