#include <vlmcore/exceptions.h>
#include <vlmcore/system.h>

#include "platform/Platform_Console.h"

namespace Velmor::System {

void GetArguments(TVector<CMutableString, 1>& arguments)
{
    auto const append = [](void* context, char const* text) {
        static_cast<TVector<CMutableString, 1>*>(context)->Append(CMutableString(CString(text)));
    };
    Platform::VisitArguments(append, &arguments);
}

bool IsTerminal(EConsole::Type stream)
{
    return Platform::IsTerminal(stream == EConsole::Output ? Platform::EStandardStream::Output
                                                           : Platform::EStandardStream::Error);
}

} // namespace Velmor::System
