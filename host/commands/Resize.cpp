#include "files/ImageLimits.h"
#include "host/Failure.h"
#include "host/Orientation.h"
#include "host/Picture.h"
#include "host/PictureWriter.h"
#include "host/Resample.h"
#include "host/commands/Commands.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace Host {
namespace {
/// To whole pixels, at least one.
int RoundLength(double length) {
    double const largest = static_cast<double>(Raster::GetImageLimits().largestSide);
    if (!(length <= largest))
        throw Failure(fmt::format("would get sides of more than {} pixels; choose a smaller size", largest));
    return std::max(1, static_cast<int>(std::lround(length)));
}

/// Of the result, for a picture that is upright.
Size ChooseSize(Size const & from, ResizeSettings const & settings) {
    if (settings.scale)
        return {RoundLength(from.width * *settings.scale), RoundLength(from.height * *settings.scale)};
    double const widthScale = settings.width ? double(*settings.width) / from.width : HUGE_VAL;
    double const heightScale = settings.height ? double(*settings.height) / from.height : HUGE_VAL;
    if (settings.width && settings.height && settings.stretch)
        return {RoundLength(*settings.width), RoundLength(*settings.height)};
    double const scale = std::min(widthScale, heightScale);
    // The side that decides is taken as it is: a product may not give it back.
    return {scale == widthScale ? RoundLength(*settings.width) : RoundLength(from.width * scale),
            scale == heightScale ? RoundLength(*settings.height) : RoundLength(from.height * scale)};
}
}

bool RunResize(Session & session, ResizeSettings const & settings) {
    return session.Try(settings.in, [&] {
        PictureWriter writer(session, settings.out, settings.writing, {});
        SourceFile source(session, settings.in, settings.reading);
        Size const stored = source.GetSize();
        bool const isSideways = settings.autoOrient && IsSideways(source.GetFile().GetOrientation());
        auto size = ChooseSize(isSideways ? Size{stored.height, stored.width} : stored, settings);
        writer.CheckSize(size.width, size.height);
        if (isSideways)
            std::swap(size.width, size.height);

        Progress progress(session.GetMessages(), settings.in);
        progress.BeginStep(0.3);
        int const level = ChooseLevel(stored, size);
        auto picture = source.Decode(level, progress);
        progress.BeginStep(0.1);
        picture.bitmap = Resample(picture.bitmap, level, stored, size, progress);
        if (settings.autoOrient) {
            picture.bitmap = MakeUpright(picture.bitmap, picture.orientation, progress);
            picture.orientation = 1;
        }
        writer.Write(std::move(picture), progress);
    });
}
}
