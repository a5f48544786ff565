#include "Options.h"

using namespace Velmor;

namespace {

// The value behind an option; advances to it.
CString TakeValue(TVector<CMutableString, 1> const& arguments, u64& index)
{
    if (index + 1 >= arguments.GetCount()) {
        CMutableString message;
        Format(message, "%1 needs a value.", arguments[index]);
        throw CException("%s", static_cast<char const*>(message.GetData()));
    }
    return arguments[++index];
}

} // namespace

SOptions ReadOptions()
{
    TVector<CMutableString, 1> arguments;
    System::GetArguments(arguments);

    SOptions options;
    for (u64 index = 1; index < arguments.GetCount(); ++index) {
        CString const argument = arguments[index];
        if (argument == "--json")
            options.json = true;
        else if (argument == "--log")
            options.logPath = TakeValue(arguments, index);
        else if (argument == "--help" || argument == "-h")
            options.help = true;
        else if (argument.StartsWith("-") && argument != "-") {
            CMutableString message;
            Format(message, "Unknown option %1; see --help.", argument);
            throw CException("%s", static_cast<char const*>(message.GetData()));
        }
        else
            options.paths.Append(argument);
    }
    if (!options.help && options.paths.GetCount() == 0)
        throw CException("Nothing to index: name files or folders, or see --help.");
    return options;
}

CString GetUsage()
{
    return "vlmhost [options] FILE-OR-FOLDER...\n"
           "Indexes text files: size, lines, code points, the size in each encoding, CRC-32 and FNV-1a-64.\n"
           "\n"
           "  --json      print the index as JSON\n"
           "  --log FILE  write the log there (vlmhost.log)\n"
           "  --help      print this\n"
           "\n"
           "Exit code: 0 all indexed, 1 a file could not be indexed, 2 wrong use, 3 a fault of the program.\n";
}
