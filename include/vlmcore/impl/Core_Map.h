/// \file
/// TMap: the library's ordered map.
///
/// A red-black tree with parent links (Guibas and Sedgewick 1978; deletion as in Cormen et al., Introduction to
/// Algorithms). Use it where order matters or references must stay valid; for a lookup that is built once and only
/// read, a sorted TVector is smaller and faster.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/impl/Core_PackedPointer.h>
#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <iterator>
#include <type_traits>
#include <utility>

namespace Velmor {

namespace Impl {

/// Sentences of a tree that fails its consistency checks. Both spellings of the first occur: kept, hosts match on them.
inline constexpr char const* MapHierarchyIsBroken = "TMap hierarchy is broken.";
inline constexpr char const* MapHierachyIsBroken = "TMap hierachy is broken.";
inline constexpr char const* MapNodeHasNoParent = "Non-root TMap node has no parent.";
inline constexpr char const* MapHasInvalidProperties = "TMap element has invalid red/black properties.";

/// Throws CException with the location "include/vlmcore/impl/Core_Map.h(line): " and the sentence. The lines are fixed
/// names of the checks, not positions in this file.
[[noreturn]] VLM_API void ThrowMapError(int line, char const* sentence);

} // namespace Impl

/// Ordered map with unique keys. Nodes come from the pool heap of their alignment and never move: references to values
/// stay valid until their own element is erased.
///
/// Search, insertion and erasure take logarithmic, a full walk linear time. Errors: CBadAllocation when no node can be
/// had (the map is as it was); CException when the tree was damaged from outside. Threads: one at a time.
///
/// \tparam K  key; copied in, compared with `<`.
/// \tparam V  value.
template <class K, class V>
class TMap {
    struct SNode {
        TPackedPointer<SNode> parent;
        TPackedPointer<SNode> left;
        TPackedPointer<SNode> right;
        K key;
        u32 colour; // Red or Black
        V value;

        template <class... Arguments>
        SNode(SNode* parentNode, K const& nodeKey, Arguments&&... arguments)
            : parent(parentNode), key(nodeKey), colour(Red), value(std::forward<Arguments>(arguments)...)
        {
        }
    };

    static constexpr u32 Black = 0;
    static constexpr u32 Red = 1;

    // So many are more than the processor's own caches hold.
    static constexpr u64 ManyNodes = 50000;

    template <bool IsConst>
    class TIterator;

public:
    /// What an iterator shows: the key and the value of one element, in place.
    template <class Value>
    struct TEntry {
        K const& key; ///< never changes
        Value& value; ///< in place
    };
    /// Entry and iterator of a map, and of a map that is const.
    using SEntry = TEntry<V>;
    using SConstEntry = TEntry<V const>;
    using Iterator = TIterator<false>;
    using ConstIterator = TIterator<true>;

    /// Bytes of one element, links and colour included.
    static constexpr u64 NodeSize = sizeof(SNode);

    TMap() = default;
    TMap(TMap const&) = delete;
    TMap(TMap&& other) noexcept : m_root(std::exchange(other.m_root, nullptr)), m_count(std::exchange(other.m_count, 0))
    {
    }
    ~TMap() { DestroyAll(); }

    TMap& operator=(TMap const&) = delete;
    TMap& operator=(TMap&& other) noexcept
    {
        if (this != &other) {
            DestroyAll();
            m_root = std::exchange(other.m_root, nullptr);
            m_count = std::exchange(other.m_count, 0);
        }
        return *this;
    }

    /// Number of elements.
    [[nodiscard]] u64 GetCount() const { return m_count; }

    /// The value at `key`, null when there is none.
    [[nodiscard]] V* Find(K const& key) { return ValueOf(FindNode(key)); }
    [[nodiscard]] V const* Find(K const& key) const { return ValueOf(FindNode(key)); }

    /// Adds an element whose value is made from `arguments`, unless the key is there already.
    /// \return the element's value, and true when it is new.
    template <class... Arguments>
    TPair<V*, bool> Insert(K const& key, Arguments&&... arguments)
    {
        SNode* parent = nullptr;
        bool isLeft = false;
        for (SNode* node = m_root; node != nullptr;) {
            isLeft = key < node->key;
            if (IsAt(node, key, isLeft)) [[unlikely]]
                return {&node->value, false};
            parent = node;
            node = GetChildForChange(node, isLeft);
        }
        SNode* const node = Memory::New<SNode>(Heap, parent, key, std::forward<Arguments>(arguments)...);
        if (parent == nullptr)
            m_root = node;
        else
            *(isLeft ? &parent->left : &parent->right) = node;
        ++m_count;
        RebalanceAfterInsert(node);
        return {&node->value, true};
    }

