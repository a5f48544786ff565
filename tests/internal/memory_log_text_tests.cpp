// What the memory event log writes its lines with: numbers, the line of an event, the millisecond clock, and the file
// that takes the lines page by page.
#include "Core_EventText.h"
#include "Core_JSONFile.h"
#include "Core_MillisecondClock.h"
#include "RecordingFile.h"
#include "TestHeap.h"
#include "platform/Platform_System.h"

#include <vlmcore/resources.h>
#include <vlmcore/system.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Velmor;
using VlmTest::CRecordingFile;

[[nodiscard]] std::string ToDecimal(u64 value)
{
    char text[40];
    return {text, EventNumber::WriteDecimal(text, value)};
}

[[nodiscard]] std::string ToHex(u64 value)
{
    char text[40];
    return {text, EventNumber::WriteHex(text, value)};
}

TEST(EventNumber, DecimalsAtTheEndsOfTheirLengths)
{
    EXPECT_EQ(ToDecimal(0), "0");
    EXPECT_EQ(ToDecimal(1), "1");
    EXPECT_EQ(ToDecimal(9), "9");
    EXPECT_EQ(ToDecimal(10), "10");
    EXPECT_EQ(ToDecimal(100), "100");
    EXPECT_EQ(ToDecimal(9999), "9999");
    EXPECT_EQ(ToDecimal(10000), "10000");
    EXPECT_EQ(ToDecimal(90000009), "90000009");
    EXPECT_EQ(ToDecimal(99999999), "99999999");
    EXPECT_EQ(ToDecimal(100000000), "100000000");
    EXPECT_EQ(ToDecimal(4294967295), "4294967295");
    EXPECT_EQ(ToDecimal(9999999999999999), "9999999999999999");
    EXPECT_EQ(ToDecimal(10000000000000000), "10000000000000000");
    EXPECT_EQ(ToDecimal(18446744073709551615u), "18446744073709551615");
}

TEST(EventNumber, HexadecimalsAtTheEndsOfTheirLengths)
{
    EXPECT_EQ(ToHex(0), "0");
    EXPECT_EQ(ToHex(9), "9");
    EXPECT_EQ(ToHex(0xA), "A");
    EXPECT_EQ(ToHex(0xF0), "F0");
    EXPECT_EQ(ToHex(0x123456789ABCDEF0), "123456789ABCDEF0");
    EXPECT_EQ(ToHex(0xFFFFFFFF), "FFFFFFFF");
    EXPECT_EQ(ToHex(0x100000000), "100000000");
    EXPECT_EQ(ToHex(0x7F10AC0042B0), "7F10AC0042B0");
    EXPECT_EQ(ToHex(~u64{0}), "FFFFFFFFFFFFFFFF");
}

TEST(EventNumber, AgreesWithTheRuntime)
{
    char expected[40];
    // Each group of four digits in both its places.
    for (u32 four = 0; four < 10000; ++four) {
        for (u64 const value : {u64{four}, u64{four} * 10000, u64{four} * 10000 + 9999 - four}) {
            std::snprintf(expected, sizeof expected, "%llu", static_cast<unsigned long long>(value));
            ASSERT_EQ(ToDecimal(value), expected);
        }
    }
    std::mt19937_64 random(5);
    for (int round = 0; round < 200000; ++round) {
        u64 const value = random() >> random() % 64;
        std::snprintf(expected, sizeof expected, "%llu", static_cast<unsigned long long>(value));
        ASSERT_EQ(ToDecimal(value), expected);
        std::snprintf(expected, sizeof expected, "%llX", static_cast<unsigned long long>(value));
        ASSERT_EQ(ToHex(value), expected);
    }
}

/// The line, with what lies behind its room checked.
[[nodiscard]] std::string WriteLine(CEventText& text, CEventText::SEvent const& event)
{
    std::vector<char> room(CEventText::RoomSize + 64, '#');
    u64 const size = static_cast<u64>(text.Write(room.data(), event) - room.data());
    EXPECT_EQ(std::count(room.begin() + CEventText::RoomSize, room.end(), '#'), 64);
    return {room.data(), size};
}

