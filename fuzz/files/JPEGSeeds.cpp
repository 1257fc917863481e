// Writes small JPEG files of every kind into a folder.
#include "colour/ICCManager.h"
#include "files/JPEGMaker.h"

#include <filesystem>
#include <fstream>
#include <string>

using namespace Raster;

namespace {
std::filesystem::path folder;

void Save(std::string const & name, JPEGBytes const & bytes) {
    std::ofstream file(folder / (name + ".jpg"), std::ios::binary);
    file.write(reinterpret_cast<char const *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file)
        std::abort();
}

void SaveEveryKind() {
    int number = 0;
    for (auto recipe : MakeEveryKindOfJPEG(17, 9)) {
        recipe.quality = 60;
        Save("kind" + std::to_string(number++), MakeJPEG(recipe));
    }
}

void SaveWithSegments() {
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
    Save("segments", MakeJPEG(recipe));
}
}

int main(int argc, char ** argv) {
    if (argc != 2)
        return 2;
    folder = argv[1];
    SaveEveryKind();
    SaveWithSegments();
    return 0;
}
