/// \file
/// The library's containers: TVector, TUniquePtr, TDelegate and TMap. All draw from the memory manager and report
/// exhaustion as CBadAllocation, leaving the container as it was.
#pragma once

#include <vlmcore/impl/Core_Allocator.h>
#include <vlmcore/impl/Core_Delegate.h>
#include <vlmcore/impl/Core_Map.h>
#include <vlmcore/impl/Core_UniquePtr.h>
#include <vlmcore/impl/Core_Vector.h>