TEST(EventText, EachKindHasItsLine)
{
    CEventText text;
    EXPECT_EQ(WriteLine(text, {5, 0x7F10, 24, 91024, 0, 77}),
              "{ \"Timestamp\": 5, \"Address\": \"0x7F10\", \"Size\": 24, \"HeapSize\": 91024, \"Event\": \"alloc\", "
              "\"CSHash\": 77 }\n");
    EXPECT_EQ(WriteLine(text, {5, 0, 0, 0, 1, 0}),
              "{ \"Timestamp\": 5, \"Address\": \"0x0\", \"Size\": 0, \"HeapSize\": 0, \"Event\": \"free\", "
              "\"CSHash\": 0 }\n");
    EXPECT_EQ(
        WriteLine(text, {1234567890, 0xABC, 0, 1, 2, 4294967295}),
        "{ \"Timestamp\": 1234567890, \"Address\": \"0xABC\", \"Size\": 0, \"HeapSize\": 1, \"Event\": \"retain\", "
        "\"CSHash\": 4294967295 }\n");
    EXPECT_EQ(WriteLine(text, {4, 1, 0, 1, 3, 1}),
              "{ \"Timestamp\": 4, \"Address\": \"0x1\", \"Size\": 0, \"HeapSize\": 1, \"Event\": \"release\", "
              "\"CSHash\": 1 }\n");
}

TEST(EventText, TheFirstEventMayBeOfTimeZeroAndTheLongestFits)
{
    CEventText text;
    EXPECT_EQ(WriteLine(text, {0, 1, 2, 3, 0, 4}),
              "{ \"Timestamp\": 0, \"Address\": \"0x1\", \"Size\": 2, \"HeapSize\": 3, \"Event\": \"alloc\", "
              "\"CSHash\": 4 }\n");
    u64 const all = ~u64{0};
    EXPECT_EQ(WriteLine(text, {all, all, all, all, 3, 4294967295}),
              "{ \"Timestamp\": 18446744073709551615, \"Address\": \"0xFFFFFFFFFFFFFFFF\", "
              "\"Size\": 18446744073709551615, \"HeapSize\": 18446744073709551615, \"Event\": \"release\", "
              "\"CSHash\": 4294967295 }\n");
}

// ---- the clock ----

/// A machine of this test's own: time goes on when it is told to, the counter at its pace.
struct SMachine {
    f64 now = 1000;
    f64 ticks = 5e12;
    f64 pace = 3e6; ///< ticks in a millisecond
    u64 asked = 0;  ///< how often the system was asked
    f64 lostInAsking = 0;

    void Pass(f64 milliseconds)
    {
        now += milliseconds;
        ticks += milliseconds * pace;
    }
    [[nodiscard]] u64 Ask(CMillisecondClock& clock)
    {
        return clock.GetWhole([this] { return static_cast<u64>(ticks); },
                              [this] {
                                  ++asked;
                                  Pass(lostInAsking);
                                  return now;
                              });
    }
};

TEST(MillisecondClock, IsExactAndRarelyAsks)
{
    CMillisecondClock clock(true);
    SMachine machine;
    u64 const rounds = 1000000; // a second, every microsecond
    for (u64 round = 0; round < rounds; ++round, machine.Pass(0.001))
        ASSERT_EQ(machine.Ask(clock), static_cast<u64>(machine.now)) << machine.now;
    EXPECT_GT(machine.asked, 1000u);
    EXPECT_LT(machine.asked, rounds / 20);
}

TEST(MillisecondClock, IsExactWhateverComesBetweenTwoLooks)
{
    CMillisecondClock clock(true);
    SMachine machine;
    std::mt19937 random(3);
    for (int round = 0; round < 300000; ++round) {
        machine.lostInAsking = random() % 50 == 0 ? static_cast<f64>(random() % 30) * 0.1 : 0;
        machine.Pass(random() % 100 == 0 ? static_cast<f64>(random() % 40) * 0.1
                                         : static_cast<f64>(random() % 100) * 1e-5);
        u64 const given = machine.Ask(clock); // in which time may pass
        ASSERT_EQ(given, static_cast<u64>(machine.now)) << machine.now;
    }
}

TEST(MillisecondClock, ASystemClockALittleFasterThanItWas)
{
    CMillisecondClock clock(true);
    SMachine machine;
    for (int round = 0; round < 100000; ++round, machine.Pass(0.001))
        static_cast<void>(machine.Ask(clock));
    machine.pace *= 0.99;
    for (int round = 0; round < 100000; ++round, machine.Pass(0.001))
        ASSERT_EQ(machine.Ask(clock), static_cast<u64>(machine.now)) << machine.now;
}

