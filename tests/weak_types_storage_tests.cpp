// What hosts see of the storages besides their operations: the order of these, the layout of the nodes, the order in
// which memory goes back, and what a damaged tree is answered with.
#include "TestHeap.h"
#include "support/VirtualSlots.h"

#include <vlmcore/logging.h>
#include <vlmcore/weak_types.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace Velmor;
using TestSupport::SlotOf;

namespace {

template <class T>
T ReadAt(void const* object, u64 offset)
{
    T value;
    std::memcpy(&value, static_cast<u8 const*>(object) + offset, sizeof value);
    return value;
}

template <class T>
void WriteAt(void* object, u64 offset, T value)
{
    std::memcpy(static_cast<u8*>(object) + offset, &value, sizeof value);
}

// Remembers what goes back to the memory manager for the length of a scope.
class CFreedBlocks : public IMemoryLogger {
public:
    CFreedBlocks() { Memory::InitializeLog(this); }
    CFreedBlocks(CFreedBlocks const&) = delete;
    CFreedBlocks& operator=(CFreedBlocks const&) = delete;
    ~CFreedBlocks() override { Stop(); }

    void OnAllocate(void const*, u64) override {}
    void OnFree(void const* address) override
    {
        if (m_count < std::size(m_addresses))
            m_addresses[m_count++] = address;
    }
    void OnRetain(void const*) override {}
    void OnRelease(void const*) override {}

    std::vector<void const*> Stop()
    {
        if (m_isInstalled)
            static_cast<void>(Memory::ReleaseLog());
        m_isInstalled = false;
        return std::vector<void const*>(m_addresses, m_addresses + m_count);
    }

private:
    bool m_isInstalled = true;
    u64 m_count = 0;
    void const* m_addresses[64] = {};
};

std::vector<void const*> ClearAndRecord(IWeakTypeStorage& storage)
{
    CFreedBlocks freed;
    storage.Clear();
    return freed.Stop();
}

// A map's node, by the layout that hosts know.
struct SMapNode {
    static constexpr u64 Parent = 0;
    static constexpr u64 Left = 8;
    static constexpr u64 Right = 16;
    static constexpr u64 Key = 24;
    static constexpr u64 Colour = 28;
    static constexpr u64 Value = 32;
};
constexpr u32 Black = 0;
constexpr u32 Red = 1;

void* RootOf(CWeakTypeMap const& map)
{
    return ReadAt<void*>(&map, 8);
}

// The node that holds a variable.
void* NodeOf(CWeakTypeMap const& map, unsigned int id)
{
    return reinterpret_cast<u8*>(map.TryGet(id)) - SMapNode::Value;
}

template <class Action>
std::string ErrorOf(Action action)
{
    try {
        action();
    }
    catch (CException const& error) {
        EXPECT_EQ(error.GetKind(), 0);
        return static_cast<char const*>(error.GetText().GetData());
    }
    return "";
}

} // namespace

// ---- the interface ----

TEST(WeakTypeStorageInterface, OperationsAreInOrder)
{
    using S = IWeakTypeStorage;
    EXPECT_EQ(SlotOf(&S::GetVariableId), 2u);
    EXPECT_EQ(SlotOf(static_cast<bool (S::*)(unsigned int) const>(&S::IsRegistered)), 3u);
    EXPECT_EQ(SlotOf(static_cast<bool (S::*)(CString const&) const>(&S::IsRegistered)), 4u);
    EXPECT_EQ(SlotOf(static_cast<void (S::*)(unsigned int)>(&S::Unregister)), 5u);
    EXPECT_EQ(SlotOf(static_cast<void (S::*)(CString const&)>(&S::Unregister)), 6u);
    EXPECT_EQ(SlotOf(&S::Clear), 7u);
    EXPECT_EQ(SlotOf(static_cast<CManagedWeakType& (S::*)(unsigned int)>(&S::operator[])), 8u);
    EXPECT_EQ(SlotOf(static_cast<CManagedWeakType& (S::*)(CString const&)>(&S::operator[])), 9u);
    EXPECT_EQ(SlotOf(static_cast<CManagedWeakType* (S::*)(unsigned int) const>(&S::TryGet)), 10u);
    EXPECT_EQ(SlotOf(static_cast<CManagedWeakType* (S::*)(CString const&) const>(&S::TryGet)), 11u);
    EXPECT_EQ(SlotOf(&S::GetCount), 12u);
    EXPECT_EQ(SlotOf(&CWeakTypeMap::GetCount), 12u);
    EXPECT_EQ(SlotOf(&CWeakTypeList::GetCount), 12u);
}

