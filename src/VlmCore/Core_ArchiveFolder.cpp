#include "Core_ArchiveText.h"
#include "Core_FileError.h"
#include "Core_Path.h"

#include "platform/Platform_File.h"
#include "platform/Platform_Folder.h"

#include <vlmcore/archives.h>

#include <cstring>
#include <utility>

namespace Velmor {

using Path::PathUnits;
using Platform::EFolderUse;

namespace {

PathUnits CurrentFolder()
{
    PathUnits folder;
    RaiseFileError(Platform::GetCurrentFolder(folder));
    folder.Append(u'\0');
    return folder;
}

template <class OnEntry>
void ForEachEntry(Platform::CFolder& folder, OnEntry onEntry)
{
    Platform::SFolderEntry entry;
    u32 error = 0;
    while (folder.ReadEntry(entry, error))
        onEntry(entry);
    RaiseFileError(error);
}

void AppendEntries(Platform::CFolder& folder, EStringEncoding::Type encoding, TVector<CMutableString, 1>& files,
                   TVector<CMutableString, 1>& folders)
{
    ForEachEntry(folder, [&](Platform::SFolderEntry const& entry) {
        (entry.kind.isFolder ? folders : files).Append(CopyInEncoding(CString(entry.name), encoding));
    });
}

// ---- removal of a tree ----
//
// Of an archive without operations of the host's own: nobody sees the steps, so they need no paths, and no recursion.
// A tree may be deeper than the stack is, or than a process may have descriptors.

// A folder under removal, and what of it is still to be removed.
struct SRemovalLevel {
    Platform::CFolder folder;
    PathUnits folders; // terminated names in the order of the listing
    PathUnits files;
    u64 nextFolder = 0; // where its name begins
    u64 current = 0;    // where the name of the folder begins that is open below
};

// The way down to the folder under removal, which is the last.
using RemovalLevels = TVector<TUniquePtr<SRemovalLevel>, 1>;

// So many of them are open at most, the last ones.
constexpr u64 MostOpenLevels = 16;

// Opens and lists the folder `name` of `parent`, which is the last level's or holds the tree.
void EnterLevel(RemovalLevels& levels, Platform::CFolder const& parent, char16_t const* name)
{
    if (levels.GetCount() >= MostOpenLevels)
        levels[levels.GetCount() - MostOpenLevels]->folder.Park();
    TUniquePtr<SRemovalLevel> level(Memory::New<SRemovalLevel>(EHeap::Pool8));
    RaiseFileError(level->folder.OpenEntry(parent, name));
    ForEachEntry(level->folder, [&](Platform::SFolderEntry const& entry) {
        PathUnits& names = entry.kind.isFolder ? level->folders : level->files;
        char16_t const* unit = entry.name;
        do
            names.Append(*unit);
        while (*unit++ != 0);
    });
    levels.Append(std::move(level));
}

// Removes the last level, which is empty, from its folder.
void LeaveLevel(RemovalLevels& levels, Platform::CFolder const& parent, char16_t const* name)
{
    u64 const last = levels.GetCount() - 1;
    if (last == 0) {
        levels.Clear();
        RaiseFileError(parent.DeleteFolderEntry(name));
        return;
    }
    SRemovalLevel& holder = *levels[last - 1];
    RaiseFileError(holder.folder.Resume(levels[last]->folder));
    levels.RemoveAt(last);
    RaiseFileError(holder.folder.DeleteFolderEntry(holder.folders.GetData() + holder.current));
}

// Removes the folder `name` of `parent`, which is no link, and all in it: of each folder the folders first, then the
// files.
void RemoveTree(Platform::CFolder const& parent, char16_t const* name)
{
    RemovalLevels levels;
    EnterLevel(levels, parent, name);
    while (!levels.IsEmpty()) {
        SRemovalLevel& level = *levels[levels.GetCount() - 1];
        if (level.nextFolder < level.folders.GetCount()) {
            level.current = level.nextFolder;
            while (level.folders[level.nextFolder++] != 0) {
            }
            char16_t const* const next = level.folders.GetData() + level.current;
            Platform::SEntryKind kind;
            RaiseFileError(level.folder.DescribeEntry(next, kind));
            if (kind.isLink)
                RaiseFileError(level.folder.DeleteFolderEntry(next));
            else
                EnterLevel(levels, level.folder, next);
            continue;
        }
        for (u64 file = 0; file < level.files.GetCount(); ++file) {
            RaiseFileError(level.folder.DeleteFileEntry(level.files.GetData() + file));
            while (level.files[file] != 0)
                ++file;
        }
        LeaveLevel(levels, parent, name);
    }
}

// Whether the operations of the archive are the library's own. By its table of functions: the host may have been
// compiled without what tells the type of an object.
bool IsPlain(CFolderArchive const& archive)
{
    auto const getTable = [](CFolderArchive const& object) {
        void const* table;
        std::memcpy(&table, static_cast<void const*>(&object), sizeof table);
        return table;
    };
    CFolderArchive const plain{CString()};
    return getTable(archive) == getTable(plain);
}

// ---- recursive removal ----
//
// RemoveFolder works through the virtual operations by path, as hosts that override them expect, one inside the other:
// a level takes a descriptor and its share of the stack. A path alone would be open to a folder's being swapped for a
// link between two calls. So each folder under removal is held open, and the operations recognise a path that came from
// the removal and work in the open folder instead of walking the path again.

struct SRemoval {
    CFolderArchive const* archive;
    PathUnits path; // as RemoveFolder was given it; terminated
    SRemoval* outer;
    Platform::CFolder folder;
};

thread_local SRemoval* innermostRemoval = nullptr;

// Makes a removal known to the operations for as long as it runs.
class CRemovalScope {
public:
    explicit CRemovalScope(SRemoval& removal) { innermostRemoval = &removal; }
    CRemovalScope(CRemovalScope const&) = delete;
    CRemovalScope& operator=(CRemovalScope const&) = delete;
    ~CRemovalScope() { innermostRemoval = innermostRemoval->outer; }
};

// What follows `prefix` in `text`; null when it does not begin so.
char16_t const* SkipPrefix(char16_t const* text, char16_t const* prefix)
{
    while (*prefix != 0)
        if (*text++ != *prefix++)
            return nullptr;
    return text;
}

bool IsEntryName(char16_t const* text)
{
    if (*text == 0 || (text[0] == u'.' && (text[1] == 0 || (text[1] == u'.' && text[2] == 0))))
        return false;
    for (; *text != 0; ++text)
        if (*text == u'/' || *text == u'\\')
            return false;
    return true;
}

// The running removal of the folder `path` itself.
SRemoval* FindRemoval(CFolderArchive const* archive, char16_t const* path)
{
    for (SRemoval* removal = innermostRemoval; removal != nullptr; removal = removal->outer) {
        char16_t const* const rest = SkipPrefix(path, removal->path.GetData());
        if (removal->archive == archive && rest != nullptr && *rest == 0)
            return removal;
    }
    return nullptr;
}

// The running removal of the folder that holds the entry `path`, and the entry's name.
SRemoval* FindParentRemoval(CFolderArchive const* archive, char16_t const* path, char16_t const*& name)
{
    for (SRemoval* removal = innermostRemoval; removal != nullptr; removal = removal->outer) {
        char16_t const* const rest = SkipPrefix(path, removal->path.GetData());
        if (removal->archive == archive && rest != nullptr && *rest == u'/' && IsEntryName(rest + 1)) {
            name = rest + 1;
            return removal;
        }
    }
    return nullptr;
}

PathUnits CopyTerminated(char16_t const* text)
{
    PathUnits copy;
    do
        copy.Append(*text);
    while (*text++ != 0);
    return copy;
}

PathUnits JoinForRemoval(PathUnits const& folder, CString const& name)
{
    PathUnits path(folder);
    path[path.GetCount() - 1] = u'/';
    Path::CWideText const wide(name);
    for (u64 index = 0; index <= wide.GetCount(); ++index)
        path.Append(wide.Get()[index]);
    return path;
}

// Empties the folder of `removal`, which is open.
void RemoveContents(CFolderArchive& archive, SRemoval& removal)
{
    CRemovalScope const scope(removal);
    TVector<CMutableString, 1> files;
    TVector<CMutableString, 1> folders;
    archive.List(Path::ViewOf(removal.path), files, folders);
    for (CMutableString const& name : folders)
        archive.RemoveFolder(Path::ViewOf(JoinForRemoval(removal.path, name)));
    for (CMutableString const& name : files)
        archive.RemoveFile(Path::ViewOf(JoinForRemoval(removal.path, name)));
}

void RemoveEntry(CFolderArchive& archive, char16_t const* path, Platform::CFolder const& parent, char16_t const* name)
{
    Platform::SEntryKind kind;
    RaiseFileError(parent.DescribeEntry(name, kind));
    if (!kind.isLink && IsPlain(archive)) {
        RemoveTree(parent, name);
        return;
    }
    if (!kind.isLink) {
        SRemoval removal{&archive, CopyTerminated(path), innermostRemoval, {}};
        RaiseFileError(removal.folder.OpenEntry(parent, name));
        RemoveContents(archive, removal);
    }
    RaiseFileError(parent.DeleteFolderEntry(name));
}

[[noreturn]] void RefuseOutside()
{
    throw CFileException("The folder lies outside the archive.", EFileError::Denied);
}

// Splits off the last part of a full path without trailing separators. False for a root, which has none.
bool SplitLast(PathUnits const& path, PathUnits& folder, char16_t const*& name)
{
    u64 start = path.GetCount() - 1;
    while (start > 0 && path[start - 1] != u'\\')
        --start;
    if (start == 0 || path[start] == 0)
        return false;
    for (u64 index = 0; index < start; ++index)
        folder.Append(path[index]);
    folder.Append(u'\0');
    (void)Path::DropTrailingSeparators(folder);
    name = path.GetData() + start;
    return true;
}

// Opens the folder `path` below `root`, both given without links, part by part and following none.
void OpenBelow(PathUnits const& root, PathUnits const& path, Platform::CFolder& folder)
{
    Platform::CFolder held[2];
    u64 current = 0;
    RaiseFileError(held[current].Open(root.GetData(), EFolderUse::Hold));
    u64 start = root.GetCount() - 1;
    PathUnits part;
    while (path[start] != 0) {
        for (part.Clear(); path[start] == u'\\';)
            ++start;
        for (; path[start] != u'\\' && path[start] != 0; ++start)
            part.Append(path[start]);
        part.Append(u'\0');
        RaiseFileError(held[1 - current].OpenEntry(held[current], part.GetData()));
        current = 1 - current;
    }
    folder.Swap(held[current]);
}

PathUnits ResolveLinks(PathUnits const& path)
{
    PathUnits resolved;
    RaiseFileError(Platform::ResolveLinks(path.GetData(), resolved));
    resolved.Append(u'\0');
    (void)Path::DropTrailingSeparators(resolved);
    return resolved;
}

} // namespace

// ---- folder archive ----

CFolderArchive::CFolderArchive() : m_root(Path::ViewOf(CurrentFolder())), m_name(m_root) {}

CFolderArchive::CFolderArchive(CString const& root)
    : m_root(root.ToUTF16()), m_name(Path::ViewOf(Path::Normalize(root)))
{
}

CFolderArchive::~CFolderArchive() = default;

TResourcePtr<IFile> CFolderArchive::OpenFile(CString const& path, EFileOpen::Type mode)
{
    return MakeResource<CNativeFile>(CString(m_root), path, mode);
}

void CFolderArchive::List(CString const& path, TVector<CMutableString, 1>& files,
                          TVector<CMutableString, 1>& folders) const
{
    if (innermostRemoval != nullptr) {
        if (SRemoval* const removal = FindRemoval(this, Path::CWideText(path).Get())) {
            AppendEntries(removal->folder, path.GetEncoding(), files, folders);
            return;
        }
    }
    Platform::CFolder folder;
    RaiseFileError(folder.Open(Path::NormalizeJoined(m_root, path).GetData(), EFolderUse::Look));
    AppendEntries(folder, path.GetEncoding(), files, folders);
}

bool CFolderArchive::Contains(CString const& path) const
{
    return Path::NamesEntry(Path::NormalizeJoined(m_root, path));
}

bool CFolderArchive::IsLink(CString const& path) const
{
    PathUnits full = Path::NormalizeJoined(m_root, path);
    (void)Path::DropTrailingSeparators(full);
    PathUnits parentPath;
    char16_t const* name = nullptr;
    Platform::CFolder parent;
    Platform::SEntryKind kind;
    return SplitLast(full, parentPath, name) && parent.Open(parentPath.GetData(), EFolderUse::Look) == 0 &&
           parent.DescribeEntry(name, kind) == 0 && kind.isLink;
}

void CFolderArchive::RemoveFile(CString const& path)
{
    if (innermostRemoval != nullptr) {
        Path::CWideText const wide(path);
        char16_t const* name = nullptr;
        if (SRemoval const* const removal = FindParentRemoval(this, wide.Get(), name)) {
            RaiseFileError(removal->folder.DeleteFileEntry(name));
            return;
        }
    }
    RaiseFileError(Platform::DeleteFileEntry(Path::NormalizeJoined(m_root, path).GetData()));
}

void CFolderArchive::CreateFolder(CString const& path)
{
    RaiseFileError(Platform::CreateFolderEntry(Path::NormalizeJoined(m_root, path).GetData()));
}

void CFolderArchive::RemoveFolder(CString const& path)
{
    Path::CWideText const wide(path);
    char16_t const* name = nullptr;
    if (SRemoval const* const removal = FindParentRemoval(this, wide.Get(), name)) {
        RemoveEntry(*this, wide.Get(), removal->folder, name);
        return;
    }

    PathUnits full = Path::NormalizeJoined(m_root, path);
    (void)Path::DropTrailingSeparators(full);
    PathUnits root = Path::Normalize(CString(m_root));
    (void)Path::DropTrailingSeparators(root);
    if (!Path::IsWithin(root, full))
        RefuseOutside();

    PathUnits parentPath;
    Platform::CFolder parent;
    if (!SplitLast(full, parentPath, name)) {
        SRemoval removal{this, CopyTerminated(wide.Get()), innermostRemoval, {}};
        RaiseFileError(removal.folder.Open(full.GetData(), EFolderUse::Hold));
        RemoveContents(*this, removal);
        removal.folder.Close();
        RaiseFileError(Platform::DeleteFolderPath(full.GetData()));
        return;
    }
    if (full.GetCount() == root.GetCount()) {
        RaiseFileError(parent.Open(parentPath.GetData(), EFolderUse::Hold));
    }
    else {
        PathUnits const realRoot = ResolveLinks(root);
        PathUnits const realParent = ResolveLinks(parentPath);
        if (!Path::IsWithin(realRoot, realParent))
            RefuseOutside();
        OpenBelow(realRoot, realParent, parent);
    }
    RemoveEntry(*this, wide.Get(), parent, name);
}

} // namespace Velmor
