#include <gtest/gtest.h>

#include <vlmcore/weak_types.h>

#include "TestHeap.h"
#include "Texts.h"
#include "support/ThreadHelpers.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

using namespace Velmor;
using VlmTest::Bytes;

namespace {

// The whole tree is walked after every step in debug builds, now and then in others.
#if defined(NDEBUG)
constexpr u64 StepsPerCheck = 61;
#else
constexpr u64 StepsPerCheck = 1;
#endif

u64 CountLiveBlocks()
{
    Memory::SStatistics statistics{};
    Memory::GetStatistics(statistics);
    u64 count = statistics.liveCount;
    for (Memory::SStatistics::SPool const& pool : statistics.pools) {
        count += pool.liveCount;
        for (u64 index = 0; index < pool.classCount; ++index)
            count -= pool.classes[index].chunkCount == 0 ? 0 : pool.classes[index].chunkCount + 1;
    }
    return count;
}

} // namespace

// ---- values ----

TEST(WeakType, AFreshValueIsInvalid)
{
    CWeakType const value;
    EXPECT_EQ(value.GetType(), CWeakType::Invalid);
    EXPECT_EQ(value.AsInteger(), 0);
    EXPECT_EQ(value.AsFloat(), 0.0f);
    EXPECT_FALSE(value.AsBoolean());
    EXPECT_EQ(Bytes(value.AsString()), "");
}

TEST(WeakType, CodesAndNames)
{
    EXPECT_EQ(int{CWeakType::Reference}, 0);
    EXPECT_EQ(int{CWeakType::Boolean}, 1);
    EXPECT_EQ(int{CWeakType::Integer}, 2);
    EXPECT_EQ(int{CWeakType::Float}, 3);
    EXPECT_EQ(int{CWeakType::String}, 4);
    EXPECT_EQ(int{CWeakType::Invalid}, 5);
    char const* const names[] = {"Reference", "Boolean", "Integer", "Float", "String", "Invalid"};
    for (u32 code = 0; code < 6; ++code) {
        EXPECT_EQ(Bytes(CWeakType::GetTypeName(static_cast<CWeakType::EType>(code))), names[code]);
        EXPECT_EQ(Bytes(CWeakType::GetTypeName(static_cast<_VlmWeakTypeDataType>(code))), names[code]);
        EXPECT_STREQ(CWeakType::TypeName[code], names[code]);
    }
    EXPECT_EQ(CWeakType::GetTypeName(CWeakType::Float).GetData(), CWeakType::TypeName[3]);
}

TEST(WeakType, ACodeOutsideTheTableIsInvalid)
{
    EXPECT_EQ(Bytes(CWeakType::GetTypeName(static_cast<_VlmWeakTypeDataType>(6))), "Invalid");
    EXPECT_EQ(Bytes(CPinnedTypeException(static_cast<_VlmWeakTypeDataType>(7)).GetText()),
              "Type Invalid invalid in context.");
}

TEST(WeakType, Layout)
{
    EXPECT_EQ(alignof(CWeakType), 4u);
    EXPECT_EQ(sizeof(CManagedWeakType), 24u);
    EXPECT_EQ(sizeof(CPinnedTypeException), sizeof(CException) + 8);
    EXPECT_EQ(sizeof(_VlmWeakTypeDataType), 4u);
    EXPECT_EQ(sizeof(CWeakType::EType), 1u);
    // The payload comes first, the code behind it.
    CWeakType const value(-3);
    i32 payload;
    std::memcpy(&payload, &value, sizeof payload);
    EXPECT_EQ(payload, -3);
    EXPECT_EQ(reinterpret_cast<u8 const*>(&value)[8], 2);
    EXPECT_FALSE(std::is_copy_constructible_v<CWeakTypeList>);
    EXPECT_FALSE(std::is_copy_constructible_v<CWeakTypeMap>);
    EXPECT_FALSE(std::is_copy_assignable_v<CWeakTypeMap>);
}

