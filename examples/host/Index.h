// From paths to measured files.
#pragma once

#include "Options.h"
#include "TextFile.h"

struct SIndex {
    Velmor::TVector<SFileReport, 1> files; // in the order of the paths, folders' files sorted
    Velmor::CWeakTypeMap elementCounts;    // of all XML files: number of elements by the hash of their name
    Velmor::CWeakTypeMap attributeCounts;  // likewise
};

// Measures every file that the options name, several at a time when they say so, with a log line for each.
void BuildIndex(SOptions const& options, SIndex& index);

// True when every file was indexed.
[[nodiscard]] bool IsComplete(SIndex const& index);