// A storage of the host's own gets the operations by name from the class between, which calls those by id.
TEST(WeakTypeStorageInterface, NamesGoThroughTheOperationsById)
{
    class CHostStorage : public CWeakTypeStorageByName {
    public:
        using CWeakTypeStorageByName::IsRegistered;
        using CWeakTypeStorageByName::operator[];
        using CWeakTypeStorageByName::TryGet;
        using CWeakTypeStorageByName::Unregister;
        unsigned int GetVariableId(CManagedWeakType const&) const override { return 0; }
        bool IsRegistered(unsigned int id) const override { return Record('r', id), true; }
        void Unregister(unsigned int id) override { Record('u', id); }
        void Clear() override {}
        CManagedWeakType& operator[](unsigned int id) override { return Record('[', id), m_variable; }
        CManagedWeakType* TryGet(unsigned int id) const override { return Record('t', id), nullptr; }
        u64 GetCount() const override { return 0; }
        mutable std::string calls;

    private:
        void Record(char operation, unsigned int id) const { calls += operation + std::to_string(id) + ' '; }
        CManagedWeakType m_variable{this};
    };
    CHostStorage storage;
    IWeakTypeStorage& variables = storage;
    std::string const hash = std::to_string(CString("speed").GetHash());
    EXPECT_TRUE(variables.IsRegistered("speed"));
    static_cast<void>(variables["speed"]);
    EXPECT_EQ(variables.TryGet("speed"), nullptr);
    variables.Unregister("speed");
    EXPECT_EQ(storage.calls, "r" + hash + " [" + hash + " t" + hash + " u" + hash + " ");
}

// ---- layout ----

TEST(WeakTypeStorageLayout, ListAndItsNodes)
{
    CWeakTypeList list;
    EXPECT_EQ(sizeof list, 32u);
    EXPECT_EQ(ReadAt<void*>(&list, 8), nullptr);
    EXPECT_EQ(ReadAt<void*>(&list, 16), nullptr);
    list[7u] = CWeakType(-2);
    CManagedWeakType const& second = list[9u];
    list[8u] = CWeakType("text");
    void* const head = ReadAt<void*>(&list, 8);
    void* const tail = ReadAt<void*>(&list, 16);
    EXPECT_EQ(ReadAt<u64>(&list, 24), 3u);
    EXPECT_EQ(Memory::GetSize(head), 48u);
    EXPECT_EQ(Memory::GetHeap(head), EHeap::Pool4);
    void* const middle = ReadAt<void*>(head, 0);
    EXPECT_EQ(ReadAt<void*>(head, 8), nullptr);
    EXPECT_EQ(ReadAt<void*>(middle, 0), tail);
    EXPECT_EQ(ReadAt<void*>(middle, 8), head);
    EXPECT_EQ(ReadAt<void*>(tail, 0), nullptr);
    EXPECT_EQ(ReadAt<void*>(tail, 8), middle);
    // The variable follows the links, the id follows the variable.
    EXPECT_EQ(static_cast<u8 const*>(middle) + 16, reinterpret_cast<u8 const*>(&second));
    EXPECT_EQ(ReadAt<i32>(head, 16), -2);
    EXPECT_EQ(ReadAt<u8>(head, 24), CWeakType::Integer);
    EXPECT_EQ(ReadAt<u64>(middle, 16), 0u);
    EXPECT_EQ(ReadAt<u8>(middle, 24), CWeakType::Invalid);
    EXPECT_STREQ(ReadAt<char const*>(tail, 16), "text");
    EXPECT_EQ(ReadAt<u8>(tail, 24), CWeakType::String);
    EXPECT_EQ(ReadAt<u32>(head, 40), 7u);
    EXPECT_EQ(ReadAt<u32>(middle, 40), 9u);
    EXPECT_EQ(ReadAt<u32>(tail, 40), 8u);
}