TEST(WeakType, ConversionsOfBooleans)
{
    EXPECT_EQ(Bytes(CWeakType(true).AsString()), "true");
    EXPECT_EQ(Bytes(CWeakType(false).AsString()), "false");
    EXPECT_EQ(CWeakType(true).AsInteger(), 1);
    EXPECT_EQ(CWeakType(true).AsFloat(), 1.0f);
    EXPECT_FALSE(CWeakType(false).AsBoolean());
}

TEST(WeakType, ConversionsOfIntegers)
{
    EXPECT_EQ(Bytes(CWeakType(-42).AsString()), "-42");
    EXPECT_TRUE(CWeakType(-42).AsBoolean());
    EXPECT_FALSE(CWeakType(0).AsBoolean());
    EXPECT_EQ(CWeakType(16777217).AsFloat(), 16777216.0f);
    EXPECT_EQ(Bytes(CWeakType(std::numeric_limits<int>::min()).AsString()), "-2147483648");
}

TEST(WeakType, ConversionsOfFloats)
{
    EXPECT_EQ(Bytes(CWeakType(1.5f).AsString()), "1.5");
    EXPECT_EQ(CWeakType(2.9f).AsInteger(), 2);
    EXPECT_EQ(CWeakType(-2.9f).AsInteger(), -2);
    EXPECT_EQ(CWeakType(3e9f).AsInteger(), static_cast<int>(3000000000u));
    EXPECT_FALSE(CWeakType(std::nanf("")).AsBoolean());
    EXPECT_FALSE(CWeakType(-0.0f).AsBoolean());
    EXPECT_TRUE(CWeakType(-0.1f).AsBoolean());
    // What 64 bits cannot hold becomes the indefinite integer, whose low half is 0.
    EXPECT_EQ(CWeakType(1e30f).AsInteger(), 0);
    EXPECT_EQ(CWeakType(-std::numeric_limits<float>::infinity()).AsInteger(), 0);
    EXPECT_EQ(CWeakType(std::nanf("")).AsInteger(), 0);
}

TEST(WeakType, ConversionsOfTexts)
{
    EXPECT_TRUE(CWeakType("true").AsBoolean());
    EXPECT_FALSE(CWeakType("True").AsBoolean());
    EXPECT_FALSE(CWeakType("1").AsBoolean());
    EXPECT_EQ(CWeakType("-17").AsInteger(), -17);
    EXPECT_EQ(CWeakType("0x1F").AsInteger(), 31);
    EXPECT_EQ(CWeakType("3,25").AsFloat(), 3.25f);
    EXPECT_EQ(CWeakType("nothing").AsInteger(), 0);
    EXPECT_EQ(CWeakType("4294967297").AsInteger(), 1);
    EXPECT_EQ(CWeakType("").AsFloat(), 0.0f);
}

TEST(WeakType, TextsOfEveryEncodingAreOwnedAsUTF8)
{
    EXPECT_EQ(Bytes(CWeakType(CString(u"wörter")).AsString()), "wörter");
    EXPECT_EQ(Bytes(CWeakType(CString(U"wörter")).AsString()), "wörter");
    EXPECT_EQ(Bytes(CWeakType(CString()).AsString()), "");
    EXPECT_EQ(CWeakType(CString()).GetType(), CWeakType::String);
    char text[] = "own";
    CWeakType const value(text);
    text[0] = 'X';
    EXPECT_EQ(Bytes(value.AsString()), "own");
}

