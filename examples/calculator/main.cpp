// A calculator over weak types: what a script host does with them.
//
//   calculator                      reads lines from standard input
//   calculator --eval "1 + 2"       evaluates each text that follows and ends; exit code 1 when one failed

#include "Evaluator.h"

#include <cstdio>
#include <cstring>

using namespace Velmor;

namespace {

char const* Utf8(CMutableString const& text)
{
    return text.GetData() == nullptr ? "" : static_cast<char const*>(text.GetData());
}

void PrintValue(CWeakType const& value)
{
    CMutableString const type = CWeakType::GetTypeName(value.GetResolvedType());
    bool const isText = value.GetResolvedType() == CWeakType::String;
    CMutableString const text = value.AsString();
    std::printf(isText ? "\"%s\" : %s\n" : "%s : %s\n", Utf8(text), Utf8(type));
}

// One line: a command or an expression. False when it could not be evaluated; the reason is printed.
bool RunLine(CEvaluator& evaluator, char const* line)
{
    if (std::strcmp(line, "strict on") == 0 || std::strcmp(line, "strict off") == 0) {
        CWeakType::SetStrictMode(std::strcmp(line, "strict on") == 0);
        return true;
    }
    try {
        if (line[std::strspn(line, " \t")] != 0)
            PrintValue(evaluator.Evaluate(line));
        return true;
    }
    catch (CException const& exception) {
        std::printf("error: %s\n", static_cast<char const*>(exception.GetText().GetData()));
    }
    catch (std::bad_alloc const& exception) {
        std::printf("error: %s\n", exception.what());
    }
    return false;
}

// A line of any length without its end; false at the end of the input. A zero byte in it ends what is evaluated.
bool ReadLine(TVector<char>& line)
{
    line.Clear();
    int unit = std::fgetc(stdin);
    if (unit == EOF)
        return false;
    for (; unit != EOF && unit != '\n'; unit = std::fgetc(stdin)) {
        if (unit != '\r')
            line.Append(static_cast<char>(unit));
    }
    line.Append('\0');
    return true;
}

void RunInteractively(CEvaluator& evaluator)
{
    bool const isTerminal = System::IsTerminal(System::EConsole::Output);
    if (isTerminal)
        std::puts("Expressions, `name = expression`, `ref name`, `strict on`, `strict off`; end of input to leave.");
    TVector<char> line;
    do {
        if (isTerminal) {
            std::fputs("> ", stdout);
            std::fflush(stdout);
        }
        if (!ReadLine(line))
            break;
        RunLine(evaluator, line.GetData());
    } while (true);
}

int Run()
{
    TVector<CMutableString, 1> arguments;
    System::GetArguments(arguments);
    CEvaluator evaluator;
    if (arguments.GetCount() < 2) {
        RunInteractively(evaluator);
        return 0;
    }
    if (arguments[1] != "--eval" || arguments.GetCount() < 3) {
        std::fputs("calculator [--eval TEXT...]\n", stderr);
        return 2;
    }
    bool isComplete = true;
    for (u64 index = 2; index < arguments.GetCount(); ++index)
        isComplete &= RunLine(evaluator, Utf8(arguments[index]));
    return isComplete ? 0 : 1;
}

} // namespace

int main()
{
    Memory::Initialize(EHeapFlag::Report, 0);
    int exitCode = 3;
    try {
        exitCode = Run();
    }
    catch (std::bad_alloc const& exception) {
        std::fprintf(stderr, "calculator: %s\n", exception.what());
    }
    Memory::Deinitialize();
    return exitCode;
}
