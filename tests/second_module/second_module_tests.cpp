// Labels: threads
// One heap under two modules: the host's shared library, and a plugin with the static library inside.
#include "../support/CountingHooks.h"
#include "../support/PluginModule.h"
#include "Plugin.h"

#include <vlmcore/memory.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace Velmor;
using PluginTest::GetLivePoolBlocks;
using Velmor::Test::CCountingHooks;

namespace {

class CPluginModule : public TestSupport::TPluginModule<PluginTest::SPlugin> {
public:
    explicit CPluginModule(char const* fileName = VLMCORE_PLUGIN_NAME) : TPluginModule(fileName) {}
};

u64 GetBytes()
{
    Memory::SStatistics statistics{};
    Memory::GetStatistics(statistics);
    return statistics.bytesInUse;
}

class SecondModule : public ::testing::TestWithParam<unsigned char> {
protected:
    void SetUp() override
    {
        CCountingHooks::Reset();
        CCountingHooks::Initialize(GetParam());
    }

    void TearDown() override
    {
        Memory::Deinitialize();
        EXPECT_EQ(CCountingHooks::GetLiveBlocks(), 1u); // the heap object
        EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modes, SecondModule, ::testing::Values(0, EHeapFlag::Passthrough),
                         [](auto const& test) { return std::string(test.param == 0 ? "Normal" : "Passthrough"); });

TEST_P(SecondModule, HasNoHeapBeforeItAdoptsOne)
{
    CPluginModule const plugin;
    EXPECT_FALSE(plugin->isInitialized());
    EXPECT_TRUE(plugin->throwsWithoutHeap());
    plugin->adopt(Memory::GetExternalHooks());
    EXPECT_TRUE(plugin->isInitialized());
}

TEST_P(SecondModule, DoesNotAdoptTheHeapOfAnotherBuild)
{
    CPluginModule const plugin(VLMCORE_OTHER_PLUGIN_NAME); // built for finding damage
    void** const hooks = static_cast<void**>(Memory::GetExternalHooks());
    EXPECT_STREQ(plugin->getRefusal(hooks), "heap of another build of the library");
    EXPECT_FALSE(plugin->isInitialized());
    EXPECT_TRUE(plugin->throwsWithoutHeap());
    // The host's goes on.
    void* const block = Memory::Malloc(100, EHeap::Pool);
    EXPECT_EQ(Memory::GetSize(block), 100u);
    Memory::Free(block);
}

TEST_P(SecondModule, SharesBlocksBothWays)
{
    CPluginModule const plugin;
    plugin->adopt(Memory::GetExternalHooks());
    for (u32 kind = 0; kind < 5; ++kind)
        for (u64 const size : {1u, 24u, 1024u, 1025u, 50000u}) {
            // The host's block, freed by the plugin.
            void* const ours = Memory::Malloc(size, static_cast<EHeap::Type>(kind));
            EXPECT_EQ(plugin->getSize(ours), size);
            EXPECT_EQ(plugin->getHeap(ours), kind);
            std::memset(ours, 1, size);
            plugin->release(ours);
            EXPECT_EQ(Memory::GetSize(ours), 0u);
            // The plugin's block, resized and freed by the host.
            void* theirs = plugin->allocate(size, kind);
            EXPECT_EQ(Memory::GetSize(theirs), size);
            EXPECT_EQ(static_cast<u32>(Memory::GetHeap(theirs)), kind);
            std::memset(theirs, 2, size);
            theirs = Memory::Realloc(theirs, size + 2000, EHeap::General);
            EXPECT_EQ(static_cast<char*>(theirs)[size - 1], 2);
            theirs = plugin->resize(theirs, size);
            EXPECT_EQ(static_cast<char*>(theirs)[size - 1], 2);
            Memory::Free(theirs);
        }
}

TEST_P(SecondModule, CountsInTheSameStatistics)
{
    CPluginModule const plugin;
    plugin->adopt(Memory::GetExternalHooks()); // takes one block
    bool const isPooled = GetParam() == 0;
    EXPECT_EQ(GetLivePoolBlocks(), isPooled ? 1u : 0u);
    void* const block = plugin->allocate(10, EHeap::Pool16);
    EXPECT_EQ(GetLivePoolBlocks(), isPooled ? 2u : 0u);
    EXPECT_EQ(plugin->getLivePoolBlocks(), isPooled ? 2u : 0u);
    Memory::Free(block);
    EXPECT_EQ(plugin->getLivePoolBlocks(), isPooled ? 1u : 0u);
}

TEST_P(SecondModule, IsUnloadedAndLoadedAgain)
{
    void* left[2] = {};
    u64 const bytes = GetBytes();
    for (void*& block : left) {
        CPluginModule const plugin;
        EXPECT_FALSE(plugin->isInitialized()); // a new life: nothing of the last one
        plugin->adopt(Memory::GetExternalHooks());
        block = plugin->allocate(77, EHeap::Pool);
        std::memset(block, 3, 77);
    }
    // Its blocks outlive it; the one that its static owned went with it.
    for (void* const block : left) {
        EXPECT_EQ(Memory::GetSize(block), 77u);
        EXPECT_EQ(static_cast<char*>(block)[76], 3);
        Memory::Free(block);
    }
    EXPECT_EQ(GetLivePoolBlocks(), 0u);
    if (GetParam() != 0)
        EXPECT_EQ(GetBytes(), bytes);
}

TEST_P(SecondModule, AllocatesWhileTheHostAllocatesAndPurges)
{
    CPluginModule const plugin;
    plugin->adopt(Memory::GetExternalHooks());
    std::vector<std::thread> threads;
    for (u64 thread = 0; thread < 2; ++thread)
        threads.emplace_back([&, thread] { plugin->churn(thread * 1000, 20000); });
    for (u64 index = 0; index < 20000; ++index) {
        void* const block = Memory::Malloc(1 + index % 1500, static_cast<EHeap::Type>(index % 5));
        ASSERT_NE(block, nullptr);
        Memory::Free(block);
        if (index % 5000 == 0)
            Memory::Purge();
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(GetLivePoolBlocks(), GetParam() == 0 ? 1u : 0u);
}
