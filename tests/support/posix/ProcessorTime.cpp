#include "../ProcessorTime.h"

#include <sys/resource.h>

namespace TestSupport {

double GetProcessorMilliseconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto const toMilliseconds = [](timeval const& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) * 1e-3;
    };
    return toMilliseconds(usage.ru_utime) + toMilliseconds(usage.ru_stime);
}

} // namespace TestSupport
