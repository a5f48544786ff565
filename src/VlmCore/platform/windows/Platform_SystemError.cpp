#include "../Platform_SystemError.h"

#include <windows.h>

namespace Velmor::Platform {

void GetSystemErrorText(u32 error, char (&buffer)[SystemErrorTextCapacity])
{
    // Fetched wide, so that the texts of every language arrive as UTF-8.
    wchar_t text[SystemErrorTextCapacity];
    DWORD const count =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, error, 0, text, SystemErrorTextCapacity, nullptr);
    int const bytes = count == 0 ? 0
                                 : ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(count), buffer,
                                                         static_cast<int>(sizeof buffer) - 1, nullptr, nullptr);
    buffer[bytes] = '\0';
}

} // namespace Velmor::Platform
