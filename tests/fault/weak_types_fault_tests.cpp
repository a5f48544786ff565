// Weak types and their storages while memory runs out, once for every request that they make, and while there is no
// heap at all. Whatever is refused, the outcome is bad_alloc, values and storages are as they were, and nothing is
// lost.
#include "../support/CountingHooks.h"
#include "../support/Faults.h"

#include <vlmcore/weak_types.h>

#include <cstring>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::IsServed;
using TestSupport::SFaultMode;
using Velmor::Test::CCountingHooks;

namespace {

constexpr char const* LongText = "a text that is longer than any block of the pools, so that each copy is a request of "
                                 "its own to the hooks, whatever the pools still hold; and so on ";

std::string Repeat(char const* text, int count)
{
    std::string repeated;
    for (int index = 0; index < count; ++index)
        repeated += text;
    return repeated;
}

// UTF-8 text of a value, read without asking the library for memory.
bool HasText(CWeakType const& value, std::string const& expected)
{
    char const* text;
    std::memcpy(&text, static_cast<void const*>(&value), sizeof text);
    return value.GetType() == CWeakType::String && expected == text;
}

void RunValues(std::string const& text)
{
    CWeakType value;
    if (!IsServed([&] { value = CWeakType(text.c_str()); })) {
        EXPECT_EQ(value.GetType(), CWeakType::Invalid);
        return;
    }
    CWeakType copy(1);
    if (IsServed([&] { copy = value; }))
        EXPECT_TRUE(HasText(copy, text));
    else
        EXPECT_EQ(copy.AsInteger(), 1);
    CWeakType other;
    if (IsServed([&] { other = CWeakType("12"); })) {
        // Over a text that is there already.
        if (IsServed([&] { other = value; }))
            EXPECT_TRUE(HasText(other, text));
        else
            EXPECT_TRUE(HasText(other, "12"));
    }
    CWeakType const reference = CWeakType::MakeReference(value);
    CWeakType sum;
    if (IsServed([&] { sum = reference + value; }))
        EXPECT_TRUE(HasText(sum, text + text));
    if (IsServed([&] { sum = value - CWeakType("a"); }))
        EXPECT_EQ(sum.GetType(), CWeakType::String);
    IsServed([&] { EXPECT_EQ(value.AsString(), CString(text.c_str())); });
    IsServed([&] { EXPECT_EQ(CWeakType(2.5f).AsString(), "2.5"); });
    // Nothing of this needs memory.
    u64 const before = CCountingHooks::GetRequests();
    EXPECT_EQ(value.AsInteger(), 0);
    EXPECT_EQ(value.AsFloat(), 0.0f);
    EXPECT_TRUE(value == reference);
    EXPECT_TRUE((CWeakType(1) + CWeakType(0.5f)) == CWeakType(1.5f));
    EXPECT_EQ(CCountingHooks::GetRequests(), before);
    EXPECT_TRUE(HasText(value, text));
}

template <class Storage>
void RunStorage(std::string const& text)
{
    Storage storage;
    IWeakTypeStorage& variables = storage;
    u64 count = 0;
    for (unsigned int id = 100; id > 0; --id) {
        if (IsServed([&] { static_cast<void>(variables[id]); }))
            ++count;
        else
            EXPECT_EQ(variables.TryGet(id), nullptr);
        EXPECT_EQ(variables.GetCount(), count);
    }
    if (CManagedWeakType* const variable = variables.TryGet(50); variable != nullptr) {
        *variable = 7;
        if (IsServed([&] { *variable = text.c_str(); }))
            EXPECT_TRUE(HasText(*variable, text));
        else
            EXPECT_EQ(variable->AsInteger(), 7);
        EXPECT_EQ(variables.GetVariableId(*variable), 50u);
    }
    if (IsServed([&] { variables["name"] = 3; }))
        EXPECT_EQ(variables.TryGet("name")->AsInteger(), 3);
    if constexpr (std::is_same_v<Storage, CWeakTypeMap>)
        storage.GetVariables().CheckConsistency();
    variables.Unregister(50u);
    EXPECT_FALSE(variables.IsRegistered(50u));
}

void RunErrors()
{
    CWeakType::SetStrictMode(true);
    IsServed([] {
        try {
            static_cast<void>(CWeakType(true) == CWeakType(1));
            ADD_FAILURE() << "allowed";
        }
        catch (CPinnedTypeException const& error) {
            CPinnedTypeException* clone = nullptr;
            if (IsServed([&] { clone = error.Clone(); }))
                EXPECT_EQ(clone->GetText(), "Type mismatch between Boolean and Integer.");
            Memory::Delete(clone);
        }
    });
    CWeakType::SetStrictMode(false);
    CWeakType value(1);
    IsServed([&] {
        try {
            value = CWeakType::MakeReference(value);
            ADD_FAILURE() << "a circle";
        }
        catch (CException const& error) {
            EXPECT_EQ(error.GetKind(), 0);
        }
    });
    EXPECT_EQ(value.AsInteger(), 1);
}

class WeakTypeFaults : public ::testing::TestWithParam<SFaultMode> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(Modes, WeakTypeFaults, TestSupport::FaultModes(), TestSupport::NameOf);

TEST_P(WeakTypeFaults, EveryRequestMayBeRefused)
{
    std::string const text = Repeat(LongText, 10);
    TestSupport::RefuseEachInTurn(GetParam(), 200, [&](u64 failing) {
        return TestSupport::IsRefusalReached(GetParam(), failing, [&] {
            RunValues("short");
            RunValues(text);
            RunStorage<CWeakTypeList>(text);
            RunStorage<CWeakTypeMap>(text);
            RunErrors();
        });
    });
}

// ---- without a heap ----

TEST(WeakTypesWithoutHeap, NumbersWorkAndTextsThrow)
{
    ASSERT_FALSE(Memory::IsInitialized());
    CWeakType value(41);
    ++value;
    EXPECT_EQ((value + CWeakType(0.5f)).AsFloat(), 42.5f);
    EXPECT_TRUE(CWeakType::MakeReference(value) == CWeakType(42));
    EXPECT_EQ(CWeakType::GetTypeName(CWeakType::Float).GetData(), CWeakType::TypeName[3]);
    EXPECT_FALSE(IsServed([&] { value = CWeakType("text"); }));
    EXPECT_EQ(value.AsInteger(), 42);
    EXPECT_FALSE(IsServed([&] { static_cast<void>(value.AsString()); }));
    CWeakTypeList list;
    CWeakTypeMap map;
    for (IWeakTypeStorage* const storage :
         {static_cast<IWeakTypeStorage*>(&list), static_cast<IWeakTypeStorage*>(&map)}) {
        EXPECT_FALSE(IsServed([&] { static_cast<void>((*storage)["name"]); }));
        EXPECT_FALSE(storage->IsRegistered("name"));
        EXPECT_EQ(storage->TryGet(1u), nullptr);
        storage->Unregister("name");
        storage->Clear();
        EXPECT_EQ(storage->GetCount(), 0u);
    }
}

TEST(WeakTypesWithoutHeap, WhatOutlivesTheHeapGoesQuietly)
{
    CCountingHooks::Reset();
    CCountingHooks::Initialize(EHeapFlag::Passthrough);
    {
        CWeakType const text("text");
        CWeakTypeList list;
        CWeakTypeMap map;
        for (unsigned int id = 0; id < 10; ++id) {
            list[id] = "text";
            map[id] = 1;
        }
        Memory::Deinitialize();
    }
    EXPECT_EQ(CCountingHooks::GetForeignBlocks(), 0u);
    CCountingHooks::Reset();
}
