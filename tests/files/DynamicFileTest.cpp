#include "files/DynamicFile.h"

#include "colour/ICCManager.h"
#include "files/FileFormat.h"
#include "files/ImageLimits.h"
#include "files/TestFile.h"
#include "kernel/FastFileOutStream.h"
#include "kernel/MemoryOutStream.h"
#include "pixel/DynamicBase.inl"
#include "pixel/PixelMemory.h"
#include "transfer/TransferPixels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace Raster {
namespace {
using testing::HasSubstr;
using Item = Kernel::Counted<CompressedRasterData>;
}

// A camera file, for the tests' sake: it begins with "TEST+".
class TestCameraFile : public FileWrapper<TestCameraFile> {
public:
    template<class Tuple>
    using TypedOf = TestFileOf<Tuple>;

    bool Create(char const *) { return Create(); }
    bool Create(Kernel::Counted<CompressedRasterData const>) { return Create(); }
    Kernel::Consolidated<ICCProfile> GetProfile() const { return nullptr; }

private:
    bool Create() {
        SetTyped(RGBAUF, Kernel::MakeCounted<TestFileOf<RGBAUFTuple>>(Slow::Picture<RGBAUFTuple>(3, 2)));
        return true;
    }
};

template class DynamicBase<TestCameraFile>;

