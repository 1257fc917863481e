#include "host/Orientation.h"
#include "host/Picture.h"
#include "host/PictureWriter.h"
#include "host/commands/Commands.h"

namespace Host {
bool RunConvert(Session & session, ConvertSettings const & settings) {
    return session.Try(settings.in, [&] {
        PictureWriter writer(session, settings.out, settings.writing, settings.colours);
        SourceFile source(session, settings.in, settings.reading);
        bool const isTurned = settings.autoOrient && IsSideways(source.GetFile().GetOrientation());
        int const width = source.GetFile().GetWidth(), height = source.GetFile().GetHeight();
        writer.CheckSize(isTurned ? height : width, isTurned ? width : height);

        Progress progress(session.GetMessages(), settings.in);
        progress.BeginStep(0.3);
        auto picture = source.Decode(/*level=*/0, progress);
        progress.BeginStep(0.1);
        if (settings.autoOrient) {
            picture.bitmap = MakeUpright(picture.bitmap, picture.orientation, progress);
            picture.orientation = 1;
        }
        writer.Write(std::move(picture), progress);
    });
}
}
