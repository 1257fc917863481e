#pragma once

#include "host/Colours.h"
#include "host/OutputFile.h"
#include "host/Picture.h"

namespace Host {
/// Everything from a picture in memory to a file. Made early, so that what can't work fails before the work is done.
class PictureWriter {
public:
    /// Whether the user is told what the file will lack.
    enum class Say { Nothing, WhatChanges };

    /// Throws `UsageError` if no type can be told from the options and the path, and `Failure` if the path can't be
    /// written.
    PictureWriter(Session & givenSession, std::string givenPath, WriteSettings const & givenSettings,
                  ColourSettings const & givenColours);

    /// Throws `Failure` if a picture of this size doesn't fit the type, unless the user forces it.
    void CheckSize(int width, int height) const;
    /// Takes the colours where they have to go, and writes. Throws `Failure`, `Interrupted`; what was there before then
    /// still is. The picture's pixels are dropped as soon as they aren't needed.
    void Write(Picture picture, Progress & progress, Say say = Say::WhatChanges);

    Raster::FileType GetType() const { return type; }

private:
    void Tell(Picture const & picture, ColourPlan const & plan, bool hasAlpha) const;
    bool KeepsAlpha(Raster::Format format) const;
    void Encode(DynamicBitmap const & bitmap, Picture const & picture, ColourPlan const & plan, Progress & progress);

    Session & session;
    std::string path;
    WriteSettings settings;
    ColourSettings colours;
    Raster::FileType type;
    Profile profile; // asked for
    Existing existing;
};
}
