// Where files come from: the system, folders mounted in front of it, and the samples embedded in the program.
#pragma once

#include "Options.h"

class CSource {
public:
    // The embedded samples as an archive of their own.
    static constexpr char const* Samples = ":";

    explicit CSource(SOptions const& options);

    // The files that a path names: itself, or, of a folder, all below it, sorted; of ":" the embedded samples.
    [[nodiscard]] Velmor::TVector<Velmor::CMutableString, 1> List(Velmor::CString const& path) const;

    // Opens for reading; throws CFileException. May be called by several threads.
    [[nodiscard]] Velmor::TResourcePtr<Velmor::IFile> Open(Velmor::CString const& path) const;

private:
    Velmor::TVector<Velmor::TUniquePtr<Velmor::CFolderArchive>> m_folders;
    mutable Velmor::CResourceArchive m_resources; // opening a file changes nothing in it
    mutable Velmor::CArchiveCollection m_mounted{"mounted"};
};
