// What vlmhost prints.
#pragma once

#include "TextFile.h"

// The index as an aligned table with totals; files that failed follow as messages on standard error.
void PrintTable(Velmor::TVector<SFileReport, 1> const& reports);

// The index as one JSON object on standard output.
void PrintJSON(Velmor::TVector<SFileReport, 1> const& reports);

// True when every file was indexed.
bool IsComplete(Velmor::TVector<SFileReport, 1> const& reports);
