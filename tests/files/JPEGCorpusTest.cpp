// Files of other makers, from the folder jpeg in the one that RASTER_CORPUS names.
#include "files/JPEGTesting.h"
#include "files/jpeg/DynamicJPEG.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

namespace Raster {
namespace {
enum ProfileState { Embedded, Unusable, Fallback };
enum Ending { Whole, Early, OverLimit };

struct Facts {
    Format format; ///< NoFormat: refused
    int width = 0, height = 0;
    double dpi = 0;
    ProfileState profile = Fallback;
    int orientation = 1;
    Ending ending = Whole;
};

// From what the collection says of its files. Resolutions are those of JFIF: EXIF's count for nothing.
std::map<std::string, Facts> const expectations = {
    {"16bit-qtables.jpg", {RGBA8, 1, 1, 72}},
    {"app13-multiple.jpg", {RGBA8, 256, 160, 72}},
    {"app13.jpg", {RGBA8, 4, 4, 72}},
    {"bomb-65500x65500.jpg", {RGBA8, 65500, 65500, 72, Fallback, 1, OverLimit}},
    {"cmyk-sample-no-icc.jpg", {CMYKA8, 114, 199, 72}},
    {"corrupt-icc-4551.jpg", {RGBA8, 1500, 1000, 72, Embedded, 1, Early}},
    {"exif-jfif-app13-app14ycck-3channel.jpg", {RGBA8, 310, 384, 72}},
    {"gen_cmyk_icc.jpg", {CMYKA8, 96, 64, 28 / 2.54, Embedded}},
    {"gen_jfif118cm.jpg", {RGBA8, 96, 64, 118 / 2.54}},
    {"gradient_empty_icc.jpg", {RGBA8, 80, 80, 300}},
    {"gray-sample.jpg", {IA8, 386, 396, 100, Embedded}},
    {"grayscale_16x24_sampling2x2.jpg", {IA8, 16, 24, 72}},
    {"hopper.jpg", {RGBA8, 128, 128, 96}},
    {"icc-after-SOF.jpg", {IA8, 10, 10, 72}},
    {"icc-v4.jpg", {RGBA8, 400, 400, 72, Embedded}},
    {"icc_chunk_count_mismatch.jpeg", {RGBA8, 1, 1, 72}},
    {"icc_chunk_double_seq_no.jpeg", {RGBA8, 1, 1, 72}},
    {"icc_chunk_order.jpeg", {RGBA8, 1, 1, 72, Unusable}},
    {"icc_chunk_seq_no_0.jpeg", {RGBA8, 1, 1, 72}},
    {"icc_missing_chunk.jpeg", {RGBA8, 1, 1, 72}},
    {"icc_profile_big.jpg", {RGBA8, 425, 250, 300, Embedded}},
    {"jfif_unit_cm.jpg", {IA8, 1, 1, 1 / 2.54}},
    {"jpeg_lossless_sel1.jpg", {NoFormat}},
    {"jpeg_lossless_sel7.jpg", {NoFormat}},
    {"jpg-cmyk-1.jpg", {CMYKA8, 32, 32, 72}},
    {"jpg-cmyk-2.jpg", {CMYKA8, 256, 256, 72}},
    {"jpg-progressive.jpg", {RGBA8, 32, 32, 72}},
    {"jpg-size-1x1.jpg", {RGBA8, 1, 1, 72}},
    {"jpg-srgb-icc.jpg", {IA8, 1, 1, 72, Embedded}},
    {"lossless_MR4_12bit.jpg", {NoFormat}},
    {"mjpeg.jpg", {RGBA8, 960, 720, 72}},
    {"monkey12.jpg", {NoFormat}},
    {"partial_progressive.jpg", {RGBA8, 4, 4, 300, Embedded}},
    {"pil_sample_cmyk.jpg", {CMYKA8, 100, 100, 72}},
    {"restarts.jpg", {RGBA8, 33, 33, 72}},
    {"rgb.jpg", {RGBA8, 500, 333, 72}},
    {"sample.jpg", {RGBA8, 290, 442, 72, Embedded}},
    {"several_scans.jpg", {RGBA8, 592, 800, 72}},
    {"spectral_selection.jpg", {RGBA8, 592, 800, 72}},
    {"testimgari.jpg", {RGBA8, 227, 149, 72}},
    {"testorig.jpg", {RGBA8, 227, 149, 72}},
    {"truncated.jpg", {RGBA8, 290, 442, 72, Embedded, 1, Early}},
    {"truncated_jpeg.jpg", {RGBA8, 100, 100, 72, Fallback, 1, Early}},
    {"xdensity-out-of-range-zero.jpg", {RGBA8, 1426, 950, 72}},
    {"ycck-2112.jpg", {CMYKA8, 592, 800, 72}},
    {"ycck.jpg", {CMYKA8, 500, 333, 72, Embedded}},
};

JPEGBytes ReadAny(DynamicJPEG const & file) {
    switch (file.GetFormat()) {
    case RGBA8:
        return ReadPixels(*file.GetTyped<RGBA8Tuple>());
    case IA8:
        return ReadPixels(*file.GetTyped<IA8Tuple>());
    case CMYKA8:
        return ReadPixels(*file.GetTyped<CMYKA8Tuple>());
    default:
        return {};
    }
}

class JPEGCorpus : public testing::Test {
protected:
    void SetUp() override {
        char const * const corpus = std::getenv("RASTER_CORPUS");
        folder = corpus ? std::filesystem::path(corpus) / "jpeg" : std::filesystem::path();
        if (!corpus || !std::filesystem::is_directory(folder))
            GTEST_SKIP() << "RASTER_CORPUS names no folder with JPEG files";
        limits.limits.largestDecodedBytes = 512u << 20;
        limits.Apply();
        for (auto const & entry : std::filesystem::directory_iterator(folder))
            files.push_back(entry.path());
        std::ranges::sort(files);
    }