namespace {
std::string ReadStart(FileSource const & source) {
    std::string why, start(5, '\0');
    auto const stream = source.Open(why);
    start.resize(stream ? stream->Read(start.data(), start.size()) : 0);
    return start;
}

// There is no telling a camera file by its start: it is tried, and the search goes on if it doesn't open.
FileFormat MakeCameraFormat() {
    using Of = FileFormatOf<TestCameraFile>;
    FileFormat format = Of::Make(FileTypeRAW, [](FileSource const &) { return true; });
    format.open = [](FileSource const & source, FileReadOptions const & options) {
        return ReadStart(source) == "TEST+" ? Of::Make(FileTypeRAW, nullptr).open(source, options) : nullptr;
    };
    format.getProfile = &Of::GetProfile;
    return format;
}

Item MakeData(std::string const & bytes) {
    auto data = Kernel::MakeCounted<CompressedRasterData>();
    data->CopyFrom(reinterpret_cast<unsigned char const *>(bytes.data()), bytes.size());
    return data;
}

class DynamicFileTest : public StorageTest {
protected:
    static void SetUpTestSuite() {
        StorageTest::SetUpTestSuite();
        static FileFormat const format = MakeCameraFormat();
        RegisterFileFormat(format);
    }
    DynamicFileTest() {
        std::string pattern = (std::filesystem::temp_directory_path() / "raster-test-XXXXXX").string();
        folder = mkdtemp(pattern.data());
    }
    ~DynamicFileTest() override {
        SetImageLimits({});
        std::error_code ignored;
        std::filesystem::permissions(folder, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(folder, ignored);
    }
    std::string PathOf(char const * name) const { return (folder / name).string(); }
    std::string Store(char const * name, std::string const & bytes) const {
        std::ofstream(PathOf(name), std::ios::binary) << bytes;
        return PathOf(name);
    }
    // The file of a bitmap.
    template<class Tuple>
    std::string Write(char const * name, FileType type, Slow::Picture<Tuple> const & picture,
                      ExportOptions const & options = {}) {
        DynamicFile file;
        EXPECT_TRUE(file.Create(PathOf(name).c_str(), picture.width, picture.height, options, type, formatOf<Tuple>))
            << file.GetFailure();
        EXPECT_TRUE(Feed(file, DynamicBitmap(MakeBitmap<Tuple>(picture)), nullptr)) << file.GetFailure();
        return PathOf(name);
    }

    std::filesystem::path folder;
};

template<class Tuple>
Slow::Picture<Tuple> MakeShownPicture(int width, int height) {
    auto picture = MakePicture<Tuple>(width, height, 5);
    for (auto & pixel : picture.pixels) // colour under alpha 0 is lost on the way
        if (pixel[Tuple::channelCount - 1] == 0)
            pixel = {};
    return picture;
}

template<class Tuple>
void CheckPNGRoundTrip(std::string const & path, Slow::Picture<Tuple> const & picture) {
    DynamicFile file;
    ASSERT_TRUE(file.Create(path.c_str())) << file.GetFailure();
    EXPECT_EQ(file.GetFileType(), FileTypePNG);
    EXPECT_EQ(file.GetFormat(), formatOf<Tuple>);
    EXPECT_EQ(file.GetWidth(), picture.width);
    EXPECT_EQ(file.GetHeight(), picture.height);
    EXPECT_FALSE(file.HasFailed());
    DynamicBitmap bitmap(picture.width, picture.height, file.GetFormat(), MipmapModeNone, HardwareCachePolicy());
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    EXPECT_EQ(FindDifference<Tuple>(picture, *bitmap.GetTyped<Tuple>()), "");
}

void ExpectEmpty(DynamicFile const & file) {
    EXPECT_EQ(file.GetFormat(), NoFormat);
    EXPECT_EQ(file.GetWidth(), 0);
    EXPECT_EQ(file.GetHeight(), 0);
    EXPECT_EQ(file.GetDPI(), 0.0);
    EXPECT_FALSE(file.GetProfile());
    EXPECT_FALSE(file.IsProfileFallback());
    EXPECT_FALSE(file.GetCameraParams());
    EXPECT_EQ(file.GetOrientation(), 1);
}
}

TEST_F(DynamicFileTest, AnEmptyOneAnswersNothing) {
    DynamicFile const file;
    ExpectEmpty(file);
    EXPECT_FALSE(file.HasFailed());
    EXPECT_EQ(file.GetFailure(), "");
    EXPECT_EQ(file.GetDescription(), Kernel::StringUtf8("DynamicFile"));
    DynamicBitmap bitmap(4, 4, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    DynamicFile writer;
    EXPECT_FALSE(Feed(writer, bitmap, nullptr));
}

TEST_F(DynamicFileTest, SaysWhyAFileDoesNotOpen) {
    mkfifo(PathOf("pipe").c_str(), 0600);
    struct Case {
        std::string path;
        char const * why;
    };
    for (auto const & [path, why] :
         {Case{PathOf("missing"), "No such file"}, Case{folder.string(), "directory"},
          Case{PathOf("pipe"), "not a regular file"}, Case{Store("empty", ""), "empty"},
          Case{Store("text", "hello, this is no picture at all"), "not a picture of a known type"},
          Case{Store("short", "\xFF\xD8"), "not a picture"}, Case{Store("shorter", "\x89PN"), "not a picture"}}) {
        DynamicFile file;
        EXPECT_FALSE(file.Create(path.c_str())) << path;
        EXPECT_TRUE(file.HasFailed()) << path;
        EXPECT_THAT(file.GetFailure(), HasSubstr(why)) << path;
        ExpectEmpty(file);
    }
    DynamicFile file;
    EXPECT_FALSE(file.Create(static_cast<char const *>(nullptr)));
    EXPECT_FALSE(file.Create(Kernel::Counted<CompressedRasterData const>()));
    EXPECT_FALSE(file.Create(Kernel::Counted<CompressedRasterData const>(MakeData(""))));
    EXPECT_THAT(file.GetFailure(), HasSubstr("empty"));
}

TEST_F(DynamicFileTest, AnUnreadableFileDoesNotOpen) {
    if (geteuid() == 0)
        GTEST_SKIP() << "root may read everything";
    auto const path = Store("locked", "TEST+");
    std::filesystem::permissions(path, std::filesystem::perms::none);
    DynamicFile file;
    EXPECT_FALSE(file.Create(path.c_str()));
    EXPECT_THAT(file.GetFailure(), HasSubstr("Permission"));
}

TEST_F(DynamicFileTest, ANameNeedNotBeUTF8) {
    auto const path = Write("\xFF\xFE \x80.png", FileTypePNG, MakeShownPicture<RGBA8Tuple>(40, 30));
    CheckPNGRoundTrip(path, MakeShownPicture<RGBA8Tuple>(40, 30));
}

TEST_F(DynamicFileTest, ThePathIsCopied) {
    auto const picture = MakeShownPicture<RGBA8Tuple>(40, 30);
    auto path = Write("picture.png", FileTypePNG, picture);
    DynamicFile file;
    ASSERT_TRUE(file.Create(path.c_str()));
    std::fill(path.begin(), path.end(), 'x');
    DynamicBitmap bitmap(40, 30, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    EXPECT_EQ(FindDifference<RGBA8Tuple>(picture, *bitmap.GetTyped<RGBA8Tuple>()), "");
}

TEST_F(DynamicFileTest, AFailureKeepsWhatWasOpen) {
    auto const path = Write("picture.png", FileTypePNG, MakeShownPicture<RGBA8Tuple>(40, 30));
    DynamicFile file;
    ASSERT_TRUE(file.Create(path.c_str()));
    EXPECT_FALSE(file.Create(PathOf("missing").c_str()));
    EXPECT_EQ(file.GetFileType(), FileTypePNG);
    EXPECT_EQ(file.GetWidth(), 40);
    EXPECT_TRUE(file.HasFailed());
    EXPECT_FALSE(file.Create(PathOf("new").c_str(), 4, 4, {}, FileTypeGIF, RGBA8));
    EXPECT_EQ(file.GetWidth(), 40);
    EXPECT_TRUE(file.Create(path.c_str()));
    EXPECT_FALSE(file.HasFailed());
    EXPECT_EQ(file.GetFailure(), "");
}

TEST_F(DynamicFileTest, TheFirstTestThatPassesDecides) {
    // A recognised but broken file opens, has nothing to show, and is not tried as anything else.
    struct Case {
        char const * start;
        FileType type;
    };
    for (auto const & [start, type] :
         {Case{"\xFF\xD8\xFF rubbish", FileTypeJPEG}, Case{"\x89PNG rubbish", FileTypePNG}}) {
        for (bool const inMemory : {false, true}) {
            DynamicFile file;
            ASSERT_TRUE(inMemory ? file.Create(Kernel::Counted<CompressedRasterData const>(MakeData(start)))
                                 : file.Create(Store("broken", start).c_str()));
            EXPECT_EQ(file.GetFileType(), type);
            EXPECT_EQ(file.GetFormat(), NoFormat);
            EXPECT_EQ(file.GetWidth(), 0);
            EXPECT_EQ(file.GetHeight(), 0);
            EXPECT_TRUE(file.HasFailed());
            EXPECT_NE(file.GetFailure(), "");
            DynamicBitmap bitmap(4, 4, RGBA8, MipmapModeNone, HardwareCachePolicy());
            Draw(bitmap, file, nullptr, nullptr, 0, 0);
            EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty());
        }
    }
}

TEST_F(DynamicFileTest, OtherModulesTakePartByRegistering) {
    DynamicFile file;
    EXPECT_FALSE(file.Create(Store("no", "TEST-").c_str())); // the search goes on to the end
    ASSERT_TRUE(file.Create(Store("yes", "TEST+").c_str()));
    EXPECT_EQ(file.GetFileType(), FileTypeRAW);
    EXPECT_EQ(file.GetFormat(), RGBAUF);
    EXPECT_EQ(file.GetWidth(), 3);
    EXPECT_EQ(file.GetHeight(), 2);
    EXPECT_EQ(file.GetDPI(), 96.0); // only four types are asked
    EXPECT_FALSE(file.IsProfileFallback());
    EXPECT_EQ(file.GetProfile(), ICCManager::GetInstance().GetDefaultProfileForFormat(RGBAUF));
    EXPECT_FALSE(file.GetCameraParams());
    EXPECT_EQ(file.GetOrientation(), 1);
    ASSERT_TRUE(file.Create(Kernel::Counted<CompressedRasterData const>(MakeData("TEST+"))));
    EXPECT_EQ(file.GetFileType(), FileTypeRAW);
}

TEST_F(DynamicFileTest, TypesAreSearchedInTheFixedOrder) {
    std::vector<FileType> order;
    FindFileFormatIf([&](FileFormat const & format) {
        order.push_back(format.type);
        return false;
    });
    EXPECT_THAT(order, testing::ElementsAre(FileTypeJPEG, FileTypePNG, FileTypeRAW));
    EXPECT_EQ(FindFileFormat(FileType(12)), nullptr);
    EXPECT_EQ(FindFileFormat(FileType(13)), nullptr);
    EXPECT_EQ(FindFileFormat(FileType(15)), nullptr);
    EXPECT_EQ(FindFileFormat(FileType(~0u)), nullptr);
}

TEST_F(DynamicFileTest, APNGOfEachFormatComesBackAsItWas) {
    CheckPNGRoundTrip(Write("a", FileTypePNG, MakeShownPicture<RGBA8Tuple>(300, 270)),
                      MakeShownPicture<RGBA8Tuple>(300, 270));
    CheckPNGRoundTrip(Write("b", FileTypePNG, MakeShownPicture<RGBA16Tuple>(300, 270)),
                      MakeShownPicture<RGBA16Tuple>(300, 270));
    CheckPNGRoundTrip(Write("c", FileTypePNG, MakeShownPicture<IA8Tuple>(300, 270)),
                      MakeShownPicture<IA8Tuple>(300, 270));
    CheckPNGRoundTrip(Write("d", FileTypePNG, MakeShownPicture<IA16Tuple>(300, 270)),
                      MakeShownPicture<IA16Tuple>(300, 270));
}

TEST_F(DynamicFileTest, APNGGoesThroughMemoryAndStreamsAsThroughFiles) {
    auto const picture = MakeShownPicture<RGBA8Tuple>(100, 90);
    DynamicBitmap const bitmap(MakeBitmap<RGBA8Tuple>(picture));
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    DynamicFile file;
    ASSERT_TRUE(file.Create(data, 100, 90, {}, FileTypePNG, RGBA8));
    EXPECT_EQ(file.GetFormat(), RGBA8);
    EXPECT_EQ(file.GetWidth(), 100);
    EXPECT_TRUE(Feed(file, bitmap, nullptr));
    auto const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
    ASSERT_TRUE(file.Create(Kernel::Counted<Kernel::OutStreamSeekable>(stream), 100, 90, {}, FileTypePNG, RGBA8));
    EXPECT_TRUE(Feed(file, bitmap, nullptr));
    auto const inFile = Kernel::MakeCounted<CompressedRasterData>();
    ASSERT_TRUE(inFile->SetFromFile(Write("picture.png", FileTypePNG, picture).c_str()));

    std::string const bytes(data->GetData(), data->GetData() + data->GetSize());
    EXPECT_EQ(bytes, std::string(inFile->GetData(), inFile->GetData() + inFile->GetSize()));
    EXPECT_EQ(bytes, std::string(stream->GetData(), stream->GetData() + stream->GetSize()));
    CheckPNGRoundTrip(Store("copy.png", bytes), picture);
}

TEST_F(DynamicFileTest, AJPEGComesBackNearly) {
    Slow::Picture<RGBA8Tuple> picture(300, 200);
    for (int y = 0; y < 200; ++y)
        for (int x = 0; x < 300; ++x)
            picture.At(x, y) = {std::uint8_t(x * 255 / 300), std::uint8_t(y), 128, 255};
    ExportOptions options;
    options.SetDPI(150);
    auto const path = Write("picture.jpg", FileTypeJPEG, picture, options);
    DynamicFile file;
    ASSERT_TRUE(file.Create(path.c_str()));
    EXPECT_EQ(file.GetFileType(), FileTypeJPEG);
    EXPECT_EQ(file.GetFormat(), RGBA8);
    EXPECT_EQ(file.GetDPI(), 150.0);
    DynamicBitmap bitmap(300, 200, RGBA8, MipmapModeNone, HardwareCachePolicy());
    Draw(bitmap, file, nullptr, nullptr, 0, 0);
    auto const pixels = ReadAll(*bitmap.GetTyped<RGBA8Tuple>());
    for (std::size_t i = 0; i < pixels.size(); ++i)
        for (std::size_t c = 0; c < 4; ++c)
            ASSERT_NEAR(pixels[i][c], picture.pixels[i][c], 6) << "pixel " << i << ", channel " << c;
}

TEST_F(DynamicFileTest, OnlySomeTypesAreWrittenToSomePlaces) {
    for (unsigned number = 0; number < 20; ++number) {
        auto const type = FileType(number);
        bool const isPNG = type == FileTypePNG, isJPEG = type == FileTypeJPEG;
        DynamicFile file;
        EXPECT_EQ(file.Create(PathOf("file").c_str(), 4, 4, {}, type, RGBA8), isPNG || isJPEG) << number;
        auto const data = Kernel::MakeCounted<CompressedRasterData>();
        EXPECT_EQ(file.Create(data, 4, 4, {}, type, RGBA8), isPNG) << number;
        Kernel::Counted<Kernel::OutStreamSeekable> const stream = Kernel::MakeCounted<Kernel::MemoryOutStream>();
        EXPECT_EQ(file.Create(stream, 4, 4, {}, type, RGBA8), isPNG || isJPEG) << number;
    }
    DynamicFile file;
    EXPECT_FALSE(file.Create(Item(), 4, 4, {}, FileTypePNG, RGBA8));
    EXPECT_FALSE(file.Create(Kernel::Counted<Kernel::OutStreamSeekable>(), 4, 4, {}, FileTypePNG, RGBA8));
    EXPECT_FALSE(file.Create(static_cast<char const *>(nullptr), 4, 4, {}, FileTypePNG, RGBA8));
}

TEST_F(DynamicFileTest, AFormatThatTheTypeCannotHoldIsRefused) {
    for (unsigned number = 0; number < 13; ++number) {
        auto const format = Format(number);
        DynamicFile file;
        bool const isPNG =
            format == RGBA8 || format == RGBA16 || format == IA8 || format == IA16 || format == A8 || format == A16;
        EXPECT_EQ(file.Create(PathOf("file").c_str(), 4, 4, {}, FileTypePNG, format), isPNG) << number;
        bool const isJPEG = format == RGBA8 || format == IA8 || format == CMYKA8;
        EXPECT_EQ(file.Create(PathOf("file").c_str(), 4, 4, {}, FileTypeJPEG, format), isJPEG) << number;
    }
}

TEST_F(DynamicFileTest, AnUnwritablePlaceIsSaid) {
    for (auto const type : {FileTypePNG, FileTypeJPEG}) {
        DynamicFile file;
        EXPECT_FALSE(file.Create(PathOf("missing/file").c_str(), 4, 4, {}, type, RGBA8));
        EXPECT_NE(file.GetFailure(), "");
        EXPECT_FALSE(file.Create(folder.string().c_str(), 4, 4, {}, type, RGBA8));
        EXPECT_TRUE(file.HasFailed());
    }
}

TEST_F(DynamicFileTest, AFullDiskFailsTheFile) {
    auto const picture = MakePicture<RGBA8Tuple>(600, 500, 1);
    for (auto const type : {FileTypePNG, FileTypeJPEG}) {
        DynamicFile file;
        ASSERT_TRUE(file.Create("/dev/full", 600, 500, {}, type, RGBA8));
        EXPECT_ANY_THROW(Feed(file, DynamicBitmap(MakeBitmap<RGBA8Tuple>(picture)), nullptr));
        EXPECT_TRUE(file.HasFailed());
        EXPECT_NE(file.GetFailure(), "");
    }
}

TEST_F(DynamicFileTest, AnAbortedFileHasFailed) {
    bool abort = true;
    TransferParams params;
    params.abort = &abort;
    for (auto const type : {FileTypePNG, FileTypeJPEG}) {
        DynamicFile file;
        ASSERT_TRUE(file.Create(PathOf("file").c_str(), 60, 50, {}, type, RGBA8));
        EXPECT_FALSE(Feed(file, DynamicBitmap(MakeBitmap<RGBA8Tuple>(MakePicture<RGBA8Tuple>(60, 50, 1))), &params));
        EXPECT_TRUE(file.HasFailed());
    }
}

TEST_F(DynamicFileTest, ABitmapOfAnotherFormatIsConverted) {
    auto const picture = MakeShownPicture<RGBA16Tuple>(120, 300);
    DynamicBitmap const bitmap(MakeBitmap<RGBA16Tuple>(picture));
    DynamicFile file;
    ASSERT_TRUE(file.Create(PathOf("file").c_str(), 120, 300, {}, FileTypePNG, RGBA8));
    EXPECT_TRUE(Feed(file, bitmap, nullptr));
    Slow::Picture<RGBA8Tuple> expected(120, 300);
    for (std::size_t i = 0; i < picture.pixels.size(); ++i) {
        ConvertPixel<RGBA8Tuple, RGBA16Tuple>(expected.pixels[i], picture.pixels[i]);
        if (expected.pixels[i][3] == 0)
            expected.pixels[i] = {};
    }
    CheckPNGRoundTrip(PathOf("file"), expected);
}

TEST_F(DynamicFileTest, LimitsAreAppliedBeforeMemoryIsTaken) {
    auto const path = Write("picture.png", FileTypePNG, MakeShownPicture<RGBA8Tuple>(400, 300));
    auto limits = GetImageLimits();
    limits.largestDecodedBytes = 400 * 300 * 4 - 1;
    SetImageLimits(limits);
    auto const before = MemoryManager::Instance().GetInterleavedPeakUsage();
    DynamicFile file;
    DynamicBitmap bitmap(400, 300, RGBA8, MipmapModeNone, HardwareCachePolicy());
    // Either at once, or when the pixels are wanted.
    if (file.Create(path.c_str()))
        try {
            Draw(bitmap, file, nullptr, nullptr, 0, 0);
        } catch (ImageLimitError const &) {
        }
    EXPECT_TRUE(file.HasFailed());
    EXPECT_THAT(file.GetFailure(), HasSubstr("largestDecodedBytes"));
    EXPECT_THAT(file.GetFailure(), HasSubstr("480000"));
    EXPECT_TRUE(bitmap.GetAllocatedBoundingBox().IsEmpty());
    EXPECT_EQ(MemoryManager::Instance().GetInterleavedPeakUsage(), before);

    SetImageLimits({});
    CheckPNGRoundTrip(path, MakeShownPicture<RGBA8Tuple>(400, 300));
}

TEST_F(DynamicFileTest, CopiesShareTheFile) {
    auto const path = Write("picture.png", FileTypePNG, MakeShownPicture<RGBA8Tuple>(40, 30));
    DynamicFile file;
    ASSERT_TRUE(file.Create(path.c_str()));
    DynamicFile const copy = file;
    EXPECT_FALSE(file.Create(PathOf("missing").c_str()));
    EXPECT_EQ(copy.GetWidth(), 40);
    EXPECT_FALSE(copy.HasFailed());
}

TEST_F(DynamicFileTest, ManyThreadsReadOneFile) {
    auto const picture = MakeShownPicture<RGBA8Tuple>(500, 400);
    auto const path = Write("picture.png", FileTypePNG, picture);
    DynamicFile file;
    ASSERT_TRUE(file.Create(path.c_str()));
    std::vector<std::thread> threads;
    std::vector<std::string> differences(6);
    for (auto & difference : differences)
        threads.emplace_back([&] {
            DynamicBitmap bitmap(500, 400, RGBA8, MipmapModeNone, HardwareCachePolicy());
            Draw(bitmap, file, nullptr, nullptr, 0, 0);
            difference = FindDifference<RGBA8Tuple>(picture, *bitmap.GetTyped<RGBA8Tuple>());
        });
    for (auto & thread : threads)
        thread.join();
    EXPECT_THAT(differences, testing::Each(""));
}
}