// A pointer converts to bool before it converts to a text: none may slip through as a Boolean.
TEST(WeakType, LiteralsOfEveryEncodingAreTextsAndOtherPointersAreRefused)
{
    EXPECT_EQ(CWeakType("w\u00F6rter").GetType(), CWeakType::String);
    EXPECT_EQ(Bytes(CWeakType(u8"w\u00F6rter").AsString()), "w\xC3\xB6rter");
    EXPECT_EQ(Bytes(CWeakType(u"w\u00F6rter").AsString()), "w\xC3\xB6rter");
    EXPECT_EQ(Bytes(CWeakType(U"w\u00F6rter").AsString()), "w\xC3\xB6rter");
    EXPECT_EQ(Bytes(CWeakType(L"w\u00F6rter").AsString()), "w\xC3\xB6rter");
    char16_t units[] = u"own";
    CWeakType value = units;
    EXPECT_EQ(value.GetType(), CWeakType::String);
    value = u"assigned";
    EXPECT_EQ(Bytes(value.AsString()), "assigned");
    CMutableString const owner("owner");
    value = owner;
    EXPECT_EQ(Bytes(value.AsString()), "owner");
    EXPECT_TRUE(value == owner);
    EXPECT_TRUE(value == u"owner");
    char const* const null = nullptr;
    EXPECT_EQ(CWeakType(null).GetType(), CWeakType::String);
    EXPECT_EQ(CWeakType(nullptr).GetType(), CWeakType::String);
    EXPECT_FALSE((std::is_constructible_v<CWeakType, void const*>));
    EXPECT_FALSE((std::is_constructible_v<CWeakType, int*>));
    EXPECT_FALSE((std::is_constructible_v<CWeakType, CWeakType*>));
    EXPECT_FALSE((std::is_constructible_v<CWeakType, void (*)()>));
}

TEST(WeakType, TextsAreCopiedMovedAndFreed)
{
    u64 const before = CountLiveBlocks();
    {
        CWeakType text("a text");
        CWeakType copy(text);
        CWeakType moved(std::move(text));
        EXPECT_EQ(text.GetType(), CWeakType::Invalid);
        copy = moved;
        copy = CWeakType(1);
        copy = CWeakType("again");
        copy = std::move(moved);
        EXPECT_EQ(Bytes(copy.AsString()), "a text");
        CWeakType& self = copy;
        copy = self;
        EXPECT_EQ(Bytes(copy.AsString()), "a text");
        EXPECT_EQ(CountLiveBlocks(), before + 1);
    }
    EXPECT_EQ(CountLiveBlocks(), before);
}

// Every type over every type, by copy and by move: the text and type that arrive, what the source keeps, and no block
// left.
TEST(WeakType, AssignmentOfEveryTypeOverEveryType)
{
    struct SKind {
        CWeakType::EType type;
        char const* text;
    };
    constexpr SKind Kinds[] = {{CWeakType::Reference, "12"}, {CWeakType::Boolean, "true"}, {CWeakType::Integer, "-7"},
                               {CWeakType::Float, "1.5"},    {CWeakType::String, "text"},  {CWeakType::Invalid, ""}};
    u64 const before = CountLiveBlocks();
    {
        CWeakType const target(12);
        auto const make = [&](CWeakType::EType type) -> CWeakType {
            switch (type) {
            case CWeakType::Reference:
                return CWeakType::MakeReference(const_cast<CWeakType&>(target));
            case CWeakType::Boolean:
                return true;
            case CWeakType::Integer:
                return -7;
            case CWeakType::Float:
                return 1.5f;
            case CWeakType::String:
                return "text";
            default:
                return {};
            }
        };
        auto const expect = [](CWeakType const& value, SKind const& kind) {
            EXPECT_EQ(value.GetType(), kind.type);
            EXPECT_EQ(Bytes(value.AsString()), kind.text);
        };
        for (SKind const& to : Kinds) {
            for (SKind const& from : Kinds) {
                CWeakType source = make(from.type);
                CWeakType copied = make(to.type);
                copied = source;
                expect(copied, from);
                expect(source, from);
                CWeakType moved = make(to.type);
                moved = std::move(source);
                expect(moved, from);
                expect(source, {CWeakType::Invalid, ""});
            }
            CWeakType value = make(to.type);
            CWeakType& self = value;
            value = self;
            expect(value, to);
            value = std::move(self);
            expect(value, to);
        }
    }
    EXPECT_EQ(CountLiveBlocks(), before);
}

