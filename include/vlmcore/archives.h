/// \file
/// Archives: named sources of files, addressed by relative paths. A folder, the resources of the executable, or several
/// archives stacked into one.
///
///     CFolderArchive patches("mods");
///     CResourceArchive builtIn;
///     CArchiveCollection all("game");
///     all.Add(patches);
///     all.Add(builtIn);
///     TResourcePtr<IFile> const file = all.OpenFile("fonts\\title.ttf", EFileOpen::Read); // the first that has it
///
/// Paths follow docs/files.md. Lists are appended to the vectors that are passed, in the system's order, unsorted.
/// Archives are owned by whoever makes them.
///
/// Errors: CFileException with the kind and the text of the system's error; CBadAllocation.
/// Threads: nothing is locked; an archive may be read by several threads while none changes it.
#pragma once

#include <vlmcore/containers.h>
#include <vlmcore/export.h>
#include <vlmcore/files.h>
#include <vlmcore/resources.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

/// A source of files. The order of the operations is part of the interface; hosts may implement it.
class VLM_API IArchive {
public:
    virtual ~IArchive();

    /// Opens a file. Whether a missing one is created, thrown about or answered with an empty handle depends on the
    /// kind of archive.
    virtual TResourcePtr<IFile> OpenFile(CString const& path, EFileOpen::Type mode) = 0;

    /// Appends the names in the folder `path` in the encoding of `path`: folders to `folders`, all else to `files`. A
    /// link counts as what it leads to.
    virtual void List(CString const& path, TVector<CMutableString, 1>& files,
                      TVector<CMutableString, 1>& folders) const = 0;

    /// True when there is a file or folder of that path; a missing one is no error.
    [[nodiscard]] virtual bool Contains(CString const& path) const = 0;

    /// Valid as long as the archive.
    [[nodiscard]] virtual IString const& GetName() const = 0;

protected:
    IArchive() = default;
    IArchive(IArchive const&) = default;
    IArchive& operator=(IArchive const&) = default;
};

/// An archive whose tree can be changed.
class VLM_API IMutableArchive : public IArchive {
public:
    ~IMutableArchive() override;

    /// Deletes one file; of a link the link itself.
    virtual void RemoveFile(CString const& path) = 0;
    /// Creates one folder in an existing one. An existing entry: Denied.
    virtual void CreateFolder(CString const& path) = 0;
    /// Deletes a folder with everything in it.
    virtual void RemoveFolder(CString const& path) = 0;

protected:
    IMutableArchive() = default;
    IMutableArchive(IMutableArchive const&) = default;
    IMutableArchive& operator=(IMutableArchive const&) = default;
};

/// A folder of the file system. Every operation goes to the file system afresh.
///
/// Paths are joined to the root as they stand and then normalised, so ".." leaves the root: everything but RemoveFolder
/// goes along. A relative root is taken from the current folder at the time of each call, while GetName keeps the full
/// path of the time of construction (kept: hosts depend on it).
class VLM_API CFolderArchive : public IMutableArchive {
public:
    /// The current folder of now.
    CFolderArchive();
    explicit CFolderArchive(CString const& root);
    CFolderArchive(CFolderArchive const&) = default;
    CFolderArchive& operator=(CFolderArchive const&) = default;
    ~CFolderArchive() override;

    /// A CNativeFile; see there for what is thrown. Does not ask Contains.
    TResourcePtr<IFile> OpenFile(CString const& path, EFileOpen::Type mode) override;

    /// Bare names, never "." or "..". A missing folder: NotFound.
    void List(CString const& path, TVector<CMutableString, 1>& files,
              TVector<CMutableString, 1>& folders) const override;

    /// Links count as entries wherever they lead; `*` and `?` in the last part match as in a search of the system. The
    /// root itself is contained (the empty path).
    [[nodiscard]] bool Contains(CString const& path) const override;

    /// True when the entry itself is a link or a junction, wherever it leads; a missing one is none. List names links
    /// as what they lead to: a walk down a tree asks here before it enters a folder, or two links that lead back make
    /// it endless.
    [[nodiscard]] bool IsLink(CString const& path) const;

    [[nodiscard]] IString const& GetName() const override { return m_name; }

    void RemoveFile(CString const& path) override;
    void CreateFolder(CString const& path) override;

    /// Lists the folder, removes the folders and then the files in it, each through these virtual operations, and then
    /// the folder. The first failure ends it and what is gone stays gone. Links and junctions are removed, never
    /// followed, also when they take a folder's place meanwhile, at any depth. Denied when it leads out of the root.
    void RemoveFolder(CString const& path) override;

private:
    CMutableString m_root;
    CMutableString m_name;
};