TEST(MillisecondClock, ACounterThatStartsOverIsNotBelieved)
{
    CMillisecondClock clock(true);
    SMachine machine;
    for (int round = 0; round < 50000; ++round, machine.Pass(0.001))
        static_cast<void>(machine.Ask(clock));
    machine.ticks = 17;
    machine.now += 5000;
    for (int round = 0; round < 50000; ++round, machine.Pass(0.001))
        ASSERT_EQ(machine.Ask(clock), static_cast<u64>(machine.now)) << machine.now;
}

TEST(MillisecondClock, ACounterThatRanOnWhileTheSystemStoodIsWrongByAMillisecondAtMost)
{
    CMillisecondClock clock(true);
    SMachine machine;
    for (int round = 0; round < 50000; ++round, machine.Pass(0.001))
        static_cast<void>(machine.Ask(clock));
    machine.ticks += 1e13; // most of an hour
    for (int round = 0; round < 50000; ++round, machine.Pass(0.001)) {
        u64 const given = machine.Ask(clock);
        u64 const exact = static_cast<u64>(machine.now);
        ASSERT_TRUE(given == exact || given + 1 == exact) << given << " at " << machine.now;
    }
}

TEST(MillisecondClock, WithoutASteadyCounterTheSystemIsAsked)
{
    CMillisecondClock clock(false);
    SMachine machine;
    machine.pace = 0;
    for (int round = 0; round < 10000; ++round, machine.Pass(0.01))
        ASSERT_EQ(machine.Ask(clock), static_cast<u64>(machine.now)) << machine.now;
    EXPECT_EQ(machine.asked, 10000u);
}

TEST(MillisecondClock, OfThisMachine)
{
    CMillisecondClock clock(Platform::HasSteadyTicks());
    for (int round = 0; round < 300000; ++round) {
        u64 const before = static_cast<u64>(System::GetTimeMs());
        u64 const given = clock.GetWhole(&Platform::GetTicks, &System::GetTimeMs);
        u64 const after = static_cast<u64>(System::GetTimeMs());
        ASSERT_GE(given, before);
        ASSERT_LE(given, after);
    }
}

// ---- the file ----

constexpr u64 PageSize = 4096;
constexpr u64 OpeningSize = 12; // "{ \"Data\": [\n"
constexpr u64 TrailerSize = 3;  // "]}\n"

/// A short item of the given size, its line end included, the comma before it not.
void AddItem(CJSONFile& file, u64 size)
{
    EXPECT_TRUE(file.AddShortItem<256>([size](char* at) {
        std::memset(at, ' ', size);
        at[0] = '{';
        at[size - 2] = '}';
        at[size - 1] = '\n';
        return at + size;
    }));
}

TEST(ShortItems, TheLastOneThatFitsThePageStaysInIt)
{
    // The second item and the trailer end where the page does, or one byte behind. The first has no comma in the file,
    // but the text that waits has.
    for (u64 const beyond : {0u, 1u}) {
        TResourcePtr<CRecordingFile> const recording = MakeResource<CRecordingFile>();
        CJSONFile file(recording);
        u64 size = PageSize - OpeningSize - TrailerSize + beyond;
        for (; size > 400; size -= 201)
            AddItem(file, 200);
        AddItem(file, 199);
        size -= 200;
        AddItem(file, size - 1);
        EXPECT_EQ(recording->GetWrites().size(), 1 + beyond);
        file.Flush();
        EXPECT_EQ(recording->GetWrites().size(), 2 + beyond);
        EXPECT_EQ(recording->GetWrites().back().substr(recording->GetWrites().back().size() - 5), "}\n]}\n");
        EXPECT_EQ(recording->GetSizeByte(), PageSize + beyond - 1);
    }
}

TEST(ShortItems, MixWithBuiltOnes)
{
    TResourcePtr<CRecordingFile> const recording = MakeResource<CRecordingFile>();
    CJSONFile file(recording);
    AddItem(file, 3);
    EXPECT_TRUE(file.AddItem([](CJSONText& text) { text.Append("{1}\n"); }));
    AddItem(file, 4);
    file.Flush();
    EXPECT_EQ(recording->GetContent(), "{ \"Data\": [\n{}\n,{1}\n,{ }\n]}\n");
}

} // namespace