// ---- references ----

TEST(WeakType, AChainOfAnyLengthResolvesToItsEnd)
{
    CWeakType end("12");
    std::vector<CWeakType> chain(10000);
    chain[0] = CWeakType::MakeReference(end);
    for (std::size_t index = 1; index < chain.size(); ++index)
        chain[index] = CWeakType::MakeReference(chain[index - 1]);
    CWeakType const& last = chain.back();
    EXPECT_EQ(last.GetType(), CWeakType::Reference);
    EXPECT_EQ(last.GetResolvedType(), CWeakType::String);
    EXPECT_EQ(last.AsInteger(), 12);
    EXPECT_EQ(last.AsFloat(), 12.0f);
    EXPECT_FALSE(last.AsBoolean());
    EXPECT_EQ(Bytes(last.AsString()), "12");
    last.Trace();
    end = CWeakType(5);
    EXPECT_EQ(last.AsInteger(), 5);
}

TEST(WeakType, ACopyOfAReferenceIsAReferenceToTheSameValue)
{
    CWeakType value(1);
    CWeakType const reference = CWeakType::MakeReference(value);
    CWeakType const copy(reference);
    value = CWeakType(2);
    EXPECT_EQ(copy.GetType(), CWeakType::Reference);
    EXPECT_EQ(copy.AsInteger(), 2);
}

TEST(WeakType, CyclesAreRefusedAndTheValueStays)
{
    CWeakType first(1);
    CWeakType second = CWeakType::MakeReference(first);
    CWeakType third = CWeakType::MakeReference(second);
    EXPECT_THROW(first = CWeakType::MakeReference(first), CException);
    EXPECT_THROW(first = CWeakType::MakeReference(second), CException);
    EXPECT_THROW(first = CWeakType::MakeReference(third), CException);
    EXPECT_THROW(first = third, CException);
    EXPECT_EQ(first.GetType(), CWeakType::Integer);
    EXPECT_EQ(third.AsInteger(), 1);
    EXPECT_NO_THROW(third = CWeakType::MakeReference(first));
}

// ---- strict mode ----

TEST(WeakType, StrictModeIsOffAtFirstAndAllowsNumbers)
{
    EXPECT_FALSE(CWeakType::IsInStrictMode());
    CWeakType::SetStrictMode(true);
    EXPECT_TRUE(CWeakType::IsInStrictMode());
    CWeakType text("t");
    CWeakType const reference = CWeakType::MakeReference(text);
    EXPECT_NO_THROW(static_cast<void>(CWeakType(1) < CWeakType(0.5f)));
    EXPECT_THROW(static_cast<void>(CWeakType(1) == CWeakType("1")), CPinnedTypeException);
    EXPECT_THROW(static_cast<void>(CWeakType(true) == CWeakType(1)), CPinnedTypeException);
    EXPECT_THROW(static_cast<void>(reference == text), CPinnedTypeException);
    EXPECT_NO_THROW(static_cast<void>(CWeakType() == CWeakType("x")));
    EXPECT_THROW(static_cast<void>(CWeakType("a") + CWeakType("b")), CPinnedTypeException);
    try {
        static_cast<void>(reference == CWeakType(1));
        ADD_FAILURE();
    }
    catch (CPinnedTypeException const& exception) {
        EXPECT_EQ(Bytes(exception.GetText()), "Type mismatch between Reference and Integer.");
        EXPECT_EQ(exception.GetKind(), 2);
    }
    CWeakType::SetStrictMode(false);
}