TEST(WeakTypeStorageLayout, OneTwoThreeIsATreeWithABlackTwoOnTop)
{
    CWeakTypeMap map;
    EXPECT_EQ(sizeof map, 24u);
    EXPECT_EQ(RootOf(map), nullptr);
    for (unsigned int id : {1u, 2u, 3u})
        static_cast<void>(map[id]);
    void* const root = RootOf(map);
    EXPECT_EQ(ReadAt<u64>(&map, 16), 3u);
    EXPECT_EQ(Memory::GetSize(root), 56u);
    EXPECT_EQ(Memory::GetHeap(root), EHeap::Pool4);
    EXPECT_EQ(ReadAt<u32>(root, SMapNode::Key), 2u);
    EXPECT_EQ(ReadAt<u32>(root, SMapNode::Colour), Black);
    EXPECT_EQ(ReadAt<void*>(root, SMapNode::Parent), nullptr);
    void* const left = ReadAt<void*>(root, SMapNode::Left);
    void* const right = ReadAt<void*>(root, SMapNode::Right);
    EXPECT_EQ(ReadAt<u32>(left, SMapNode::Key), 1u);
    EXPECT_EQ(ReadAt<u32>(left, SMapNode::Colour), Red);
    EXPECT_EQ(ReadAt<u32>(right, SMapNode::Key), 3u);
    EXPECT_EQ(ReadAt<u32>(right, SMapNode::Colour), Red);
    for (void* const child : {left, right}) {
        EXPECT_EQ(ReadAt<void*>(child, SMapNode::Parent), root);
        EXPECT_EQ(ReadAt<void*>(child, SMapNode::Left), nullptr);
        EXPECT_EQ(ReadAt<void*>(child, SMapNode::Right), nullptr);
        EXPECT_EQ(ReadAt<u64>(child, SMapNode::Value), 0u);
        EXPECT_EQ(ReadAt<u8>(child, SMapNode::Value + 8), CWeakType::Invalid);
    }
    EXPECT_EQ(NodeOf(map, 3), right);
    // A red uncle: the colours go up, the root stays black.
    static_cast<void>(map[4u]);
    EXPECT_EQ(RootOf(map), root);
    EXPECT_EQ(ReadAt<u32>(root, SMapNode::Colour), Black);
    EXPECT_EQ(ReadAt<u32>(left, SMapNode::Colour), Black);
    EXPECT_EQ(ReadAt<u32>(right, SMapNode::Colour), Black);
    EXPECT_EQ(ReadAt<u32>(NodeOf(map, 4), SMapNode::Colour), Red);
    EXPECT_EQ(ReadAt<void*>(right, SMapNode::Right), NodeOf(map, 4));
}

// Both inner shapes: 3 1 2 and 1 3 2 become what 1 2 3 is.
TEST(WeakTypeStorageLayout, InnerChildrenAreRotatedToTheTop)
{
    for (auto const& order : {std::vector<unsigned int>{3, 1, 2}, {1, 3, 2}, {3, 2, 1}}) {
        CWeakTypeMap map;
        for (unsigned int id : order)
            static_cast<void>(map[id]);
        void* const root = RootOf(map);
        EXPECT_EQ(ReadAt<u32>(root, SMapNode::Key), 2u);
        EXPECT_EQ(ReadAt<u32>(root, SMapNode::Colour), Black);
        EXPECT_EQ(ReadAt<u32>(NodeOf(map, 1), SMapNode::Colour), Red);
        EXPECT_EQ(ReadAt<u32>(NodeOf(map, 3), SMapNode::Colour), Red);
        EXPECT_EQ(ReadAt<void*>(root, SMapNode::Left), NodeOf(map, 1));
        EXPECT_EQ(ReadAt<void*>(root, SMapNode::Right), NodeOf(map, 3));
    }
}

