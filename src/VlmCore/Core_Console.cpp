#include <vlmcore/exceptions.h>
#include <vlmcore/system.h>

#include "platform/Platform_Console.h"

namespace Velmor::System {

void GetArguments(TVector<CMutableString, 1>& arguments)
{
    auto const append = [](void* context, void const* text, u32 unitWidth) {
        CString const argument(text, unitWidth == 2 ? EStringEncoding::UTF16 : EStringEncoding::UTF8);
        static_cast<TVector<CMutableString, 1>*>(context)->Append(argument.ToUTF8());
    };
    Platform::VisitArguments(append, &arguments);
}

bool IsTerminal(EConsole::Type stream)
{
    return Platform::IsTerminal(stream == EConsole::Output ? Platform::EStandardStream::Output
                                                           : Platform::EStandardStream::Error);
}

} // namespace Velmor::System