TEST(PinnedTypeException, OfOneTypeNamesItOnBothSides)
{
    char const* const names[] = {"Reference", "Boolean", "Integer", "Float", "String", "Invalid"};
    for (u32 code = 0; code < 6; ++code) {
        CPinnedTypeException const exception(static_cast<_VlmWeakTypeDataType>(code));
        EXPECT_EQ(Bytes(exception.GetText()), std::string("Type ") + names[code] + " invalid in context.");
        EXPECT_EQ(Bytes(exception.GetLeftTypeName()), names[code]);
        EXPECT_EQ(Bytes(exception.GetRightTypeName()), names[code]);
        EXPECT_EQ(exception.GetLeftTypeName().GetData(), CWeakType::TypeName[code]);
        EXPECT_EQ(exception.GetKind(), 2);
    }
}

TEST(PinnedTypeException, CloneIsOfTheSameClassWithBothCodes)
{
    CPinnedTypeException const original(VlmWeakTypeString, VlmWeakTypeFloat);
    CException* const clone = original.Clone();
    auto* const pinned = dynamic_cast<CPinnedTypeException*>(clone);
    ASSERT_NE(pinned, nullptr);
    EXPECT_EQ(Bytes(pinned->GetText()), "Type mismatch between String and Float.");
    EXPECT_EQ(pinned->GetKind(), 2);
    EXPECT_EQ(Bytes(pinned->GetLeftTypeName()), "String");
    EXPECT_EQ(Bytes(pinned->GetRightTypeName()), "Float");
    Memory::Delete(clone);
}

// ---- storages ----

template <class Storage>
class WeakTypeStorage : public testing::Test {};

using CStorages = testing::Types<CWeakTypeList, CWeakTypeMap>;
TYPED_TEST_SUITE(WeakTypeStorage, CStorages);

TYPED_TEST(WeakTypeStorage, VariablesAreAddedWhenAskedFor)
{
    TypeParam storage;
    IWeakTypeStorage& variables = storage;
    EXPECT_EQ(variables.TryGet(5u), nullptr);
    EXPECT_FALSE(variables.IsRegistered(5u));
    CManagedWeakType& variable = variables[5u];
    EXPECT_EQ(variable.GetType(), CWeakType::Invalid);
    EXPECT_TRUE(variable.IsManaged());
    EXPECT_EQ(variable.GetStorage(), &storage);
    EXPECT_EQ(&variables[5u], &variable);
    EXPECT_EQ(variables.TryGet(5u), &variable);
    EXPECT_TRUE(variables.IsRegistered(5u));
    EXPECT_EQ(variables.GetCount(), 1u);
    EXPECT_EQ(variables.GetVariableId(variable), 5u);
}

TYPED_TEST(WeakTypeStorage, ANameIsItsHash)
{
    TypeParam storage;
    IWeakTypeStorage& variables = storage;
    variables["speed"] = CWeakType(88);
    EXPECT_EQ(variables.TryGet(CString("speed").GetHash()), variables.TryGet("speed"));
    EXPECT_EQ(variables.TryGet("speed")->AsInteger(), 88);
    EXPECT_TRUE(variables.IsRegistered("speed"));
    EXPECT_EQ(variables.GetVariableId(variables["speed"]), CString("speed").GetHash());
    variables.Unregister("speed");
    EXPECT_FALSE(variables.IsRegistered("speed"));
    variables.Unregister("speed");
    EXPECT_EQ(variables.GetCount(), 0u);
}

TYPED_TEST(WeakTypeStorage, ANameInAnotherEncodingIsAnotherVariable)
{
    TypeParam storage;
    IWeakTypeStorage& variables = storage;
    variables["speed"] = 1;
    EXPECT_FALSE(variables.IsRegistered(u"speed"));
    EXPECT_FALSE(variables.IsRegistered(U"speed"));
    // Only as many bytes as there are code points, and one unit more, are in the hash.
    EXPECT_EQ(&variables["gr\u00F6\u00DFe1"], &variables["gr\u00F6\u00DFe2"]);
    variables[u"variable1"] = 2;
    EXPECT_EQ(&variables[u"variable2"], &variables[u"variable1"]);
    EXPECT_NE(&variables["variable2"], &variables["variable1"]);
    EXPECT_EQ(variables.GetCount(), 5u);
}