// ---- what goes back, and when ----

TEST(WeakTypeStorageOrder, AListIsClearedFromItsTail)
{
    CWeakTypeList list;
    for (unsigned int id : {20u, 30u, 10u})
        static_cast<void>(list[id]);
    list[30u] = CWeakType("text");
    u8 const* nodes[3] = {};
    for (unsigned int index = 0; index < 3; ++index)
        nodes[index] = reinterpret_cast<u8 const*>(list.TryGet((index == 0) ? 20u : index == 1 ? 30u : 10u)) - 16;
    void const* const text = ReadAt<void const*>(nodes[1], 16);
    EXPECT_EQ(ClearAndRecord(list), (std::vector<void const*>{nodes[2], text, nodes[1], nodes[0]}));
    EXPECT_EQ(list.GetCount(), 0u);
}

TEST(WeakTypeStorageOrder, AMapIsClearedInAscendingOrder)
{
    CWeakTypeMap map;
    std::vector<void const*> expected;
    for (unsigned int id : {5u, 1u, 9u, 3u, 7u, 2u})
        static_cast<void>(map[id]);
    map[3u] = CWeakType("text");
    for (unsigned int id : {1u, 2u, 3u, 5u, 7u, 9u}) {
        if (id == 3)
            expected.push_back(ReadAt<void const*>(NodeOf(map, id), SMapNode::Value));
        expected.push_back(NodeOf(map, id));
    }
    EXPECT_EQ(ClearAndRecord(map), expected);
    EXPECT_EQ(map.GetCount(), 0u);
    EXPECT_EQ(RootOf(map), nullptr);
}

TEST(WeakTypeStorageOrder, UnregisteringFreesTheTextAndTheNodeAlone)
{
    CWeakTypeMap map;
    CWeakTypeList list;
    for (IWeakTypeStorage* const storage :
         {static_cast<IWeakTypeStorage*>(&map), static_cast<IWeakTypeStorage*>(&list)}) {
        for (unsigned int id : {1u, 2u, 3u})
            (*storage)[id] = CWeakType("text");
        auto const* const variable = reinterpret_cast<u8 const*>(storage->TryGet(2));
        void const* const text = ReadAt<void const*>(variable, 0);
        CFreedBlocks freed;
        storage->Unregister(2u);
        storage->Unregister(2u);
        std::vector<void const*> const addresses = freed.Stop();
        ASSERT_EQ(addresses.size(), 2u);
        EXPECT_EQ(addresses[0], text);
        EXPECT_EQ(addresses[1], variable - (storage == &map ? 32 : 16));
        EXPECT_EQ(storage->GetCount(), 2u);
    }
}

// ---- damaged trees ----

TEST(WeakTypeStorageDamage, ARedRootHasNoParentToMend)
{
    CWeakTypeMap map;
    static_cast<void>(map[1u]);
    WriteAt(RootOf(map), SMapNode::Colour, Red);
    EXPECT_EQ(ErrorOf([&] { static_cast<void>(map[2u]); }),
              "include/vlmcore/impl/Core_Map.h(721): Non-root TMap node has no parent.");
}

TEST(WeakTypeStorageDamage, AParentThatDoesNotKnowItsChildIsToldOf)
{
    CWeakTypeMap map;
    for (unsigned int id : {1u, 2u, 3u, 4u})
        static_cast<void>(map[id]);
    void* const node = NodeOf(map, 3);
    void* const parent = ReadAt<void*>(node, SMapNode::Parent);
    WriteAt(node, SMapNode::Parent, NodeOf(map, 1));
    EXPECT_EQ(ErrorOf([&] { map.Unregister(3u); }), "include/vlmcore/impl/Core_Map.h(826): TMap hierachy is broken.");
    EXPECT_EQ(map.GetCount(), 4u);
    WriteAt(node, SMapNode::Parent, parent);
    map.GetVariables().CheckConsistency();
}

