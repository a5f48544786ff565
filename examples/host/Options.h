// Command line of vlmhost.
#pragma once

#include <vlmcore/vlmcore.h>

struct SOptions {
    Velmor::TVector<Velmor::CMutableString, 1> paths; // what to index, in the order given
    Velmor::TVector<Velmor::CMutableString, 1>
        mounts; // folders (":" for the embedded samples) searched before the system
    Velmor::CMutableString logPath{"vlmhost.log"};
    Velmor::CMutableString memoryLogFolder; // empty: no memory log
    Velmor::CMutableString find;            // empty: nothing is searched for
    Velmor::CMutableString replaceFrom;     // empty: nothing is replaced
    Velmor::CMutableString replaceTo;
    Velmor::CMutableString replaceFolder; // where the changed copies go
    Velmor::u8 jobs = 1;                  // files measured at a time
    bool json = false;
    bool memory = false;
    bool help = false;
};

// Reads the command line; throws CException with a message for the user when it makes no sense.
SOptions ReadOptions();

// The text of --help.
Velmor::CString GetUsage();
