#include "host/Colours.h"

#include "files/DynamicFile.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/Signals.h"
#include "pixel/FormatFunctions.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Fill.h"
#include "pixel/transfer/TransferManaged.h"

#include <fmt/format.h>

namespace Host {
namespace {
using namespace Raster;

constexpr std::array intentNames = {"perceptual", "relative", "saturation", "absolute"};

std::string GetName(Profile const & profile) { return std::string(profile->GetProfileName().GetView()); }

/// The format that the user wants, by name or by what the profile is for; else that of the picture.
Format GetWantedFormat(Format format, ColourSettings const & settings, Profile const & profile) {
    if (settings.format)
        return *settings.format;
    if (profile && !ICCManager::CanApplyProfileToFormat(profile, format))
        return GetBestFormatForFormatAndSpace(format, profile->GetColourSpace());
    return format;
}

void NoteFormat(ColourPlan & plan, Format source, Format wanted, FileType type) {
    if (wanted != plan.format)
        plan.notes.push_back(fmt::format("{} can't hold {}; {} is written", GetTypeName(type), GetFormatName(wanted),
                                         GetFormatName(plan.format)));
    if (GetBits(plan.format) < GetBits(source))
        plan.notes.push_back(fmt::format("channels of {} bits become {} bits", GetBits(source), GetBits(plan.format)));
}

/// Which profiles colours go through, if both sides are known.
void ChooseProfiles(ColourPlan & plan, Picture const & picture, Profile const & asked) {
    auto & manager = ICCManager::GetInstance();
    Format const source = picture.bitmap.GetFormat();
    auto const sourceSpace = GetColourSpace(source), space = GetColourSpace(plan.format);
    if (!asked && sourceSpace == space)
        return;
    if (sourceSpace == ColourSpaceNone || space == ColourSpaceNone)
        return;
    // Lab means the same everywhere.
    plan.from = sourceSpace == ColourSpaceLAB ? manager.GetDefaultProfileForFormat(source) : picture.profile;
    if (!plan.from && asked && (plan.from = manager.GetDefaultProfileForFormat(source)))
        plan.notes.push_back(
            fmt::format("has no profile and is taken as {}; --assume-profile says otherwise", GetName(plan.from)));
    plan.to = asked ? asked : manager.GetDefaultProfileForFormat(plan.format);
    plan.isManaged = plan.from && plan.to;
}

/// @param help  what names a profile for the colours that are written
void NoteColours(ColourPlan & plan, Format source, ColourSettings const & settings, char const * help) {
    auto const sourceSpace = GetColourSpace(source), space = GetColourSpace(plan.format);
    if (plan.isManaged) {
        if (plan.from != plan.to)
            plan.notes.push_back(fmt::format("colours are managed from {} to {} ({}{})", GetName(plan.from),
                                             GetName(plan.to), intentNames[static_cast<std::size_t>(settings.intent)],
                                             settings.blackPointCompensation ? ", black point compensated" : ""));
        return;
    }
    if (space == ColourSpaceNone && sourceSpace != ColourSpaceNone)
        plan.notes.push_back("only alpha is kept");
    if (sourceSpace == space || space == ColourSpaceNone || sourceSpace == ColourSpaceNone)
        return;
    plan.notes.push_back(fmt::format("colours go from {} to {} by formula, since no profile is known for {}; {}",
                                     GetSpaceName(sourceSpace), GetSpaceName(space),
                                     GetSpaceName(plan.from ? space : sourceSpace),
                                     plan.from ? help : "--assume-profile names one"));
}

void ChooseEmbedded(ColourPlan & plan, Picture const & picture, Profile const & asked) {
    auto const & candidate = asked ? asked : picture.profile;
    if (candidate && ICCManager::CanApplyProfileToFormat(candidate, plan.format))
        plan.embedded = candidate;
    else if (candidate && !asked && !plan.isManaged)
        plan.notes.push_back(fmt::format("the profile {} is for other colours and isn't written", GetName(candidate)));
}
}

ColourPlan PlanColours(Picture const & picture, FileType type, ColourSettings const & settings,
                       Profile const & profile) {
    ColourPlan plan;
    Format const source = picture.bitmap.GetFormat();
    Format const wanted = GetWantedFormat(source, settings, profile);
    plan.format = DynamicFile::GetSupportedFormat(type, wanted);
    if (plan.format == NoFormat)
        throw Failure(fmt::format("{} can't be written as {}; choose another --format", GetFormatName(wanted),
                                  GetTypeName(type)));
    if (profile && !ICCManager::CanApplyProfileToFormat(profile, plan.format))
        throw Failure(fmt::format("the profile {} is for {}, but {} would be written as {}; choose another profile, "
                                  "--format or --type",
                                  GetName(profile), GetSpaceName(profile->GetColourSpace()), GetTypeName(type),
                                  GetFormatName(plan.format)));
    NoteFormat(plan, source, wanted, type);
    ChooseProfiles(plan, picture, profile);
    NoteColours(plan, source, settings, "--profile names one");
    ChooseEmbedded(plan, picture, profile);
    return plan;
}

ColourPlan PlanMatch(Picture const & over, Picture const & base) {
    ColourPlan plan;
    Format const source = over.bitmap.GetFormat();
    plan.format = base.bitmap.GetFormat();
    plan.from = over.profile;
    plan.to = base.profile;
    // Within one space, what isn't known is taken as usual: otherwise equal colours might be changed for nothing.
    if (GetColourSpace(source) == GetColourSpace(plan.format) && !plan.from != !plan.to) {
        auto & unknown = plan.from ? plan.to : plan.from;
        unknown = ICCManager::GetInstance().GetDefaultProfileForFormat(plan.format);
        if (unknown)
            plan.notes.push_back(fmt::format("{} has no profile and is taken as {}",
                                             plan.to == unknown ? base.name : over.name, GetName(unknown)));
    }
    plan.isManaged = plan.from && plan.to;
    NoteColours(plan, source, {}, "--assume-profile names one");
    return plan;
}

DynamicBitmap ConvertColours(DynamicBitmap const & bitmap, ColourPlan const & plan, ColourSettings const & settings,
                             Progress & progress) {
    Format const source = bitmap.GetFormat();
    bool const isSameProfile = !plan.isManaged || plan.from == plan.to;
    if (source == plan.format && isSameProfile)
        return bitmap;
    void * transform = nullptr;
    if (!isSameProfile) {
        transform = ICCManager::GetInstance().GetTransformForProfiles(source, plan.from, plan.format, plan.to,
                                                                      settings.intent, settings.blackPointCompensation);
        if (!transform)
            throw Failure(fmt::format("colours can't be taken from {} to {}; choose another profile or --intent",
                                      GetName(plan.from), GetName(plan.to)));
    }
    DynamicBitmap converted(bitmap.GetWidth(), bitmap.GetHeight(), plan.format, bitmap.GetMipmapMode(),
                            HardwareCachePolicy());
    auto const params = progress.GetParams();
    TransferManaged(converted, bitmap, transform, &params);
    Signals::ThrowIfAborted();
    return converted;
}

DynamicBitmap MatchColours(Session & session, Picture const & over, Picture const & base, Progress & progress) {
    auto const plan = PlanMatch(over, base);
    for (auto const & note : plan.notes)
        session.GetMessages().Note(over.name, note);
    return ConvertColours(over.bitmap, plan, {}, progress);
}

DynamicBitmap Flatten(DynamicBitmap const & bitmap, Colour const & background, Progress & progress) {
    DynamicBitmap flat(bitmap.GetWidth(), bitmap.GetHeight(), bitmap.GetFormat(), MipmapModeNone,
                       HardwareCachePolicy());
    DynamicPixel const colour = PixelOf<RGBA8Tuple>{background[0], background[1], background[2], 255};
    Fill(flat, {0, 0, flat.GetWidth(), flat.GetHeight()}, colour, 1.0f);
    auto const params = progress.GetParams();
    Transfer(flat, bitmap, &params, nullptr, nullptr);
    Signals::ThrowIfAborted();
    return flat;
}
}
