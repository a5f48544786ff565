#include "Core_FileError.h"

#include "platform/Platform_SystemError.h"

#include <cstdio>

namespace Velmor {

namespace {

struct SErrorKind {
    u32 systemError;
    EFileError::Type kind;
};

constexpr SErrorKind ErrorKinds[] = {
    {2, EFileError::NotFound},    // file not found
    {3, EFileError::NotFound},    // path not found
    {1921, EFileError::NotFound}, // a name that cannot be resolved (a circle of links)
    {4350, EFileError::NotFound}, // offline file not available
    {276, EFileError::Corrupt},   // extended attributes corrupt
    {1392, EFileError::Corrupt},  // file or folder corrupt
    {1393, EFileError::Corrupt},  // disk structure corrupt
    {206, EFileError::Invalid},   // name too long
    {222, EFileError::Invalid},   // wrong file type
    {223, EFileError::Invalid},   // file too large
    {665, EFileError::Invalid},   // file system limit
    {1006, EFileError::Invalid},  // volume changed, the open file is no longer valid
    {32, EFileError::Denied},     // in use
    {80, EFileError::Denied},     // file exists
    {145, EFileError::Denied},    // folder not empty
    {183, EFileError::Denied},    // already exists
    {1920, EFileError::Denied},   // cannot be accessed by the system
    {6002, EFileError::Denied},   // not encrypted as requested
    {6009, EFileError::Denied},   // encryption refused
};

} // namespace

EFileError::Type GetFileErrorKind(u32 systemError)
{
    for (SErrorKind const& entry : ErrorKinds)
        if (entry.systemError == systemError)
            return entry.kind;
    return EFileError::Unknown;
}

void RaiseFileError(u32 systemError)
{
    if (systemError == 0)
        return;
    char text[Platform::SystemErrorTextCapacity];
    Platform::GetSystemErrorText(systemError, text);
    EFileError::Type const kind = GetFileErrorKind(systemError);
    // Kinds speak for themselves; an unknown one without a text must at least say its number.
    if (kind == EFileError::Unknown && text[0] == '\0')
        std::snprintf(text, sizeof text, "Error code %u", static_cast<unsigned int>(systemError));
    throw CFileException(CString(text), kind);
}

} // namespace Velmor
