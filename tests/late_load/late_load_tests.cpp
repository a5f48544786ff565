// Labels: threads
// A program that knows nothing of the library loads a plugin that has it: a language's runtime, a game's mod loader.
// What the library keeps for each thread must fit into what the system has left at that time.
#include "../support/PluginEntry.h"
#include "Module.h"
#include "Plugin.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

constexpr int EventsOfARun = 250; // a run's threads and the one that it is on, 50 each

int UsePlugin(void* module)
{
    void* const entry = LateLoad::FindFunction(module, TestSupport::PluginEntry);
    return entry != nullptr ? reinterpret_cast<LateLoad::SPlugin const* (*)()>(entry)()->run() : -1;
}

class LateLoading : public ::testing::TestWithParam<char const*> {
protected:
    std::string const m_fileName = std::string("late_plugin_") + GetParam() + VLMCORE_PLUGIN_SUFFIX;
};

INSTANTIATE_TEST_SUITE_P(Libraries, LateLoading, ::testing::Values("shared", "static"),
                         [](auto const& test) { return std::string(test.param); });

TEST_P(LateLoading, AllOfItWorksAgainAndAgain)
{
    for (int round = 0; round < 8; ++round) {
        void* const module = LateLoad::Open(m_fileName.c_str());
        ASSERT_NE(module, nullptr) << round;
        EXPECT_EQ(UsePlugin(module), EventsOfARun) << round;
        LateLoad::Close(module);
    }
}

// Threads that the library has something of end while it is still there.
TEST_P(LateLoading, ThreadsComeAndGo)
{
    void* const module = LateLoad::Open(m_fileName.c_str());
    ASSERT_NE(module, nullptr);
    for (int round = 0; round < 5; ++round) {
        int events = 0;
        std::thread thread([&] { events = UsePlugin(module); });
        thread.join();
        EXPECT_EQ(events, EventsOfARun) << round;
    }
    EXPECT_EQ(UsePlugin(module), EventsOfARun);
    LateLoad::Close(module);
}

TEST(LateLoadingOfBoth, OneDoesNotCrowdTheOtherOut)
{
    void* const shared = LateLoad::Open("late_plugin_shared" VLMCORE_PLUGIN_SUFFIX);
    void* const inside = LateLoad::Open("late_plugin_static" VLMCORE_PLUGIN_SUFFIX);
    ASSERT_NE(shared, nullptr);
    ASSERT_NE(inside, nullptr);
    EXPECT_EQ(UsePlugin(shared), EventsOfARun);
    EXPECT_EQ(UsePlugin(inside), EventsOfARun);
    EXPECT_EQ(UsePlugin(shared), EventsOfARun);
    LateLoad::Close(inside);
    LateLoad::Close(shared);
}

} // namespace
