// A module without symbols: everything but what it exports is nameless.
#if defined(_WIN32)
#  define NAMELESS_EXPORT __declspec(dllexport)
#else
#  define NAMELESS_EXPORT __attribute__((visibility("default")))
#endif

namespace {

int volatile g_calls = 0;

__attribute__((noinline)) void CallInside(void (*function)(void*), void* argument)
{
    function(argument);
    g_calls = g_calls + 1;
}

} // namespace

extern "C" NAMELESS_EXPORT void CallBack(void (*function)(void*), void* argument)
{
    CallInside(function, argument);
    g_calls = g_calls + 1;
}
