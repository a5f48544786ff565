// The part that both systems share, and the main function of every test program: it runs either the tests or, when the
// command line names one, a child.
#include "DebuggedProcess.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>

namespace TestSupport {

namespace {

constexpr char ChildOption[] = "--vlmcore-child=";

struct SChild {
    char const* name;
    int (*body)();
};

std::vector<SChild>& GetChildren()
{
    static std::vector<SChild> children;
    return children;
}

std::vector<std::string>& GetMutableArguments()
{
    static std::vector<std::string> arguments;
    return arguments;
}

int RunDeclaredChild(char const* name)
{
    for (SChild const& child : GetChildren())
        if (std::strcmp(child.name, name) == 0)
            return child.body();
    std::fprintf(stderr, "No child is called %s.\n", name);
    return 250;
}

} // namespace

SChildDeclaration::SChildDeclaration(char const* name, int (*body)())
{
    GetChildren().push_back({name, body});
}

std::vector<std::string> const& GetChildArguments()
{
    return GetMutableArguments();
}

SChildResult RunChild(std::string const& name, SChildOptions const& options)
{
    std::vector<std::string> arguments{ChildOption + name};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    return RunProgram(options.program.empty() ? GetProgramPath() : options.program, arguments, options);
}

SChildResult RunChild(std::string const& name, std::vector<std::string> const& arguments)
{
    SChildOptions options;
    options.arguments = arguments;
    return RunChild(name, options);
}

SChildResult RunDebugged(std::string const& name, std::vector<std::string> const& arguments)
{
    SChildOptions options;
    options.arguments = arguments;
    options.debugged = true;
    return RunChild(name, options);
}

} // namespace TestSupport

// Asked by the leak sanitizer. The heap object itself is never given back (docs/quirks.md), which is not for every test
// to explain.
extern "C" char const* __lsan_default_suppressions();
extern "C" char const* __lsan_default_suppressions()
{
    return "leak:Velmor::CGlobalHeap::Create\n";
}

int main(int count, char** arguments)
{
    using namespace TestSupport;
    if (count > 1 && std::strncmp(arguments[1], ChildOption, sizeof ChildOption - 1) == 0) {
        GetMutableArguments().assign(arguments + 2, arguments + count);
        return RunDeclaredChild(arguments[1] + sizeof ChildOption - 1);
    }
    testing::InitGoogleMock(&count, arguments);
    return RUN_ALL_TESTS();
}
