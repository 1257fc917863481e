// Writes small PNG files of every kind into a folder.
#include "SeedFolder.h"
#include "files/PNGMaker.h"

#include "colour/ICCManager.h"

using namespace Raster;

namespace {
bool CanBeTransparent(PNGRecipe const & recipe) {
    return recipe.colourType == PNG_COLOR_TYPE_GRAY || recipe.colourType == PNG_COLOR_TYPE_RGB;
}

void SaveEveryKind(Fuzz::SeedFolder const & folder) {
    for (PNGRecipe recipe : MakeEveryKind(7, 5)) {
        auto const name = "type" + std::to_string(recipe.colourType) + "-depth" + std::to_string(recipe.depth);
        folder.Save(name + ".png", MakePNG(recipe));
        recipe.isInterlaced = true;
        folder.Save(name + "-interlaced.png", MakePNG(recipe));
        recipe.isInterlaced = false;
        recipe.hasTransparentColour = CanBeTransparent(recipe);
        if (recipe.colourType == PNG_COLOR_TYPE_PALETTE)
            recipe.paletteAlpha = {0, 128};
        if (recipe.hasTransparentColour || !recipe.paletteAlpha.empty())
            folder.Save(name + "-transparent.png", MakePNG(recipe));
    }
}

void SaveWithChunks(Fuzz::SeedFolder const & folder) {
    PNGRecipe recipe;
    recipe.width = recipe.height = 3;
    auto const profile = ICCManager::GetInstance().GetDefaultProfile(ColourSpaceRGB);
    auto const bytes = profile->GetRawData();
    recipe.profile.assign(bytes.begin(), bytes.end());
    recipe.pixelsPerUnitX = recipe.pixelsPerUnitY = 5906;
    recipe.hasText = true;
    folder.Save("chunks.png", MakePNG(recipe));
    recipe.compressionBuffer = 6; // many small IDAT chunks
    folder.Save("small-chunks.png", MakePNG(recipe));
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        SaveEveryKind(folder);
        SaveWithChunks(folder);
    });
}