    /// Removes the element at `key`; false when there is none. No other element moves.
    bool Erase(K const& key)
    {
        SNode* const node = Descend<&GetChildForChange>(key);
        if (node == nullptr)
            return false;
        EraseNode(node);
        return true;
    }

    /// Removes every element, in ascending order of the keys.
    void Clear()
    {
        while (m_root != nullptr)
            EraseNode(GetFirst(m_root));
    }

    /// Walks the elements in ascending order of the keys: `for (auto [key, value] : map)`. An iterator ends with its
    /// element.
    [[nodiscard]] Iterator begin() { return Iterator(m_root == nullptr ? nullptr : GetFirst(m_root)); }
    [[nodiscard]] Iterator end() { return Iterator(nullptr); }
    [[nodiscard]] ConstIterator begin() const { return ConstIterator(m_root == nullptr ? nullptr : GetFirst(m_root)); }
    [[nodiscard]] ConstIterator end() const { return ConstIterator(nullptr); }

    /// The key that belongs to a value of this map. `value` must live in this map.
    [[nodiscard]] K const& GetKey(V const& value) const
    {
        // Every node has the same shape, so the root tells how far a value lies behind its node.
        auto const* const root = reinterpret_cast<u8 const*>(m_root);
        auto const offset = reinterpret_cast<u8 const*>(&m_root->value) - root;
        return reinterpret_cast<SNode const*>(reinterpret_cast<u8 const*>(&value) - offset)->key;
    }

    /// Walks the whole tree and throws CException when links, order, colours or the count are not what they must be.
    /// Linear time; for tests and debug builds.
    void CheckConsistency() const
    {
        if (m_root == nullptr) {
            if (m_count != 0)
                Impl::ThrowMapError(140, Impl::MapHierarchyIsBroken);
            return;
        }
        if (m_root->parent != nullptr)
            Impl::ThrowMapError(182, Impl::MapHierachyIsBroken);
        if (m_root->colour != Black)
            Impl::ThrowMapError(859, Impl::MapHasInvalidProperties);
        u64 count = 0;
        K const* previous = nullptr;
        u64 blackHeight = 0;
        for (SNode* node = GetFirst(m_root); node != nullptr; node = GetNext(node)) {
            CheckNode(node, previous, blackHeight);
            previous = &node->key;
            if (++count > m_count)
                break;
        }
        if (count != m_count)
            Impl::ThrowMapError(140, Impl::MapHierarchyIsBroken);
    }

private:
    static constexpr EHeap::Type Heap = alignof(SNode) <= 4   ? EHeap::Pool4
                                        : alignof(SNode) <= 8 ? EHeap::Pool8
                                                              : EHeap::Pool16;
    static_assert(alignof(SNode) <= 16, "the memory manager aligns to at most 16 bytes");

    template <bool IsConst>
    class TIterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using iterator_concept = std::forward_iterator_tag;
        using difference_type = std::ptrdiff_t;
        using value_type = TEntry<std::conditional_t<IsConst, V const, V>>;
        using reference = value_type;
        using pointer = void;

        TIterator() = default;
        explicit TIterator(SNode* node) : m_node(node) {}

        reference operator*() const { return {m_node->key, m_node->value}; }
        TIterator& operator++()
        {
            m_node = GetNext(m_node);
            return *this;
        }
        TIterator operator++(int)
        {
            TIterator const before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(TIterator const&, TIterator const&) = default;

    private:
        SNode* m_node = nullptr;
    };

    static V* ValueOf(SNode* node) { return node == nullptr ? nullptr : &node->value; }

    [[nodiscard]] SNode* FindNode(K const& key) const
    {
        return m_count < ManyNodes ? Descend<&GetChild>(key) : Descend<&GetDistantChild>(key);
    }

    // True when the node has the key, which is not less than the node's when `isLeft` is false.
    static bool IsAt(SNode const* node, K const& key, bool isLeft)
    {
        if constexpr (std::is_integral_v<K>)
            return key == node->key; // tells nothing about the side, so that g++ finds nothing to branch on
        else
            return !isLeft && !(node->key < key);
    }

    /// \tparam TakeStep  `SNode*(SNode const* node, bool isLeft)`.
    template <auto TakeStep>
    [[nodiscard]] SNode* Descend(K const& key) const
    {
        SNode* node = m_root;
        while (node != nullptr) {
            bool const isLeft = key < node->key;
            if (IsAt(node, key, isLeft)) [[unlikely]]
                break;
            node = TakeStep(node, isLeft);
        }
        return node;
    }

