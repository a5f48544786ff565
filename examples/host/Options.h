// Command line of vlmhost.
#pragma once

#include <vlmcore/vlmcore.h>

struct SOptions {
    Velmor::TVector<Velmor::CMutableString, 1> paths; // files and folders, in the order given
    Velmor::CMutableString logPath{"vlmhost.log"};
    bool json = false;
    bool help = false;
};

// Reads the command line; throws CException with a message for the user when it makes no sense.
SOptions ReadOptions();

// The text of --help.
Velmor::CString GetUsage();
