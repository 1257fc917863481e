#include "files/ExportOptions.h"

#include <utility>

namespace Raster {
ExportOptions::ExportOptions() = default;
ExportOptions::ExportOptions(ExportOptions const &) = default;
ExportOptions & ExportOptions::operator=(ExportOptions const &) = default;
ExportOptions::~ExportOptions() = default;

Kernel::Consolidated<ICCProfile> ExportOptions::GetICCProfile() const { return iccProfile; }

void ExportOptions::SetICCProfile(Kernel::Consolidated<ICCProfile> profile) { iccProfile = std::move(profile); }
}