    // Which child a search takes is as good as random: a branch on it would be guessed wrong at every other node. Both
    // pointers lie beside the key and come with it; hiding one (g++: all) from the optimiser leaves it a select as the
    // only way to choose.
    static SNode* GetChild(SNode const* node, bool isLeft)
    {
        SNode* left = node->left;
        SNode* right = node->right;
#if defined(__clang__)
        __asm__("" : "+r"(right));
        return __builtin_unpredictable(isLeft) ? left : right;
#elif defined(__GNUC__)
        __asm__("" : "+r"(isLeft), "+r"(left), "+r"(right));
        return isLeft ? left : right;
#else
        return isLeft ? left : right;
#endif
    }

    // The same in a tree that is larger than the caches: one pointer is read, from the place that the comparison gives.
    // A step takes longer, but touches no more memory than it needs, and at a million nodes finds a third faster.
    static SNode* GetDistantChild(SNode const* node, bool isLeft)
    {
        u64 isRight = isLeft ? 0 : 1;
#if defined(__GNUC__)
        __asm__("" : "+r"(isRight)); // else the optimiser reads both after all, or branches
#endif
        u64 const distance = isRight * sizeof(node->left); // right follows left
        auto const* const place = reinterpret_cast<u8 const*>(&node->left) + distance;
        return *reinterpret_cast<TPackedPointer<SNode> const*>(place);
    }

    // The same on the way to a change, which may have to look at the other child, too: it is asked for in time.
    static SNode* GetChildForChange(SNode const* node, bool isLeft)
    {
        Prefetch(GetChild(node, !isLeft));
        return GetChild(node, isLeft);
    }

    static void Prefetch([[maybe_unused]] SNode const* node)
    {
#if defined(__GNUC__)
        __builtin_prefetch(node);
#endif
    }

    // Asks for the right children on the way down: they come next in the order of the keys.
    static SNode* GetFirst(SNode* node)
    {
        for (;;) {
            Prefetch(node->right);
            if (node->left == nullptr)
                return node;
            node = node->left;
        }
    }

    static SNode* GetNext(SNode* node)
    {
        if (node->right != nullptr)
            return GetFirst(node->right);
        SNode* parent = node->parent;
        while (parent != nullptr && parent->right == node) {
            node = parent;
            parent = node->parent;
        }
        return parent;
    }

    static bool IsRed(SNode const* node) { return node != nullptr && node->colour == Red; }

    // Puts `replacement` (null allowed) where `node` hangs.
    void ReplaceChild(SNode* parent, SNode* node, SNode* replacement, int line)
    {
        if (parent == nullptr)
            m_root = replacement;
        else {
            // The side is as good as random, too: the place is selected, not branched to.
            TPackedPointer<SNode>& place = parent->left == node ? parent->left : parent->right;
            if (place != node) [[unlikely]]
                Impl::ThrowMapError(line, Impl::MapHierachyIsBroken);
            place = replacement;
        }
        if (replacement != nullptr)
            replacement->parent = parent;
    }

    // The child on the other side of the rotation's direction takes the node's place.
    template <bool ToLeft>
    void Rotate(SNode* node)
    {
        SNode* const child = ToLeft ? node->right : node->left;
        if (child == nullptr)
            Impl::ThrowMapError(535, Impl::MapHierarchyIsBroken);
        SNode* const inner = ToLeft ? child->left : child->right;
        ReplaceChild(node->parent, node, child, 622);
        (ToLeft ? node->right : node->left) = inner;
        if (inner != nullptr)
            inner->parent = node;
        (ToLeft ? child->left : child->right) = node;
        node->parent = child;
    }

    void RebalanceAfterInsert(SNode* node)
    {
        while (IsRed(node->parent)) {
            SNode* const parent = node->parent;
            SNode* const grandparent = parent->parent;
            if (grandparent == nullptr)
                Impl::ThrowMapError(721, Impl::MapNodeHasNoParent); // a red node is never the root
            node = parent == grandparent->left ? MendRedPair<true>(node, parent, grandparent)
                                               : MendRedPair<false>(node, parent, grandparent);
        }
        m_root->colour = Black;
    }

    // One step against a red node below a red parent. Gives the node from which to go on.
    template <bool ParentIsLeft>
    SNode* MendRedPair(SNode* node, SNode* parent, SNode* grandparent)
    {
        SNode* const uncle = ParentIsLeft ? grandparent->right : grandparent->left;
        if (!ParentIsLeft && parent != grandparent->right)
            Impl::ThrowMapError(740, Impl::MapHierarchyIsBroken);
        if (IsRed(uncle)) {
            parent->colour = Black;
            uncle->colour = Black;
            grandparent->colour = Red;
            return grandparent;
        }
        bool const isInner = node == (ParentIsLeft ? parent->right : parent->left);
        if (isInner) {
            Rotate<ParentIsLeft>(parent);
            std::swap(node, parent);
        }
        parent->colour = Black;
        grandparent->colour = Red;
        Rotate<!ParentIsLeft>(grandparent);
        return node;
    }

