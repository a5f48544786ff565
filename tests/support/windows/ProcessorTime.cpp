#include "../ProcessorTime.h"

#include <windows.h>

namespace TestSupport {

double GetProcessorMilliseconds()
{
    FILETIME created{};
    FILETIME ended{};
    FILETIME kernel{};
    FILETIME user{};
    ::GetProcessTimes(::GetCurrentProcess(), &created, &ended, &kernel, &user);
    auto const toMilliseconds = [](FILETIME const& time) {
        return (static_cast<double>(time.dwHighDateTime) * 4294967296.0 + static_cast<double>(time.dwLowDateTime)) *
               1e-4;
    };
    return toMilliseconds(kernel) + toMilliseconds(user);
}

} // namespace TestSupport