    static JPEGBytes Load(std::filesystem::path const & path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    LimitsForTest limits;
    std::filesystem::path folder;
    std::vector<std::filesystem::path> files;
};

TEST_F(JPEGCorpus, FilesAreWhatTheyAre) {
    for (auto const & [name, facts] : expectations) {
        DynamicJPEG file;
        ASSERT_TRUE(file.Create((folder / name).c_str())) << name << " is missing";
        EXPECT_EQ(facts.format, file.GetFormat()) << name;
        EXPECT_EQ(facts.width, file.GetWidth()) << name;
        EXPECT_EQ(facts.height, file.GetHeight()) << name;
        EXPECT_EQ(facts.dpi, file.GetDPI()) << name;
        EXPECT_EQ(facts.orientation, file.GetOrientation()) << name;
        EXPECT_EQ(facts.format == NoFormat, file.HasFailed()) << name << ": " << file.GetFailure();
        if (facts.format == NoFormat)
            continue;
        EXPECT_EQ(facts.profile == Fallback, file.IsProfileFallback()) << name;
        EXPECT_EQ(facts.profile != Unusable, static_cast<bool>(file.GetProfile())) << name;
        if (facts.ending == OverLimit) {
            IdentityReader<RGBA8JPEG> const reader(file.GetTyped<RGBA8Tuple>());
            EXPECT_TRUE(reader.GetSafeRect().IsEmpty()) << name;
            EXPECT_TRUE(file.HasFailed()) << name;
            continue;
        }
        ReadAny(file);
        EXPECT_EQ(facts.ending == Early, file.EndedEarly()) << name;
        EXPECT_FALSE(file.HasFailed()) << name << ": " << file.GetFailure();
    }
}

TEST_F(JPEGCorpus, EveryOneGivesThePixelsOfTheCodec) {
    std::size_t decoded = 0;
    for (auto const & path : files) {
        auto const answer = AskLibjpeg(Load(path));
        DynamicJPEG file;
        ASSERT_TRUE(file.Create(path.c_str()));
        EXPECT_EQ(answer.hasHeader, file.GetFormat() != NoFormat) << path;
        if (!answer.hasPixels)
            continue;
        EXPECT_TRUE(AddAlpha(answer) == ReadAny(file)) << path;
        ++decoded;
    }
    EXPECT_GE(decoded, 40u);
}

TEST_F(JPEGCorpus, KeepsImageResourceBlocks) {
    for (auto const & [name, hasBlocks] :
         {std::pair{"app13.jpg", false}, {"app13-multiple.jpg", true}, {"ycck.jpg", true}}) {
        DynamicJPEG file;
        ASSERT_TRUE(file.Create((folder / name).c_str()));
        auto const blocks = file.Dispatch([](JPEGBase const & jpeg) { return jpeg.GetImageResourceBlocksData(); });
        ASSERT_EQ(hasBlocks, static_cast<bool>(blocks)) << name;
        EXPECT_TRUE(!hasBlocks || std::memcmp(blocks->GetData(), "8BIM", 4) == 0) << name;
    }
}
}
}