// Each check at its own place: what a change meets in a tree of which one link or colour was overwritten.
TEST(WeakTypeStorageDamage, EveryCheckTellsItsPlace)
{
    struct SDamage {
        unsigned int count; // variables 1 to count; of seven, 2 is the root, 4 its right child, 6 the right one of that
        unsigned int damaged; // whose parent is overwritten
        unsigned int parent;  // by this one; 0: by none
        unsigned int changed; // the variable that is added, or removed when it is there
        char const* error;
    };
    for (SDamage const& damage : {
             SDamage{2, 1, 2, 3, "(622): TMap hierachy is broken."},
             SDamage{3, 3, 1, 4, "(740): TMap hierarchy is broken."},
             SDamage{7, 6, 2, 6, "(826): TMap hierachy is broken."},
             SDamage{7, 5, 3, 4, "(835): TMap hierachy is broken."},
             SDamage{7, 6, 0, 5, "(835): Non-root TMap node has no parent."},
         }) {
        CWeakTypeMap map;
        for (unsigned int id = 1; id <= damage.count; ++id)
            static_cast<void>(map[id]);
        for (unsigned int id = 5; id <= damage.count; ++id)
            WriteAt(NodeOf(map, id), SMapNode::Colour, Black);
        void* const node = NodeOf(map, damage.damaged);
        void* const parent = ReadAt<void*>(node, SMapNode::Parent);
        WriteAt(node, SMapNode::Parent, damage.parent != 0 ? NodeOf(map, damage.parent) : nullptr);
        std::string const error = ErrorOf([&] {
            if (damage.changed <= damage.count)
                map.Unregister(damage.changed);
            else
                static_cast<void>(map[damage.changed]);
        });
        EXPECT_EQ(error, std::string("include/vlmcore/impl/Core_Map.h") + damage.error);
        WriteAt(node, SMapNode::Parent, parent); // so that the map can end
    }

    CWeakTypeMap map;
    static_cast<void>(map[1u]);
    static_cast<void>(map[2u]);
    WriteAt(NodeOf(map, 2), SMapNode::Colour, Black); // more black on this side than on the other
    EXPECT_EQ(ErrorOf([&] { map.Unregister(2u); }),
              "include/vlmcore/impl/Core_Map.h(868): TMap element has invalid red/black properties.");
}

// Every colouring of seven nodes, and every id removed from it: an end or an error of the tree, and no memory lost.
TEST(WeakTypeStorageDamage, WrongColoursEndInAnErrorOrNot)
{
    Memory::SStatistics before{};
    Memory::GetStatistics(before);
    unsigned int refused = 0;
    for (u32 colours = 0; colours < 128; ++colours) {
        for (unsigned int removed = 1; removed <= 7; ++removed) {
            CWeakTypeMap map;
            for (unsigned int id = 1; id <= 7; ++id)
                static_cast<void>(map[id]);
            for (unsigned int id = 1; id <= 7; ++id)
                WriteAt(NodeOf(map, id), SMapNode::Colour, colours >> (id - 1) & 1);
            std::string const error = ErrorOf([&] { map.Unregister(removed); });
            if (error.empty())
                continue;
            ++refused;
            EXPECT_TRUE(error ==
                            "include/vlmcore/impl/Core_Map.h(868): TMap element has invalid red/black properties." ||
                        error == "include/vlmcore/impl/Core_Map.h(859): TMap element has invalid red/black properties.")
                << error;
            EXPECT_EQ(map.GetCount(), 6u);
            EXPECT_EQ(map.TryGet(removed), nullptr);
        }
    }
    EXPECT_GT(refused, 0u);
    Memory::SStatistics after{};
    Memory::GetStatistics(after);
    for (int pool = 0; pool < 4; ++pool)
        EXPECT_EQ(after.pools[pool].liveCount, before.pools[pool].liveCount);
}