/// Several archives as one; the first that contains a path answers for it. Does not own them.
class VLM_API CArchiveCollection : public IArchive {
public:
    CArchiveCollection();
    /// An empty list; the name is copied. Throws CBadAllocation.
    explicit CArchiveCollection(CString const& name);
    CArchiveCollection(CArchiveCollection const&) = default;
    CArchiveCollection& operator=(CArchiveCollection const&) = default;
    ~CArchiveCollection() override;

    /// Appends an archive, which must live as long as it is searched.
    void Add(IArchive& archive) { archives.Append(&archive); }

    /// What the first archive that contains the path returns or throws; an empty handle when none does.
    TResourcePtr<IFile> OpenFile(CString const& path, EFileOpen::Type mode) override;

    /// The first archive that contains the path lists; nothing is merged.
    void List(CString const& path, TVector<CMutableString, 1>& files,
              TVector<CMutableString, 1>& folders) const override;

    [[nodiscard]] bool Contains(CString const& path) const override;
    [[nodiscard]] IString const& GetName() const override { return m_name; }

    /// In search order; the host may change it between calls.
    TVector<IArchive*, 1> archives;

private:
    [[nodiscard]] IArchive* FindArchive(CString const& path) const;

    CMutableString m_name;
};

/// Type of a resource: one of the numbers of the system, or a name.
struct SResourceKind {
    u16 number = 0;      ///< counts while `name` is null
    CMutableString name; ///< UTF-16
};

/// A resource of the executable as a read-only file; made by CResourceArchive. The memory is the executable's.
///
/// Its end-relative seek adds the offset, and Seek returns the new position, as a native file's; it stops at nothing,
/// and a read at or behind the end returns 0.
class VLM_API CResourceFile : public IFile {
public:
    /// Finds and locks the resource `id`. \param path  as the file was asked for; becomes its name. Throws
    /// CFileException: NotFound for a missing resource.
    CResourceFile(CString const& path, u16 id, SResourceKind const& kind, EFileOpen::Type mode);
    CResourceFile(CResourceFile const&) = delete;
    CResourceFile& operator=(CResourceFile const&) = delete;
    ~CResourceFile() override;

    /// Empty.
    [[nodiscard]] CString GetPath() override { return CString(""); }
    /// The whole resource path, as it was asked for.
    [[nodiscard]] CString GetFileName() override { return CString(m_path); }
    /// Empty.
    [[nodiscard]] CString GetFileExt() override { return CString(""); }
    [[nodiscard]] bool IsWritable() const override { return false; }
    [[nodiscard]] bool IsReadable() const override { return true; }
    /// The first byte of the resource.
    [[nodiscard]] void* GetNativeHandle() const override { return const_cast<void*>(m_data); }
    u64 Read(void* buffer, u64 size) override;
    /// CFileException, Denied.
    u64 Write(void const* buffer, u64 size) override;
    u64 Seek(ESeek::Type origin, i64 offset) override;
    [[nodiscard]] u64 GetPosition() const override { return m_position; }
    [[nodiscard]] bool ReachedEOF() const override { return m_position == m_size; }
    [[nodiscard]] u64 GetSizeByte() const override { return m_size; }

private:
    void const* m_data = nullptr;
    u64 m_size = 0;
    u64 m_position = 0;
    CMutableString m_path;
};

/// The resources of the executable (never those of the library), and the files below the executable's folder.
/// Read-only.
///
/// ":RCDATA/101" is the resource 101 of the type RCDATA: a colon, the type, a slash, the id. The type is a number, one
/// of CURSOR BITMAP ICON STRING FONT RCDATA ANICURSOR ANIICON HTML, or else the name of a type. Ids are numbers; text
/// that is none is the id 0. Resources with a name for an id cannot be reached. Any other path is a file below the
/// executable's folder.
class VLM_API CResourceArchive : public IArchive {
public:
    CResourceArchive();
    ~CResourceArchive() override;

    /// An empty handle for a missing file or resource, unless `mode` has ThrowIfMissing. A mode that writes or creates:
    /// CFileException, Denied. A mode without Read reads all the same.
    TResourcePtr<IFile> OpenFile(CString const& path, EFileOpen::Type mode) override;

    /// Appends every resource to `files`, whatever `path` is, and then the tree below the folder `path`: entries of all
    /// levels, relative to the executable's folder. Links to folders are named, not entered.
    void List(CString const& path, TVector<CMutableString, 1>& files,
              TVector<CMutableString, 1>& folders) const override;

    [[nodiscard]] bool Contains(CString const& path) const override;

    /// "Resources".
    [[nodiscard]] IString const& GetName() const override;
};

} // namespace Velmor
