#pragma once

#include "kernel/InStream.h"

#include <string>
#include <vector>

namespace Host {
/// What a JPEG or PNG file tells beside pixels, profile and resolution, and what a written file thus lacks: "EXIF",
/// "XMP" and so on, each once. Looks at the headers of segments and chunks only. Of anything else, and of what comes
/// after damage, nothing.
std::vector<std::string> FindMetadata(Kernel::InStreamSeekable & stream);
}
