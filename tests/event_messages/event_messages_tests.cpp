// The event log finds a readable text for every identifier in the DLL's message table.
#include <vlmcore/logging.h>

#include <gtest/gtest.h>

#include <string>
#include <windows.h>

namespace {

/// What the event log shows for an event with one text, its line end included.
[[nodiscard]] std::string Render(DWORD identifier, char const* text)
{
    // The logger keeps the DLL loaded, which a program that calls nothing of it would not.
    static_cast<void>(Velmor::Log::Release());
    // The system reads the array as a list of arguments.
    DWORD_PTR arguments[] = {reinterpret_cast<DWORD_PTR>(text)};
    char buffer[256];
    DWORD const length =
        FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, GetModuleHandleA("VlmCore.dll"),
                       identifier, 0, buffer, sizeof buffer, reinterpret_cast<va_list*>(arguments));
    return {buffer, length};
}

TEST(EventMessages, EveryIdentifierShowsItsText)
{
    ASSERT_NE(GetModuleHandleA("VlmCore.dll"), nullptr);
    EXPECT_EQ(Render(0x60000000, "first"), "first\r\n");
    EXPECT_EQ(Render(0x6000FFFF, "last"), "last\r\n");
    for (DWORD identifier = 0x60000000; identifier <= 0x6000FFFF; identifier += 97)
        ASSERT_EQ(Render(identifier, "any"), "any\r\n") << identifier;
}

TEST(EventMessages, OtherIdentifiersHaveNone)
{
    EXPECT_EQ(Render(0x5FFFFFFF, "x"), "");
    EXPECT_EQ(Render(0x60010000, "x"), "");
}

} // namespace
