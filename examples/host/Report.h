// What vlmhost prints.
#pragma once

#include "Index.h"

// The index as an aligned table with totals; places found follow, and files that failed as messages on standard error.
void PrintTable(SIndex const& index, SOptions const& options);

// The index as one JSON object on standard output.
void PrintJSON(SIndex const& index, SOptions const& options);

// The heap's counters.
void PrintMemory();
