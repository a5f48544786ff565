#include "Core_ArchiveText.h"
#include "Core_FileError.h"
#include "Core_Path.h"

#include "platform/Platform_Folder.h"
#include "platform/Platform_Resource.h"

#include <vlmcore/archives.h>
#include <vlmcore/format.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>

namespace Velmor {

using Path::PathUnits;

static_assert(sizeof(CResourceArchive) == sizeof(IArchive));
static_assert(sizeof(CResourceFile) == 16 + 24 + sizeof(CMutableString));

namespace {

// ---- resource paths ----

struct SKindName {
    char16_t const* name;
    u16 number;
};

constexpr SKindName KindNames[] = {
    {u"CURSOR", 1},  {u"BITMAP", 2},     {u"ICON", 3},     {u"STRING", 6}, {u"FONT", 8},
    {u"RCDATA", 10}, {u"ANICURSOR", 21}, {u"ANIICON", 22}, {u"HTML", 23},
};

char16_t const* FindKindName(u16 number)
{
    for (SKindName const& entry : KindNames)
        if (entry.number == number)
            return entry.name;
    return nullptr;
}

struct SResourceName {
    SResourceKind kind;
    u16 id = 0;
};

bool IsResourcePath(CString const& path)
{
    return path.GetCodePointAt(0) == u':';
}

// What lies between the colon and the first slash, and behind it. Without a slash there is no id text.
SResourceName ParseResourcePath(CString const& path)
{
    Path::CWideText const wide(path);
    char16_t const* const type = wide.Get() + 1;
    char16_t const* slash = type;
    while (*slash != u'/' && *slash != 0)
        ++slash;
    PathUnits typeUnits;
    for (char16_t const* unit = type; unit != slash; ++unit)
        typeUnits.Append(*unit);
    typeUnits.Append(u'\0');

    SResourceName parsed;
    if (*slash != 0)
        parsed.id = static_cast<u16>(CString(slash + 1).ToUnsignedInteger(EBinaryEncoding::BigEndian));
    CString const typeText = Path::ViewOf(typeUnits);
    parsed.kind.number = static_cast<u16>(typeText.ToUnsignedInteger(EBinaryEncoding::BigEndian));
    if (parsed.kind.number != 0)
        return parsed;
    for (SKindName const& entry : KindNames)
        if (typeText == entry.name) {
            parsed.kind.number = entry.number;
            return parsed;
        }
    parsed.kind.name = CMutableString(typeText);
    return parsed;
}

Platform::ResourceMark Locate(SResourceKind const& kind, u16 id)
{
    return Platform::LocateResource({kind.number, static_cast<char16_t const*>(kind.name.GetData())}, id);
}

// ---- the executable's folder ----

PathUnits GetExecutableFolder()
{
    PathUnits path;
    RaiseFileError(Platform::GetExecutablePath(path));
    u64 count = path.GetCount();
    while (count > 0 && path[count - 1] != u'\\')
        --count;
    path.Resize(count > 0 ? count - 1 : 0);
    path.Append(u'\0');
    return path;
}

// ---- listing ----

// The list of resources under way; what an append throws waits here until the system's frames are left.
struct SResourceList {
    EStringEncoding::Type encoding;
    TVector<CMutableString, 1>* files;
    std::exception_ptr failure;
};

void AppendResource(SResourceList& list, Platform::SResourceType const& type, u16 id)
{
    CMutableString const pattern = CopyInEncoding(":%1/%2", list.encoding);
    char16_t const* const name = type.name != nullptr ? type.name : FindKindName(type.number);
    CMutableString entry;
    if (name != nullptr)
        Format(entry, CString(pattern), CString(name), static_cast<u32>(id));
    else
        Format(entry, CString(pattern), static_cast<u32>(type.number), static_cast<u32>(id));
    list.files->Append(std::move(entry));
}

void OnResource(void* context, Platform::SResourceType const& type, u16 id)
{
    SResourceList& list = *static_cast<SResourceList*>(context);
    if (list.failure != nullptr)
        return;
    try {
        AppendResource(list, type, id);
    }
    catch (...) {
        list.failure = std::current_exception();
    }
}

// A folder of the tree that is being listed, and its path as the entries name it, terminated.
struct STreeLevel {
    Platform::CFolder folder;
    PathUnits path;
};

PathUnits JoinTreePath(PathUnits const& folder, char16_t const* name)
{
    PathUnits path;
    if (folder[0] != 0) {
        path = folder;
        path[path.GetCount() - 1] = u'\\';
    }
    do
        path.Append(*name);
    while (*name++ != 0);
    return path;
}

// Depth first: a folder's contents come right behind it. Each level stays open, so that the way down cannot be
// diverted.
void AppendTree(TUniquePtr<STreeLevel> root, EStringEncoding::Type encoding, TVector<CMutableString, 1>& files,
                TVector<CMutableString, 1>& folders)
{
    TVector<TUniquePtr<STreeLevel>, 1> levels;
    levels.Append(std::move(root));
    while (!levels.IsEmpty()) {
        STreeLevel& level = *levels[levels.GetCount() - 1];
        Platform::SFolderEntry entry;
        u32 error = 0;
        if (!level.folder.ReadEntry(entry, error)) {
            RaiseFileError(error);
            levels.RemoveAt(levels.GetCount() - 1);
            continue;
        }
        PathUnits path = JoinTreePath(level.path, entry.name);
        (entry.kind.isFolder ? folders : files).Append(CopyInEncoding(Path::ViewOf(path), encoding));
        if (!entry.kind.isFolder || entry.kind.isLink)
            continue;
        TUniquePtr<STreeLevel> child(Memory::New<STreeLevel>(EHeap::Pool8));
        RaiseFileError(child->folder.OpenEntry(level.folder, entry.name));
        child->path = std::move(path);
        levels.Append(std::move(child));
    }
}

} // namespace

// ---- resource file ----

CResourceFile::CResourceFile(CString const& path, u16 id, SResourceKind const& kind, EFileOpen::Type) : m_path(path)
{
    Platform::ResourceMark const mark = Locate(kind, id);
    if (mark == nullptr) {
        CMutableString message;
        Format(message, "Resource %1 could not be found or is not of type RT_RCDATA.", path);
        throw CFileException(message, EFileError::NotFound);
    }
    u32 size = 0;
    RaiseFileError(Platform::AccessResource(mark, m_data, size));
    m_size = size;
}

CResourceFile::~CResourceFile() = default;

u64 CResourceFile::Read(void* buffer, u64 size)
{
    if (m_position >= m_size)
        return 0;
    u64 const count = std::min(size, m_size - m_position);
    if (count != 0)
        std::memcpy(buffer, static_cast<u8 const*>(m_data) + m_position, count);
    m_position += count;
    return count;
}

u64 CResourceFile::Write(void const*, u64)
{
    throw CFileException("Resource files cannot be modified.", EFileError::Denied);
}

u64 CResourceFile::Seek(ESeek::Type origin, i64 offset)
{
    u64 const base = origin == ESeek::Begin ? 0 : origin == ESeek::End ? m_size : m_position;
    m_position = base + static_cast<u64>(offset);
    return m_position;
}

// ---- resource archive ----

CResourceArchive::CResourceArchive() = default;

CResourceArchive::~CResourceArchive() = default;

IString const& CResourceArchive::GetName() const
{
    static CString const name("Resources");
    return name;
}

bool CResourceArchive::Contains(CString const& path) const
{
    if (!IsResourcePath(path))
        return Path::NamesEntry(Path::NormalizeJoined(Path::ViewOf(GetExecutableFolder()), path));
    SResourceName const name = ParseResourcePath(path);
    return Locate(name.kind, name.id) != nullptr;
}

TResourcePtr<IFile> CResourceArchive::OpenFile(CString const& path, EFileOpen::Type mode)
{
    if ((mode & (EFileOpen::Write | EFileOpen::OpenAlways | EFileOpen::CreateAlways)) != 0)
        throw CFileException("Resources are read only.", EFileError::Denied);
    try {
        if (!IsResourcePath(path)) {
            // Without any access bit a native file would open for writing too.
            PathUnits const folder = GetExecutableFolder();
            return MakeResource<CNativeFile>(Path::ViewOf(folder), path, mode | EFileOpen::Read);
        }
        SResourceName const name = ParseResourcePath(path);
        return MakeResource<CResourceFile>(path, name.id, name.kind, mode);
    }
    catch (CFileException const& error) {
        if (error.GetFileError() == EFileError::NotFound && (mode & EFileOpen::ThrowIfMissing) == 0)
            return {};
        throw;
    }
}

void CResourceArchive::List(CString const& path, TVector<CMutableString, 1>& files,
                            TVector<CMutableString, 1>& folders) const
{
    SResourceList resources{path.GetEncoding(), &files, nullptr};
    Platform::VisitResources(&OnResource, &resources);
    if (resources.failure != nullptr)
        std::rethrow_exception(resources.failure);

    TUniquePtr<STreeLevel> root(Memory::New<STreeLevel>(EHeap::Pool8));
    PathUnits const rootPath = Path::NormalizeJoined(Path::ViewOf(GetExecutableFolder()), path);
    RaiseFileError(root->folder.Open(rootPath.GetData(), Platform::EFolderUse::Hold));
    Path::CWideText const wide(path);
    for (u64 index = 0; index <= wide.GetCount(); ++index)
        root->path.Append(wide.Get()[index]);
    AppendTree(std::move(root), path.GetEncoding(), files, folders);
}

} // namespace Velmor