    // Unlinks by moving links, never values: references to other elements stay valid.
    void EraseNode(SNode* node)
    {
        SNode* child;
        SNode* childParent;
        u32 removedColour = node->colour;
        if (node->left == nullptr || node->right == nullptr) {
            child = node->left == nullptr ? node->right : node->left;
            childParent = node->parent;
            ReplaceChild(childParent, node, child, 826);
        }
        else {
            SNode* const successor = GetFirst(node->right);
            removedColour = successor->colour;
            child = successor->right;
            childParent = successor;
            if (successor->parent != node) {
                childParent = successor->parent;
                ReplaceChild(childParent, successor, child, 835);
                successor->right = node->right;
                successor->right->parent = successor;
            }
            ReplaceChild(node->parent, node, successor, 826);
            successor->left = node->left;
            successor->left->parent = successor;
            successor->colour = node->colour;
        }
        --m_count;
        Memory::Delete(node); // first: the checks below may throw
        if (removedColour == Black)
            RebalanceAfterErase(child, childParent);
    }

    void RebalanceAfterErase(SNode* node, SNode* parent)
    {
        while (node != m_root && !IsRed(node)) {
            if (parent == nullptr)
                Impl::ThrowMapError(835, Impl::MapNodeHasNoParent);
            bool const isDone = node == parent->left ? MendMissingBlack<true>(parent) : MendMissingBlack<false>(parent);
            if (isDone)
                return;
            node = parent;
            parent = node->parent;
        }
        if (node != nullptr)
            node->colour = Black;
    }

    // The side named below `parent` lacks a black node. True when the whole tree is right again, false when now the
    // parent's own subtree lacks one.
    template <bool LeftLacks>
    bool MendMissingBlack(SNode* parent)
    {
        SNode* sibling = LeftLacks ? parent->right : parent->left;
        if (sibling == nullptr)
            Impl::ThrowMapError(868, Impl::MapHasInvalidProperties);
        if (IsRed(sibling)) {
            sibling->colour = Black;
            parent->colour = Red;
            Rotate<LeftLacks>(parent);
            sibling = LeftLacks ? parent->right : parent->left;
            if (sibling == nullptr)
                Impl::ThrowMapError(859, Impl::MapHasInvalidProperties);
        }
        SNode* inner = LeftLacks ? sibling->left : sibling->right;
        SNode* outer = LeftLacks ? sibling->right : sibling->left;
        if (!IsRed(inner) && !IsRed(outer)) {
            sibling->colour = Red;
            return false;
        }
        if (!IsRed(outer)) {
            inner->colour = Black;
            sibling->colour = Red;
            Rotate<!LeftLacks>(sibling);
            sibling = inner;
            outer = LeftLacks ? sibling->right : sibling->left;
        }
        sibling->colour = parent->colour;
        parent->colour = Black;
        outer->colour = Black;
        Rotate<LeftLacks>(parent);
        return true;
    }

    // Links and order around one node; at a node with a missing child also the number of black nodes above it.
    void CheckNode(SNode* node, K const* previous, u64& blackHeight) const
    {
        if (node != m_root && node->parent == nullptr)
            Impl::ThrowMapError(721, Impl::MapNodeHasNoParent);
        for (SNode* const child : {node->left.Get(), node->right.Get()}) {
            if (child == nullptr)
                continue;
            if (child->parent != node)
                Impl::ThrowMapError(182, Impl::MapHierachyIsBroken);
            if (IsRed(node) && IsRed(child))
                Impl::ThrowMapError(868, Impl::MapHasInvalidProperties);
        }
        if (previous != nullptr && !(*previous < node->key))
            Impl::ThrowMapError(140, Impl::MapHierarchyIsBroken);
        if (node->left != nullptr && node->right != nullptr)
            return;
        u64 height = 0;
        for (SNode const* above = node; above != nullptr; above = above->parent)
            height += above->colour == Black ? 1 : 0;
        if (blackHeight != 0 && height != blackHeight)
            Impl::ThrowMapError(859, Impl::MapHasInvalidProperties);
        blackHeight = height;
    }

    // Bottom up and without rebalancing: nothing here can throw.
    void DestroyAll() noexcept
    {
        SNode* node = std::exchange(m_root, nullptr);
        m_count = 0;
        if (node != nullptr && !Memory::IsInitialized()) [[unlikely]]
            return; // without a heap the nodes, which a pool held, are gone already
        while (node != nullptr) {
            if (node->left != nullptr)
                node = std::exchange(node->left, nullptr);
            else if (node->right != nullptr)
                node = std::exchange(node->right, nullptr);
            else {
                SNode* const parent = node->parent;
                Memory::Delete(node);
                node = parent;
            }
        }
    }

    SNode* m_root = nullptr;
    u64 m_count = 0;
};

} // namespace Velmor
