/// \file
/// What tests of files, archives and resources share.
#pragma once

#include "../Texts.h"

#include <vlmcore/archives.h>
#include <vlmcore/files.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace TestSupport {

/// The error kind that `action` throws; fails the test when it throws nothing.
template <class Action>
Velmor::EFileError::Type FileErrorOf(Action action)
{
    try {
        action();
    }
    catch (Velmor::CFileException const& error) {
        EXPECT_EQ(error.GetKind(), 1);
        return error.GetFileError();
    }
    ADD_FAILURE() << "nothing was thrown";
    return static_cast<Velmor::EFileError::Type>(99);
}

/// The whole content; leaves the position behind it.
[[nodiscard]] inline std::string ReadAll(Velmor::IFile& file)
{
    std::string content(static_cast<std::size_t>(file.GetSizeByte()), '\0');
    file.Seek(Velmor::ESeek::Begin, 0);
    content.resize(static_cast<std::size_t>(file.Read(content.data(), content.size())));
    return content;
}

/// True where full paths begin with a drive, and the rules for names are those of Windows.
[[nodiscard]] inline bool HasDrives()
{
    return std::filesystem::current_path().has_root_name();
}

/// What an archive lists, as UTF-8. `Names` is a container of strings: in order, or sorted.
template <class Names>
struct TListing {
    Names files;
    Names folders;
};

/// Lists `path`; the names must come in its encoding.
template <class Names>
[[nodiscard]] TListing<Names> ListArchive(Velmor::IArchive const& archive, Velmor::CString const& path)
{
    Velmor::TVector<Velmor::CMutableString, 1> files;
    Velmor::TVector<Velmor::CMutableString, 1> folders;
    archive.List(path, files, folders);
    auto const copy = [&path](Velmor::TVector<Velmor::CMutableString, 1> const& from) {
        Names names;
        for (Velmor::CMutableString const& name : from) {
            EXPECT_EQ(name.GetEncoding(), path.GetEncoding());
            names.insert(names.end(), VlmTest::Bytes(name));
        }
        return names;
    };
    return {copy(files), copy(folders)};
}

/// Sets the current folder for a test.
class CCurrentFolder {
public:
    explicit CCurrentFolder(std::filesystem::path const& folder) : m_before(std::filesystem::current_path())
    {
        std::filesystem::current_path(folder);
    }
    CCurrentFolder(CCurrentFolder const&) = delete;
    CCurrentFolder& operator=(CCurrentFolder const&) = delete;
    ~CCurrentFolder() { std::filesystem::current_path(m_before); }

private:
    std::filesystem::path m_before;
};

} // namespace TestSupport
