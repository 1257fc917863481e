// Writes image files as documents keep them into a folder.
#include "SeedFolder.h"
#include "files/JPEGMaker.h"
#include "files/PNGMaker.h"
#include "storage/NoStore.h"

#include "kernel/MemoryOutStream.h"
#include "storage/CompressedRasterData.h"

using namespace Raster;

namespace {
void Save(Fuzz::SeedFolder const & folder, std::string const & name, std::vector<std::uint8_t> const & file) {
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    data->CopyFrom(file.data(), file.size());
    for (bool const isInverted : {false, true}) {
        data->SetInvert(isInverted);
        auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        data->Save(*stream, *Kernel::MakeCounted<Fuzz::NoStore>());
        folder.Save(name + (isInverted ? "-inverted" : ""), stream->TakeData());
    }
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        Save(folder, "empty", {});
        int number = 0;
        for (auto const & recipe : MakeEveryKind(7, 5))
            Save(folder, "png" + std::to_string(number++), MakePNG(recipe));
        number = 0;
        for (auto const & recipe : MakeEveryKindOfJPEG(17, 9))
            Save(folder, "jpeg" + std::to_string(number++), MakeJPEG(recipe));
    });
}
