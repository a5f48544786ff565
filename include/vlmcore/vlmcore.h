/// \file
/// Everything at once. Programs that mind their build time include what they use.
#pragma once

#include <vlmcore/archives.h>
#include <vlmcore/containers.h>
#include <vlmcore/debug.h>
#include <vlmcore/exceptions.h>
#include <vlmcore/export.h>
#include <vlmcore/files.h>
#include <vlmcore/format.h>
#include <vlmcore/hashes.h>
#include <vlmcore/logging.h>
#include <vlmcore/math.h>
#include <vlmcore/memory.h>
#include <vlmcore/resources.h>
#include <vlmcore/strings.h>
#include <vlmcore/system.h>
#include <vlmcore/threads.h>
#include <vlmcore/types.h>
#include <vlmcore/weak_types.h>
#include <vlmcore/xml_stream.h>
