// Leaves wide.icc, an RGB profile, and inks.icc, a CMYK one, in a folder: what the tests of the program need beside
// pictures.
#include "colour/SyntheticProfiles.h"

#include <cstdlib>
#include <fstream>

namespace {
void WriteFile(std::string const & path, SyntheticProfiles::Bytes const & bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<char const *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
}

int main(int argumentCount, char ** arguments) {
    using namespace SyntheticProfiles;
    if (argumentCount != 2)
        return EXIT_FAILURE;
    std::string const folder = arguments[1];
    WriteFile(folder + "/wide.icc", Take(CreateRGB("wide", 1.8, 1.8, 1.8, Primaries::Wide)));
    WriteFile(folder + "/inks.icc", Take(CreateCMYK("inks")));
    return EXIT_SUCCESS;
}
