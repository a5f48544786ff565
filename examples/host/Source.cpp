#include "Source.h"

#include "Names.h"

#include <algorithm>

using namespace Velmor;

namespace {

using CNames = TVector<CMutableString, 1>;

void SortNames(CNames& names)
{
    for (CMutableString& name : names)
        name = FromSystemName(name);
    std::sort(names.begin(), names.end());
}

// The names in `folder`, each list sorted. False when it cannot be listed: it is no folder, or the system refuses.
bool ListSorted(CFolderArchive const& archive, CString const& folder, CNames& files, CNames& folders)
{
    try {
        archive.List(ToSystemName(folder), files, folders);
    }
    catch (CFileException const&) {
        return false;
    }
    SortNames(files);
    SortNames(folders);
    return true;
}

CMutableString Join(CString const& folder, CString const& name)
{
    CMutableString path;
    bool const isJoined = folder.IsEmpty() || name.IsEmpty() || folder.EndsWith("/") || folder.EndsWith("\\");
    Format(path, isJoined ? "%1%2" : "%1/%2", folder, name);
    return path;
}

// Files before folders. A link to a folder is passed over: two that lead back to their own folder would have no end.
// What cannot be listed goes in by its own name: opening it will tell why.
void ListTree(CFolderArchive const& archive, CString const& root, CString const& folder, CNames& all)
{
    CNames files;
    CNames folders;
    if (!ListSorted(archive, folder, files, folders)) {
        all.Append(Join(root, folder));
        return;
    }
    for (CMutableString const& name : files)
        all.Append(Join(root, Join(folder, name)));
    for (CMutableString const& name : folders) {
        CMutableString const inner = Join(folder, name);
        if (!archive.IsLink(ToSystemName(inner)))
            ListTree(archive, root, inner, all);
    }
}

// What the archive of the program lists is resources and files beside the program, whole trees at once.
CNames ListProgram(CResourceArchive const& archive, CString const& path, bool wantsResources)
{
    CNames files;
    CNames folders;
    archive.List(ToSystemName(path), files, folders);
    CNames wanted;
    for (CMutableString const& name : files) {
        if (name.StartsWith(":") == wantsResources)
            wanted.Append(name);
    }
    SortNames(wanted);
    return wanted;
}

// The files below a folder beside the program, or the path itself when it is none.
CNames ListBesideProgram(CResourceArchive const& archive, CString const& path)
{
    try {
        return ListProgram(archive, path, false);
    }
    catch (CFileException const&) {
        CNames itself;
        itself.Append(path);
        return itself;
    }
}

} // namespace

CSource::CSource(SOptions const& options)
{
    for (CMutableString const& mount : options.mounts) {
        if (mount == Samples) {
            m_mounted.Add(m_resources);
            continue;
        }
        m_folders.Append(TUniquePtr<CFolderArchive>(Memory::New<CFolderArchive>(EHeap::Pool, ToSystemName(mount))));
        m_mounted.Add(*m_folders[m_folders.GetCount() - 1]);
    }
}

CNames CSource::List(CString const& path) const
{
    if (path == Samples)
        return ListProgram(m_resources, "", true);
    CMutableString const systemPath = ToSystemName(path);
    CNames names;
    for (IArchive const* const archive : m_mounted.archives) {
        if (!archive->Contains(systemPath))
            continue;
        if (archive == &m_resources)
            return ListBesideProgram(m_resources, path);
        ListTree(static_cast<CFolderArchive const&>(*archive), "", path, names); // there are no others
        return names;
    }
    if (path.StartsWith(Samples))
        names.Append(path);
    else
        ListTree(CFolderArchive(systemPath), path, "", names);
    return names;
}

TResourcePtr<IFile> CSource::Open(CString const& path) const
{
    CMutableString const systemPath = ToSystemName(path);
    if (m_mounted.Contains(systemPath))
        return m_mounted.OpenFile(systemPath, EFileOpen::Read);
    if (path.StartsWith(Samples))
        return m_resources.OpenFile(systemPath, EFileOpen::Read | EFileOpen::ThrowIfMissing);
    return MakeResource<CNativeFile>(systemPath, EFileOpen::Read);
}
