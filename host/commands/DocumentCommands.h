/// The parts of `raster document` that have files of their own, and what they share.
#pragma once

#include "host/Session.h"
#include "host/Settings.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveDisk.h"

#include <cstdio>
#include <string>

namespace Host {
bool ShowDocument(Session & session, DocumentSettings const & settings);
bool VerifyDocument(Session & session, DocumentSettings const & settings);
bool SalvageDocument(Session & session, DocumentSettings const & settings);

/// Whether a new document may replace what lies at its path.
Kernel::ArchiveTarget GetTarget(bool noClobber);
/// That nothing but a document is replaced by one: who forgets its name would lose the first picture.
void CheckTarget(std::string const & path, bool noClobber);
Kernel::ArchiveReport VerifyWithProgress(Session & session, std::string const & path);
inline void Print(std::string const & result) { std::fputs(result.c_str(), stdout); }
}
