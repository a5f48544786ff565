// What a host's first program looks like: start the heap, use text, end without a leak.
#include <vlmcore/vlmcore.h>

#include <cstdio>

using namespace Velmor;

int main()
{
    Memory::Initialize(0, 0);
    {
        CMutableString message;
        Format(message, "Hello, %1 code points", CString(u"wörter☃!").GetLength());
        std::puts(static_cast<char const*>(message.GetData()));
    }
    Memory::Deinitialize();
    return 0;
}
