#include "Options.h"

using namespace Velmor;

namespace {

[[noreturn]] void Refuse(CString const& pattern, CString const& argument)
{
    CMutableString message;
    Format(message, pattern, argument);
    throw CException("%s", static_cast<char const*>(message.GetData()));
}

// The arguments, one after the other.
class CArguments {
public:
    CArguments() { System::GetArguments(m_arguments); }

    [[nodiscard]] bool IsAtEnd() const { return m_next >= m_arguments.GetCount(); }
    [[nodiscard]] CString Take() { return m_arguments[m_next++]; }

    // The value that belongs to `option`.
    [[nodiscard]] CString TakeValue(CString const& option)
    {
        if (IsAtEnd())
            Refuse("%1 needs a value.", option);
        return Take();
    }

private:
    TVector<CMutableString, 1> m_arguments;
    u64 m_next = 1;
};

u8 ReadJobs(CString const& text)
{
    u64 const jobs = text.ToUnsignedInteger(EBinaryEncoding::BigEndian);
    if (jobs == 0 || jobs > 255)
        Refuse("--jobs takes a number from 1 to 255, not %1.", text);
    return static_cast<u8>(jobs);
}

void ReadArgument(SOptions& options, CString const& argument, CArguments& arguments)
{
    if (argument == "--json")
        options.json = true;
    else if (argument == "--memory")
        options.memory = true;
    else if (argument == "--help" || argument == "-h")
        options.help = true;
    else if (argument == "--log")
        options.logPath = arguments.TakeValue(argument);
    else if (argument == "--memlog")
        options.memoryLogFolder = arguments.TakeValue(argument);
    else if (argument == "--mount")
        options.mounts.Append(arguments.TakeValue(argument));
    else if (argument == "--jobs")
        options.jobs = ReadJobs(arguments.TakeValue(argument));
    else if (argument == "--find")
        options.find = arguments.TakeValue(argument);
    else if (argument == "--replace") {
        options.replaceFrom = arguments.TakeValue(argument);
        options.replaceTo = arguments.TakeValue(argument);
    }
    else if (argument == "--into")
        options.replaceFolder = arguments.TakeValue(argument);
    else if (argument.IsEmpty())
        throw CException("A path is empty."); // the library takes it for the root of everything
    else if (argument.StartsWith("-"))
        Refuse("Unknown option %1; see --help.", argument);
    else
        options.paths.Append(argument);
}

} // namespace

SOptions ReadOptions()
{
    SOptions options;
    for (CArguments arguments; !arguments.IsAtEnd();)
        ReadArgument(options, arguments.Take(), arguments);
    if (options.help)
        return options;
    if (options.paths.IsEmpty())
        throw CException("Nothing to index: name files or folders, or see --help.");
    if (options.replaceFrom.IsEmpty() != options.replaceFolder.IsEmpty())
        throw CException("--replace and --into belong together.");
    return options;
}

CString GetUsage()
{
    return "vlmhost [options] FILE-OR-FOLDER...\n"
           "Indexes text files: size, lines, code points, the size in each encoding, CRC-32 and FNV-1a-64; of XML "
           "files\n"
           "also the elements and attributes. \":\" names the samples that are embedded in the program, \":RCDATA/1\" "
           "one\n"
           "of them. Links to folders are followed where they are named, not below a folder.\n"
           "\n"
           "  --json             print the index as JSON\n"
           "  --jobs N           measure N files at a time (1)\n"
           "  --find TEXT        list where the text occurs: file, line and column in code points\n"
           "  --replace TEXT BY  write copies in which BY stands for every TEXT ...\n"
           "  --into FOLDER      ... into this folder, in the encoding of the original\n"
           "  --mount FOLDER     look paths up in this folder first (\":\" for the embedded samples); the first of "
           "several\n"
           "                     that has a path answers for it\n"
           "  --memory           print the heap's statistics\n"
           "  --memlog FOLDER    record every allocation into events.json and stacks.json there\n"
           "  --log FILE         write the log there (vlmhost.log)\n"
           "  --help             print this\n"
           "\n"
           "Exit code: 0 all indexed, 1 a file could not be indexed, 2 wrong use, 3 a fault of the program.\n";
}
