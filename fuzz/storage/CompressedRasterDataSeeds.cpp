// Writes image files as documents keep them into a folder.
#include "FuzzTarget.h"
#include "Input.h"
#include "SeedFolder.h"
#include "files/JPEGMaker.h"
#include "files/PNGMaker.h"
#include "storage/NoStore.h"

#include "kernel/MemoryOutStream.h"
#include "storage/CompressedRasterData.h"

using namespace Raster;

namespace {
// A seed that shows nothing leads nowhere.
void ExpectPicture(Kernel::Counted<CompressedRasterData> const & data, int width, int height) {
    auto const picture = data->GetBitmapRepresentation(A8, 1, 1, nullptr);
    auto const box = picture->GetNonZeroBoundingBox();
    Fuzz::Expect(picture->GetWidth() == width && picture->GetHeight() == height && box.left < box.right);
}

/// Writes the file as an item and, behind it, the bitmap that is to show it: of each kind in turn, as large as the file
/// is or larger.
class Saver {
public:
    Saver(Fuzz::SeedFolder const & seedFolder, int fileWidth, int fileHeight)
        : folder(seedFolder), width(fileWidth), height(fileHeight) {}

    void Save(std::string const & name, std::vector<std::uint8_t> const & file) {
        auto const data = Kernel::MakeCounted<CompressedRasterData>();
        data->CopyFrom(file.data(), file.size());
        if (!file.empty())
            ExpectPicture(data, width, height);
        for (bool const isInverted : {false, true}) {
            data->SetInvert(isInverted);
            auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
            data->Save(*stream, *Kernel::MakeCounted<Fuzz::NoStore>());
            Fuzz::Output out;
            out.PutAll(stream->TakeData());
            PutTarget(out);
            folder.Save(name + (isInverted ? "-inverted" : ""), out.GetBytes());
        }
    }

private:
    void PutTarget(Fuzz::Output & out) {
        unsigned const kind = count++, larger = kind / formatCount % 2 * 30;
        out.Put(std::uint8_t(kind % formatCount)).Put(std::uint8_t(kind % 4));
        out.Put(std::uint16_t(unsigned(width) + larger)).Put(std::uint16_t(unsigned(height) + larger));
    }

    Fuzz::SeedFolder const & folder;
    int const width, height;
    unsigned count = 0;
};
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        Saver pngs(folder, 7, 5), jpegs(folder, 17, 9);
        pngs.Save("empty", {});
        int number = 0;
        for (auto const & recipe : MakeEveryKind(7, 5))
            pngs.Save("png" + std::to_string(number++), MakePNG(recipe));
        number = 0;
        for (auto const & recipe : MakeEveryKindOfJPEG(17, 9))
            jpegs.Save("jpeg" + std::to_string(number++), MakeJPEG(recipe));
    });
}
