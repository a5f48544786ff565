#include "Source.h"

#include <algorithm>

using namespace Velmor;

namespace {

using CNames = TVector<CMutableString, 1>;

// The names below `folder`, files before folders, each sorted. False when it is no folder.
bool ListSorted(IArchive const& archive, CString const& folder, CNames& files, CNames& folders)
{
    try {
        archive.List(folder, files, folders);
    }
    catch (CFileException const&) {
        return false; // a file, or nothing at all: opening it will tell
    }
    std::sort(files.begin(), files.end());
    std::sort(folders.begin(), folders.end());
    return true;
}

CMutableString Join(CString const& folder, CString const& name)
{
    CMutableString path;
    Format(path, folder.IsEmpty() || folder.EndsWith("/") || folder.EndsWith("\\") ? "%1%2" : "%1/%2", folder, name);
    return path;
}

void ListTree(IArchive const& archive, CString const& root, CString const& folder, CNames& all)
{
    CNames files;
    CNames folders;
    if (!ListSorted(archive, folder, files, folders))
        return;
    for (CMutableString const& name : files)
        all.Append(Join(root, Join(folder, name)));
    for (CMutableString const& name : folders)
        ListTree(archive, root, Join(folder, name), all);
}

// The resources among what the archive lists; the rest are the files beside the program.
CNames ListSamples(CResourceArchive const& archive)
{
    CNames files;
    CNames folders;
    archive.List("", files, folders);
    CNames samples;
    for (CMutableString const& name : files) {
        if (name.StartsWith(":"))
            samples.Append(name);
    }
    std::sort(samples.begin(), samples.end());
    return samples;
}

} // namespace

CSource::CSource(SOptions const& options)
{
    for (CMutableString const& mount : options.mounts) {
        if (mount == Samples) {
            m_mounted.Add(m_resources);
            continue;
        }
        m_folders.Append(TUniquePtr<CFolderArchive>(Memory::New<CFolderArchive>(EHeap::Pool, mount)));
        m_mounted.Add(*m_folders[m_folders.GetCount() - 1]);
    }
}

CNames CSource::List(CString const& path) const
{
    if (path == Samples)
        return ListSamples(m_resources);
    CNames names;
    if (m_mounted.Contains(path))
        ListTree(m_mounted, "", path, names);
    else if (!path.StartsWith(Samples))
        ListTree(CFolderArchive(path), path, "", names);
    if (names.IsEmpty())
        names.Append(path);
    return names;
}

TResourcePtr<IFile> CSource::Open(CString const& path) const
{
    if (m_mounted.Contains(path))
        return m_mounted.OpenFile(path, EFileOpen::Read);
    if (path.StartsWith(Samples))
        return m_resources.OpenFile(path, EFileOpen::Read | EFileOpen::ThrowIfMissing);
    return MakeResource<CNativeFile>(path, EFileOpen::Read);
}
