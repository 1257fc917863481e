// Writes small JPEG files of every kind into a folder.
#include "SeedFolder.h"
#include "colour/ICCManager.h"
#include "files/JPEGMaker.h"

#include <string>

using namespace Raster;

namespace {
void SaveEveryKind(Fuzz::SeedFolder const & folder) {
    int number = 0;
    for (auto recipe : MakeEveryKindOfJPEG(17, 9)) {
        recipe.quality = 60;
        folder.Save("kind" + std::to_string(number++) + ".jpg", MakeJPEG(recipe));
    }
}

void SaveWithSegments(Fuzz::SeedFolder const & folder) {
    JPEGRecipe recipe;
    auto const profile = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceGrey);
    auto const bytes = profile->GetRawData();
    recipe.inSpace = recipe.fileSpace = JCS_GRAYSCALE;
    recipe.densityUnit = 2;
    recipe.densityX = recipe.densityY = 118;
    recipe.segments = {MakeExif(6, true),
                       MakeExif(3, false, 4),
                       MakeProfileChunk(2, 2, JPEGBytes(bytes.begin() + 100, bytes.end())),
                       MakeProfileChunk(1, 2, JPEGBytes(bytes.begin(), bytes.begin() + 100)),
                       MakeResources({1, 2, 3}),
                       MakeResources({4})};
    folder.Save("segments.jpg", MakeJPEG(recipe));
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        SaveEveryKind(folder);
        SaveWithSegments(folder);
    });
}
