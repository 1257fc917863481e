#include "host/PictureWriter.h"

#include "files/DynamicFile.h"
#include "files/ExportOptions.h"
#include "files/FileTransfer.h"
#include "host/Failure.h"
#include "host/Formats.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "pixel/FormatFunctions.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Host {
namespace {
using namespace Raster;

FileType ChooseType(std::string const & path, WriteSettings const & settings) {
    if (settings.type)
        return *settings.type;
    if (path == standardStream)
        throw UsageError("standard output needs --type: " + ListWrittenTypes());
    if (auto const type = FindWrittenTypeOfPath(path))
        return *type;
    throw UsageError(fmt::format("'{}': the extension names no type that can be written; take one of {}, or --type",
                                 path, ListWrittenTypes()));
}

bool HasColour(Format format) { return GetColourSpace(format) != ColourSpaceNone; }
}

PictureWriter::PictureWriter(Session & givenSession, std::string givenPath, WriteSettings const & givenSettings,
                             ColourSettings const & givenColours)
    : session(givenSession), path(std::move(givenPath)), settings(givenSettings), colours(givenColours),
      type(ChooseType(path, settings)), existing(settings.noClobber ? Existing::Keep : Existing::Replace) {
    Blaming(path, [&] { OutputFile::Check(path, existing); });
    if (!colours.profile.empty())
        profile = FindProfile(colours.profile);
}

void PictureWriter::CheckSize(int width, int height) const {
    int const largest = GetLargestSide(type);
    if (std::max(width, height) > largest && !settings.force)
        Blaming(path, [&] {
            throw Failure(fmt::format("{} holds {} pixels a side at most, and this would be {} x {}; --force cuts it, "
                                      "another --type may hold it",
                                      GetTypeName(type), largest, width, height));
        });
}

bool PictureWriter::KeepsAlpha(Format format) const {
    return type == FileTypePNG && (!settings.stripAlpha || !HasColour(format));
}

void PictureWriter::Tell(Picture const & picture, ColourPlan const & plan, bool hasAlpha) const {
    auto & messages = session.GetMessages();
    for (auto const & note : plan.notes)
        messages.Note(picture.name, note);
    if (hasAlpha && KeepsAlpha(plan.format))
        messages.Note(picture.name, "the colour of wholly transparent pixels isn't kept");
    else if (hasAlpha)
        messages.Note(picture.name,
                      fmt::format("transparency isn't kept: the picture is laid over #{:02x}{:02x}{:02x}",
                                  settings.background[0], settings.background[1], settings.background[2]));
    if (picture.orientation != 1)
        messages.Warn(picture.name, TellOfTurning(picture));
    if (!picture.metadata.empty())
        messages.Note(picture.name, "metadata isn't kept: " + Join(picture.metadata));
}

void PictureWriter::Write(Picture picture, Progress & progress, Say say) {
    CheckSize(picture.bitmap.GetWidth(), picture.bitmap.GetHeight());
    auto const plan = PlanColours(picture, type, colours, profile);
    bool const hasAlpha = !IsOpaque(picture.bitmap);
    if (say == Say::WhatChanges)
        Tell(picture, plan, hasAlpha);

    auto bitmap = std::exchange(picture.bitmap, {}); // each step drops the pixels of the one before
    progress.BeginStep(0.2);
    if (hasAlpha && !KeepsAlpha(plan.format) && HasColour(bitmap.GetFormat()))
        bitmap = Flatten(bitmap, settings.background, progress);
    bitmap = ConvertColours(bitmap, plan, colours, progress);
    progress.BeginStep(0.4);
    Blaming(path, [&] { Encode(bitmap, picture, plan, progress); });
}

void PictureWriter::Encode(DynamicBitmap const & bitmap, Picture const & picture, ColourPlan const & plan,
                           Progress & progress) {
    ExportOptions options;
    options.SetQuality(settings.quality);
    options.SetProgressive(settings.progressive);
    options.SetDPI(settings.dpi.value_or(picture.dpi));
    options.SetAlpha(KeepsAlpha(plan.format));
    options.SetICCProfile(plan.embedded);

    OutputFile output(path, existing);
    DynamicFile file;
    if (!file.Create(output.GetStream(), bitmap.GetWidth(), bitmap.GetHeight(), options, type, plan.format))
        throw Failure(file.GetFailure() + "; choose another --type or --format");
    auto const params = progress.GetParams();
    std::string failure;
    try {
        if (!Feed(file, bitmap, &params))
            failure = file.GetFailure();
    } catch (std::exception const & exception) {
        failure = exception.what();
    }
    Signals::ThrowIfAborted();
    // The system's reason says more than that of the codec.
    if (auto const reason = output.GetWriteFailure(); !reason.empty())
        throw Failure(reason);
    if (!failure.empty() || file.HasFailed())
        throw Failure((failure.empty() ? file.GetFailure() : failure) + "; nothing was written");
    output.Commit();
}
}
