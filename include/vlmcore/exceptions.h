/// \file
/// The exceptions that the library throws besides CBadAllocation. Thrown by value, caught as CException.
#pragma once

#include <vlmcore/export.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

/// What went wrong with a file.
namespace EFileError {
enum Type : u64 {
    Unknown = 0,  ///< anything without a kind of its own
    NotFound = 1, ///< no such file, folder or resource
    Corrupt = 2,  ///< the medium or the file is damaged
    Invalid = 3,  ///< the name or the request is malformed
    Denied = 4,   ///< in use, read only, existing or not empty
};
} // namespace EFileError

/// Base of all errors of the library: a message and a kind.
class VLM_API CException {
public:
    /// Kinds of the library's own exceptions, as GetKind returns them.
    static constexpr i64 PlainKind = 0;
    static constexpr i64 FileKind = 1;
    static constexpr i64 WeakTypeKind = 2;

    /// Formats the message printf-style. A message of 4096 characters or more is an error of the caller: the
    /// process ends as the C runtime's invalid-parameter handling ends it. Throws CBadAllocation, as copies do, also
    /// without a heap.
    explicit CException(char const* format, ...) VLM_PRINTF(2, 3);
    CException(CException const& other);
    CException& operator=(CException const& other);
    virtual ~CException();

    /// A copy of the same class from the memory manager, owned by the caller; end it with Memory::Delete.
    /// Throws CBadAllocation.
    [[nodiscard]] virtual CException* Clone() const;

    /// The message, UTF-8. A view: valid as long as the exception.
    [[nodiscard]] CString GetText() const;
    /// 0 plain, 1 file, 2 weak type.
    [[nodiscard]] i64 GetKind() const { return m_kind; }

protected:
    /// Takes the message as it stands.
    CException(i64 kind, CString const& text);

    /// For classes derived by hosts: their own kind.
    void SetKind(i64 kind) { m_kind = kind; }

private:
    CMutableString m_text;
    i64 m_kind;
};

/// An error of a file or an archive.
class VLM_API CFileException : public CException {
public:
    /// Takes the message as it stands; the kind is 1. Throws CBadAllocation, as copies do.
    CFileException(CString const& text, EFileError::Type error);
    CFileException(CFileException const& other);
    CFileException& operator=(CFileException const& other);
    ~CFileException() override;

    [[nodiscard]] CFileException* Clone() const override;

    /// What went wrong with the file.
    [[nodiscard]] EFileError::Type GetFileError() const { return m_fileError; }

private:
    EFileError::Type m_fileError;
};

} // namespace Velmor
