#pragma once

#include "host/Picture.h"
#include "host/Settings.h"

#include <string>
#include <vector>

namespace Host {
/// What has to happen to the colours of a picture so that they suit the file that is to be written.
struct ColourPlan {
    Raster::Format format = Raster::NoFormat; ///< of the pixels that are written
    Profile from, to;                         ///< colours go through these two; null if they don't
    bool isManaged = false;
    Profile embedded;               ///< goes into the file; null for none
    std::vector<std::string> notes; ///< what the user should know
};

/// Decides. @param profile  what the user asked for; null for nothing. Throws `Failure` if it fits nothing that the
/// type can hold.
ColourPlan PlanColours(Picture const & picture, Raster::FileType type, ColourSettings const & settings,
                       Profile const & profile);

/// The same for a picture that is to be laid over another one: it gets the format and the colours of that.
ColourPlan PlanMatch(Picture const & over, Picture const & base);

/// Does as planned. The result may share the pixels of `bitmap`. Throws `Failure`, `Interrupted`.
DynamicBitmap ConvertColours(DynamicBitmap const & bitmap, ColourPlan const & plan, ColourSettings const & settings,
                             Progress & progress);

/// A picture in the format and the colours of the one that it is to be laid over. Says what the user should know.
/// Throws `Failure`, `Interrupted`.
DynamicBitmap MatchColours(Session & session, Picture const & over, Picture const & base, Progress & progress);

/// The picture laid over one colour, opaque in every pixel. Throws `Interrupted`.
DynamicBitmap Flatten(DynamicBitmap const & bitmap, Colour const & background, Progress & progress);
}