TYPED_TEST(WeakTypeStorage, RemovingFreesTextsAndMovesNobody)
{
    u64 const before = CountLiveBlocks();
    {
        TypeParam storage;
        IWeakTypeStorage& variables = storage;
        std::vector<CManagedWeakType*> places;
        for (u32 id = 0; id < 50; ++id) {
            variables[id] = CWeakType("text");
            places.push_back(variables.TryGet(id));
        }
        for (u32 id = 0; id < 50; id += 3)
            variables.Unregister(id);
        for (u32 id = 0; id < 50; ++id)
            EXPECT_EQ(variables.TryGet(id), id % 3 == 0 ? nullptr : places[id]);
        variables.Clear();
        EXPECT_EQ(variables.GetCount(), 0u);
        EXPECT_EQ(CountLiveBlocks(), before);
        variables[1u] = CWeakType("left to the destructor");
    }
    EXPECT_EQ(CountLiveBlocks(), before);
}

TYPED_TEST(WeakTypeStorage, RandomStepsAgreeWithAStandardMap)
{
    u64 const steps = u64{100000} * TestSupport::GetStressFactor();
    std::mt19937 random(6);
    TypeParam storage;
    IWeakTypeStorage& variables = storage;
    std::map<u32, int> expected;
    for (u64 step = 0; step < steps; ++step) {
        u32 const id = static_cast<u32>(random() % 90);
        switch (random() % 4) {
        case 0:
            variables[id] = CWeakType(static_cast<int>(step));
            expected[id] = static_cast<int>(step);
            break;
        case 1:
            variables.Unregister(id);
            expected.erase(id);
            break;
        case 2: {
            auto const found = expected.find(id);
            CManagedWeakType const* const variable = variables.TryGet(id);
            ASSERT_EQ(variable != nullptr, found != expected.end());
            if (variable != nullptr) {
                ASSERT_EQ(variable->AsInteger(), found->second);
                ASSERT_EQ(variables.GetVariableId(*variable), id);
            }
            break;
        }
        default:
            if (random() % 1000 == 0) {
                variables.Clear();
                expected.clear();
            }
        }
        ASSERT_EQ(variables.GetCount(), expected.size());
        if constexpr (std::is_same_v<TypeParam, CWeakTypeMap>) {
            if (step % StepsPerCheck == 0)
                storage.GetVariables().CheckConsistency();
        }
    }
}

TEST(WeakTypeMap, VariablesComeInOrderOfTheirIds)
{
    CWeakTypeMap map;
    for (unsigned int id : {30u, 10u, 20u})
        map[id] = CWeakType(static_cast<int>(id));
    std::vector<u32> ids;
    for (auto [id, variable] : map.GetVariables()) {
        ids.push_back(id);
        EXPECT_EQ(variable.AsInteger(), static_cast<int>(id));
    }
    EXPECT_EQ(ids, (std::vector<u32>{10, 20, 30}));
}

TEST(WeakTypeList, TheFirstNodeAnswersAndTheTailGoesFirst)
{
    CWeakTypeList list;
    list[1u] = CWeakType(1);
    list[2u] = CWeakType(2);
    list[3u] = CWeakType(3);
    list.Unregister(3u);
    list.Unregister(1u);
    EXPECT_EQ(list.TryGet(2u)->AsInteger(), 2);
    list[4u] = CWeakType(4);
    EXPECT_EQ(list.GetCount(), 2u);
    list.Clear();
    EXPECT_EQ(list.GetCount(), 0u);
    list[5u] = CWeakType(5);
    EXPECT_EQ(list.GetCount(), 1u);
}
