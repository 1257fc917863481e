// Writes small PNG files of every kind into a folder.
#include "files/PNGMaker.h"

#include "colour/ICCManager.h"

#include <filesystem>
#include <fstream>

using namespace Raster;

namespace {
std::filesystem::path folder;

void Save(std::string const & name, std::vector<std::uint8_t> const & bytes) {
    std::ofstream file(folder / (name + ".png"), std::ios::binary);
    file.write(reinterpret_cast<char const *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file)
        std::abort();
}

bool CanBeTransparent(PNGRecipe const & recipe) {
    return recipe.colourType == PNG_COLOR_TYPE_GRAY || recipe.colourType == PNG_COLOR_TYPE_RGB;
}

void SaveEveryKind() {
    for (PNGRecipe recipe : MakeEveryKind(7, 5)) {
        auto const name = "type" + std::to_string(recipe.colourType) + "-depth" + std::to_string(recipe.depth);
        Save(name, MakePNG(recipe));
        recipe.isInterlaced = true;
        Save(name + "-interlaced", MakePNG(recipe));
        recipe.isInterlaced = false;
        recipe.hasTransparentColour = CanBeTransparent(recipe);
        if (recipe.colourType == PNG_COLOR_TYPE_PALETTE)
            recipe.paletteAlpha = {0, 128};
        if (recipe.hasTransparentColour || !recipe.paletteAlpha.empty())
            Save(name + "-transparent", MakePNG(recipe));
    }
}

void SaveWithChunks() {
    PNGRecipe recipe;
    recipe.width = recipe.height = 3;
    auto const profile = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB);
    auto const bytes = profile->GetRawData();
    recipe.profile.assign(bytes.begin(), bytes.end());
    recipe.pixelsPerUnitX = recipe.pixelsPerUnitY = 5906;
    recipe.hasText = true;
    Save("chunks", MakePNG(recipe));
    recipe.compressionBuffer = 6; // many small IDAT chunks
    Save("small-chunks", MakePNG(recipe));
}
}

int main(int argc, char ** argv) {
    if (argc != 2)
        return 2;
    folder = argv[1];
    SaveEveryKind();
    SaveWithChunks();
    return 0;
}
