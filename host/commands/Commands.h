/// What the program can do, a function each. They return whether every file was done; what went wrong was said.
/// They throw `UsageError` and `Interrupted`.
#pragma once

#include "host/Session.h"
#include "host/Settings.h"

namespace Host {
bool RunInfo(Session & session, InfoSettings const & settings);
bool RunConvert(Session & session, ConvertSettings const & settings);
bool RunResize(Session & session, ResizeSettings const & settings);
bool RunThumbnail(Session & session, ThumbnailSettings const & settings);
bool RunComposite(Session & session, CompositeSettings const & settings);
bool RunDocument(Session & session, DocumentSettings const & settings);
bool RunProfile(Session & session, ProfileSettings const & settings);
}
