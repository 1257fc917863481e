#include "host/Failure.h"
#include "host/Formats.h"
#include "host/Picture.h"
#include "host/Text.h"
#include "host/commands/Commands.h"

#include <fmt/format.h>

#include <cstdio>

namespace Host {
namespace {
std::string GetPrintableName(Profile const & profile) { return MakePrintable(profile->GetProfileName().GetView()); }

void List() {
    std::string text;
    for (auto const & profile : Raster::ICCManager::GetInstance().GetAvailableProfiles())
        text += fmt::format("{:<12}{}\n", GetSpaceName(profile->GetColourSpace()), GetPrintableName(profile));
    std::fputs(text.c_str(), stdout);
}

std::string DescribeCurve(Raster::ICCProfile const & profile) {
    auto const space = profile.GetColourSpace();
    if (space == Raster::ColourSpaceCMYK || space == Raster::ColourSpaceLAB)
        return "none"; // no single gamma says anything about inks, or about lightness with a and b
    return profile.IsLinear() ? "linear" : fmt::format("about gamma {:.2f}", profile.GetApproximateGamma());
}

std::string ListFittingFormats(Profile const & profile) {
    std::vector<std::string> names;
    for (auto const & name : ListFormats())
        if (Raster::ICCManager::CanApplyProfileToFormat(profile, *FindFormat(name)))
            names.push_back(name);
    return names.empty() ? "no format" : Join(names);
}

void Show(Profile const & profile) {
    unsigned const version = profile->GetVersion();
    std::fputs(fmt::format("{}\n"
                           "  space    {}\n"
                           "  version  {:x}.{:x}\n"
                           "  curve    {}\n"
                           "  fits     {}\n"
                           "  kind     {}\n"
                           "  size     {} bytes\n",
                           GetPrintableName(profile), GetSpaceName(profile->GetColourSpace()), version >> 8,
                           version >> 4 & 15, DescribeCurve(*profile), ListFittingFormats(profile),
                           profile->IsDeviceLink()      ? "device link"
                           : profile->IsDevicePrinter() ? "printer"
                           : profile->IsStandard()      ? "built in"
                                                        : "other",
                           profile->GetRawData().size())
                   .c_str(),
               stdout);
}
}

bool RunProfile(Session & session, ProfileSettings const & settings) {
    if (settings.list) {
        List();
        return true;
    }
    return session.Try({}, [&] { Show(FindProfile(settings.file)); });
}
}
