#include <vlmcore/weak_types.h>

namespace Velmor {

IWeakTypeStorage::~IWeakTypeStorage() = default;

// ---- CWeakTypeStorageByName ----

CWeakTypeStorageByName::~CWeakTypeStorageByName() = default;

bool CWeakTypeStorageByName::IsRegistered(CString const& name) const
{
    return IsRegistered(name.GetHash());
}

void CWeakTypeStorageByName::Unregister(CString const& name)
{
    Unregister(name.GetHash());
}

CManagedWeakType& CWeakTypeStorageByName::operator[](CString const& name)
{
    return (*this)[name.GetHash()];
}

CManagedWeakType* CWeakTypeStorageByName::TryGet(CString const& name) const
{
    return TryGet(name.GetHash());
}

// ---- CWeakTypeList ----

struct CWeakTypeList::SNode {
    TPackedPointer<SNode> next;
    TPackedPointer<SNode> previous;
    CManagedWeakType value;
    u32 id;
    u32 reserved = 0; // a node is 48 bytes

    SNode(IWeakTypeStorage* storage, u32 variableId) : value(storage), id(variableId) {}
};

CWeakTypeList::~CWeakTypeList()
{
    if (!Memory::IsInitialized())
        return; // without a heap the nodes, which a pool held, are gone already
    while (m_tail != nullptr)
        Remove(m_tail);
}

unsigned int CWeakTypeList::GetVariableId(CManagedWeakType const& variable) const
{
    for (SNode const* node = m_head; node != nullptr; node = node->next) {
        if (&node->value == &variable)
            return node->id;
    }
    return 0;
}

CWeakTypeList::SNode* CWeakTypeList::FindNode(unsigned int id) const
{
    static_assert(sizeof(SNode) == 48 && alignof(SNode) == 4);
    SNode* node = m_head;
    while (node != nullptr && node->id != id)
        node = node->next;
    return node;
}

bool CWeakTypeList::IsRegistered(unsigned int id) const
{
    return FindNode(id) != nullptr;
}

void CWeakTypeList::Unregister(unsigned int id)
{
    if (SNode* const node = FindNode(id); node != nullptr)
        Remove(node);
}

void CWeakTypeList::Clear()
{
    while (m_count != 0)
        Remove(m_tail);
}

void CWeakTypeList::Remove(SNode* node) noexcept
{
    if (node->previous != nullptr)
        node->previous->next = node->next;
    else
        m_head = node->next;
    if (node->next != nullptr)
        node->next->previous = node->previous;
    else
        m_tail = node->previous;
    --m_count;
    Memory::Delete(node);
}

CManagedWeakType& CWeakTypeList::operator[](unsigned int id)
{
    if (SNode* const node = FindNode(id); node != nullptr)
        return node->value;
    SNode* const node = Memory::New<SNode>(EHeap::Pool4, this, id);
    node->previous = m_tail;
    if (m_tail != nullptr)
        m_tail->next = node;
    else
        m_head = node;
    m_tail = node;
    ++m_count;
    return node->value;
}

CManagedWeakType* CWeakTypeList::TryGet(unsigned int id) const
{
    SNode* const node = FindNode(id);
    return node == nullptr ? nullptr : &node->value;
}

u64 CWeakTypeList::GetCount() const
{
    return m_count;
}

// ---- CWeakTypeMap ----

static_assert(TMap<u32, CManagedWeakType>::NodeSize == 56);
static_assert(sizeof(CWeakTypeMap) == 24 && sizeof(CWeakTypeList) == 32);

CWeakTypeMap::~CWeakTypeMap() = default;

unsigned int CWeakTypeMap::GetVariableId(CManagedWeakType const& variable) const
{
    return m_variables.GetKey(variable);
}

bool CWeakTypeMap::IsRegistered(unsigned int id) const
{
    return m_variables.Find(id) != nullptr;
}

void CWeakTypeMap::Unregister(unsigned int id)
{
    m_variables.Erase(id);
}

void CWeakTypeMap::Clear()
{
    m_variables.Clear();
}

CManagedWeakType& CWeakTypeMap::operator[](unsigned int id)
{
    return *m_variables.Insert(id, this).first;
}

CManagedWeakType* CWeakTypeMap::TryGet(unsigned int id) const
{
    // The map is const, its variables are the host's to change.
    return const_cast<CManagedWeakType*>(m_variables.Find(id));
}

u64 CWeakTypeMap::GetCount() const
{
    return m_variables.GetCount();
}

} // namespace Velmor
