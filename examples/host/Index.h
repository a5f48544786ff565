// From the paths on the command line to measured files.
#pragma once

#include "Options.h"
#include "TextFile.h"

// Lists what the paths name (folders with all they hold, sorted) and measures every file, with a log line for each.
Velmor::TVector<SFileReport, 1> BuildIndex(SOptions const& options);
