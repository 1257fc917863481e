/// Layers of documents as pictures, and what users are to know of them.
#pragma once

#include "host/Document.h"
#include "host/Picture.h"
#include "host/Progress.h"
#include "host/Session.h"
#include "host/Settings.h"

#include <string>

namespace Host {
/// A layer that a command works with.
class LayerPicture {
public:
    /// @param givenName  for messages: the document, and which layer if there are several at work.
    LayerPicture(Session & givenSession, Layer const & givenLayer, std::string givenName)
        : session(givenSession), layer(givenLayer), name(std::move(givenName)) {}

    /// Decodes the file that was placed, unless the layer has pixels of its own. Throws `Failure` if they can't be had:
    /// what would be there in their place is an empty picture. Throws `Interrupted`.
    void Load(bool isStrict, Progress & progress) const;
    /// Says of a picture that is about to be written what is not in it.
    void TellOfDamage() const;
    /// Says of a layer whose colours count that they are not as they were meant.
    void TellOfLostProfile() const;

    /// Its pixels, its profile, or the one to assume, and its resolution. Throws `Failure` if there is no such profile.
    Picture Make(ReadSettings const & reading) const;
    /// The same with what else the placed file says, which a written picture lacks.
    Picture MakeToBeWritten(ReadSettings const & reading) const;

private:
    void CheckDecoding(bool isStrict) const;

    Session & session;
    Layer const & layer;
    std::string const name;
};
}
