/// \file
/// What a child process tells its parent by way of the log, and how the parent counts it.
#pragma once

#include <vlmcore/logging.h>

#include <cstdio>
#include <string>

namespace TestSupport {

/// Prints what is logged to standard output, one message a line: "2: text", the level first, line ends within a text as
/// "|". Takes no memory, so that it also works in the report of a crash; texts are cut at some 8,000 bytes.
class CPrintingLogger : public Velmor::ILogger {
public:
    void Write(Velmor::Log::EMessage::Type type, Velmor::u64, Velmor::CString const& message) override
    {
        char line[8192];
        std::size_t size = 0;
        line[size++] = static_cast<char>('0' + type);
        line[size++] = ':';
        line[size++] = ' ';
        for (char const* c = static_cast<char const*>(message.GetData()); *c != '\0' && size < sizeof line - 1; ++c)
            line[size++] = *c == '\n' ? '|' : *c;
        line[size++] = '\n';
        std::fwrite(line, 1, size, stdout);
        std::fflush(stdout);
    }
};

/// How often `part`, which is not empty, occurs in `text`.
[[nodiscard]] inline std::size_t CountOf(std::string const& text, std::string const& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

} // namespace TestSupport
