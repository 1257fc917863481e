#include "host/Colours.h"
#include "host/Failure.h"
#include "host/Orientation.h"
#include "host/Picture.h"
#include "host/PictureWriter.h"
#include "host/Signals.h"
#include "host/commands/Commands.h"
#include "kernel/AffineTransform.h"
#include "pixel/transfer/BitmapTransfer.h"

#include <fmt/format.h>

#include <numbers>

namespace Host {
namespace {
using Kernel::AffineTransform;

/// From BASE to OVER, as the engine wants it.
AffineTransform::Params GetMatrix(CompositeSettings const & settings, int overWidth, int overHeight) {
    double const width = overWidth * settings.scale, height = overHeight * settings.scale;
    auto toBase = AffineTransform::Scale(settings.scale, settings.scale);
    if (settings.rotateDegrees != 0) {
        toBase = AffineTransform::Multiply(toBase, AffineTransform::Translate(-width / 2, -height / 2));
        toBase =
            AffineTransform::Multiply(toBase, AffineTransform::Rotate(settings.rotateDegrees * std::numbers::pi / 180));
        toBase = AffineTransform::Multiply(toBase, AffineTransform::Translate(width / 2, height / 2));
    }
    toBase = AffineTransform::Multiply(toBase, AffineTransform::Translate(settings.x, settings.y));
    return AffineTransform::Invert(toBase);
}

Picture ReadUpright(Session & session, std::string const & path, CompositeSettings const & settings,
                    Progress & progress) {
    return Blaming(path, [&] {
        auto picture = SourceFile(session, path, settings.reading).Decode(/*level=*/0, progress);
        if (settings.autoOrient) {
            picture.bitmap = MakeUpright(picture.bitmap, picture.orientation, progress);
            picture.orientation = 1;
        }
        return picture;
    });
}
}

bool RunComposite(Session & session, CompositeSettings const & settings) {
    return session.Try(settings.base, [&] {
        PictureWriter writer(session, settings.out, settings.writing, {});
        Progress progress(session.GetMessages(), settings.base);
        progress.BeginStep(0.15);
        auto over = ReadUpright(session, settings.over, settings, progress);
        progress.BeginStep(0.15);
        auto base = ReadUpright(session, settings.base, settings, progress);
        writer.CheckSize(base.bitmap.GetWidth(), base.bitmap.GetHeight());
        if (over.orientation != 1)
            session.GetMessages().Warn(over.name, TellOfTurning(over));
        over.bitmap = MatchColours(session, over, base, progress);

        progress.BeginStep(0.1);
        auto const matrix = GetMatrix(settings, over.bitmap.GetWidth(), over.bitmap.GetHeight()).ToArray();
        auto const opacity = static_cast<float>(settings.opacity);
        auto const params = progress.GetParams();
        Raster::Transfer(base.bitmap, over.bitmap, &params, &opacity, matrix.data());
        Signals::ThrowIfAborted();
        over = {};
        writer.Write(std::move(base), progress);
    });
}
}
