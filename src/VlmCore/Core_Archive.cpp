#include <vlmcore/archives.h>

namespace Velmor {

static_assert(sizeof(IArchive) == sizeof(void*), "archives have no members of their own");
static_assert(sizeof(CFolderArchive) == sizeof(IArchive) + 2 * sizeof(CMutableString));
static_assert(sizeof(CArchiveCollection) == sizeof(IArchive) + sizeof(TVector<IArchive*, 1>) + sizeof(CMutableString));

IArchive::~IArchive() = default;

IMutableArchive::~IMutableArchive() = default;

CArchiveCollection::CArchiveCollection() = default;

CArchiveCollection::CArchiveCollection(CString const& name) : m_name(name) {}

CArchiveCollection::~CArchiveCollection() = default;

IArchive* CArchiveCollection::FindArchive(CString const& path) const
{
    for (IArchive* const archive : archives)
        if (archive->Contains(path))
            return archive;
    return nullptr;
}

TResourcePtr<IFile> CArchiveCollection::OpenFile(CString const& path, EFileOpen::Type mode)
{
    IArchive* const archive = FindArchive(path);
    return archive != nullptr ? archive->OpenFile(path, mode) : TResourcePtr<IFile>();
}

void CArchiveCollection::List(CString const& path, TVector<CMutableString, 1>& files,
                              TVector<CMutableString, 1>& folders) const
{
    if (IArchive const* const archive = FindArchive(path))
        archive->List(path, files, folders);
}

bool CArchiveCollection::Contains(CString const& path) const
{
    return FindArchive(path) != nullptr;
}

} // namespace Velmor
