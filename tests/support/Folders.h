/// \file
/// Folders, files and links for tests, made without the library.
#pragma once

#include <filesystem>
#include <string>

namespace TestSupport {

/// A path or name in the library's form: UTF-16, backslashes.
[[nodiscard]] std::u16string ToText(std::filesystem::path const& path);

/// A fresh folder of its own below the system's place for temporary files; goes with everything in it.
class CTemporaryFolder {
public:
    CTemporaryFolder();
    CTemporaryFolder(CTemporaryFolder const&) = delete;
    CTemporaryFolder& operator=(CTemporaryFolder const&) = delete;
    ~CTemporaryFolder();

    [[nodiscard]] std::filesystem::path const& Path() const { return m_path; }
    /// The library's form of the folder, or of an entry in it.
    [[nodiscard]] std::u16string Text() const { return ToText(m_path); }
    [[nodiscard]] std::u16string Text(std::u16string const& entry) const { return Text() + u'\\' + entry; }

private:
    std::filesystem::path m_path;
};

void WriteText(std::filesystem::path const& path, std::string const& content);
[[nodiscard]] std::string ReadText(std::filesystem::path const& path);

// The platform's part, one file per system.

/// Makes a link to a file or a folder; false where the system or its user cannot.
[[nodiscard]] bool MakeLink(std::filesystem::path const& target, std::filesystem::path const& link);

/// False when the last link was made by means foreign to the system that the tests run on (Windows calls on another
/// system): removing a link to a folder is then not possible through the system's calls.
[[nodiscard]] bool LinksAreNative();

/// Makes an empty file whose holes take no room; false where the system cannot.
[[nodiscard]] bool MakeSparse(std::filesystem::path const& path);

/// Whether `path` is a link or a junction.
[[nodiscard]] bool IsLink(std::filesystem::path const& path);

/// Removes a tree without following links; nothing for a missing one. (The standard library's follows them where links
/// are unknown to it.)
void RemoveTree(std::filesystem::path const& path);

/// What the library must take for the documents folder from now on: the user's own (Windows), `wanted` (posix).
[[nodiscard]] std::u16string UseDocumentsFolder(std::filesystem::path const& wanted);

/// The system's own text for "file not found", as UTF-8.
[[nodiscard]] std::string FileNotFoundText();

/// Handles or descriptors that this process holds now.
[[nodiscard]] unsigned OpenHandleCount();

/// Takes a file's handle away behind its back: every call on it fails from then on.
void CloseNativeHandle(void* handle);

} // namespace TestSupport
