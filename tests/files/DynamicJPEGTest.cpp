#include "files/jpeg/DynamicJPEG.h"

#include "files/JPEGTesting.h"
#include "kernel/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include <sys/stat.h>
#include <unistd.h>

namespace Raster {
namespace {
using testing::HasSubstr;

Kernel::Counted<CompressedRasterData> DataOf(JPEGBytes const & bytes) {
    auto data = Kernel::MakeCounted<CompressedRasterData>();
    data->CopyFrom(bytes.data(), bytes.size());
    return data;
}

void WriteGrey(DynamicJPEG & file) {
    IA8JPEG::PixelAccessor<AllChannels> writer(file.GetTyped<IA8Tuple>());
    for (int y = 0; y < file.GetHeight(); ++y) {
        writer.SetToXY(0, y);
        for (int x = 0; x < file.GetWidth(); ++x, writer.Increment()) {
            IA8JPEG::PixelType pixel{{static_cast<std::uint8_t>(x * 5 + y), 255}};
            writer.Write(pixel);
        }
    }
}

JPEGBytes LoadBytes(std::string const & path) {
    auto const text = GetFile(path);
    return {text.begin(), text.end()};
}

TEST(DynamicJPEG, IsEmptyAtFirst) {
    DynamicJPEG const file;
    EXPECT_EQ(NoFormat, file.GetFormat());
    EXPECT_EQ(0, file.GetWidth());
    EXPECT_EQ(0, file.GetHeight());
    EXPECT_EQ(0.0, file.GetDPI());
    EXPECT_FALSE(file.GetProfile());
    EXPECT_FALSE(file.IsProfileFallback());
    EXPECT_EQ(1, file.GetOrientation());
    EXPECT_FALSE(file.HasFailed());
    EXPECT_EQ("", file.GetFailure());
    EXPECT_FALSE(file.EndedEarly());
    EXPECT_EQ("", file.GetWarning());
}

TEST(DynamicJPEG, TellsItsName) {
    DynamicJPEG file;
    EXPECT_EQ("DynamicJPEG", file.GetDescription());
    EXPECT_EQ("JPEG<Red,Green,Blue,Alpha,Empty>", Open<RGBA8JPEG>(MakeJPEG({}))->GetDescription());
}

TEST(DynamicJPEG, KnowsTheFormatsThatCanBeWritten) {
    std::map<Format, Format> const expected = {
        {RGBA8, RGBA8},  {RGBA16, RGBA8},     {IA8, IA8},          {IA16, IA8}, {CMYKA8, CMYKA8},
        {LABA16, RGBA8}, {A8, IA8},           {A16, IA8},          {AF, IA8},   {NoFormat, RGBA8},
        {RGBAUF, RGBA8}, {Format(11), RGBA8}, {Format(999), RGBA8}};
    for (auto const & [asked, answer] : expected) {
        EXPECT_EQ(answer, DynamicJPEG::GetSupportedFormat(asked)) << asked;
        EXPECT_EQ(asked == answer && asked != NoFormat, DynamicJPEG::IsSupportedFormat(asked)) << asked;
    }
}

TEST(DynamicJPEG, RecognisesAFileByItsFirstThreeBytes) {
    TemporaryDirectory directory;
    auto const path = directory.GetPath("file");
    for (auto const & [bytes, isJPEG] : {std::pair{JPEGBytes{0xFF, 0xD8, 0xFF}, true},
                                         {{0xFF, 0xD8, 0xFF, 0}, true},
                                         {{0xFF, 0xD8}, false},
                                         {{}, false},
                                         {{0xFF, 0xD8, 0xFE, 0xFF}, false},
                                         {{0x89, 'P', 'N', 'G'}, false}}) {
        PutFile(path, {bytes.begin(), bytes.end()});
        EXPECT_EQ(isJPEG, DynamicJPEG::IsJPEGFile(path.c_str()));
        EXPECT_EQ(isJPEG, DynamicJPEG::IsJPEGFile(Kernel::Counted<CompressedRasterData const>(DataOf(bytes))));
    }
    EXPECT_FALSE(DynamicJPEG::IsJPEGFile(directory.GetPath("none").c_str()));
    EXPECT_FALSE(DynamicJPEG::IsJPEGFile(directory.GetPath().c_str()));
    EXPECT_FALSE(DynamicJPEG::IsJPEGFile(static_cast<char const *>(nullptr)));
    EXPECT_FALSE(DynamicJPEG::IsJPEGFile(Kernel::Counted<CompressedRasterData const>()));
}

TEST(DynamicJPEG, ReadsPathsMemoryAndStreams) {
    TemporaryDirectory directory;
    JPEGRecipe recipe;
    recipe.width = 12;
    recipe.height = 7;
    auto const bytes = MakeJPEG(recipe);
    PutFile(directory.GetPath("\xC3\xA4 \xFF.jpg"), {bytes.begin(), bytes.end()}); // names need not be UTF-8
    DynamicJPEG fromPath, fromMemory, fromStream;
    {
        std::string path = directory.GetPath("\xC3\xA4 \xFF.jpg");
        ASSERT_TRUE(fromPath.Create(path.c_str()));
        path.assign(path.size(), 'x'); // it was copied
    }
    ASSERT_TRUE(fromMemory.Create(Kernel::Counted<CompressedRasterData const>(DataOf(bytes))));
    ASSERT_TRUE(fromStream.CreateFromStream(StreamOf(bytes)));
    for (auto const * file : {&fromPath, &fromMemory, &fromStream}) {
        ASSERT_EQ(RGBA8, file->GetFormat());
        EXPECT_EQ(12, file->GetWidth());
        EXPECT_EQ(7, file->GetHeight());
        EXPECT_EQ(AddAlpha(AskLibjpeg(bytes)), ReadPixels(*file->GetTyped<RGBA8Tuple>()));
    }
}

TEST(DynamicJPEG, WritesPathsMemoryAndStreams) {
    TemporaryDirectory directory;
    auto const path = directory.GetPath("file.jpg");
    auto const data = Kernel::MakeCounted<CompressedRasterData>();
    auto const stream = Kernel::MakeCounted<TestOutStream>();
    DynamicJPEG toPath, toMemory, toStream;
    ASSERT_TRUE(toPath.Create(path.c_str(), 30, 20, {}, IA8));
    ASSERT_TRUE(toMemory.Create(data, 30, 20, {}, IA8));
    ASSERT_TRUE(toStream.CreateToStream(stream, 30, 20, {}, IA8));
    for (auto * file : {&toPath, &toMemory, &toStream}) {
        EXPECT_EQ(IA8, file->GetFormat());
        EXPECT_EQ(30, file->GetWidth());
        WriteGrey(*file);
        EXPECT_FALSE(file->HasFailed());
    }
    EXPECT_TRUE(AskLibjpeg(stream->bytes).hasPixels);
    EXPECT_EQ(stream->bytes, LoadBytes(path)) << "complete while the model lives";
    EXPECT_EQ(stream->bytes, JPEGBytes(data->GetData(), data->GetData() + data->GetSize()));
}

TEST(DynamicJPEG, ChangesNothingWhereItCannotOpen) {
    TemporaryDirectory directory;
    auto const pipe = directory.GetPath("pipe");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    JPEGRecipe recipe;
    recipe.width = 3;
    DynamicJPEG file;
    ASSERT_TRUE(file.CreateFromStream(StreamOf(MakeJPEG(recipe))));
    auto const expectUnchanged = [&](bool created) {
        EXPECT_FALSE(created);
        EXPECT_EQ(RGBA8, file.GetFormat());
        EXPECT_EQ(3, file.GetWidth());
        EXPECT_TRUE(file.HasFailed());
        EXPECT_NE("", file.GetFailure());
    };
    expectUnchanged(file.Create(directory.GetPath("none").c_str()));
    EXPECT_THAT(file.GetFailure(), HasSubstr("No such file"));
    expectUnchanged(file.Create(directory.GetPath().c_str()));
    EXPECT_THAT(file.GetFailure(), HasSubstr("directory"));
    expectUnchanged(file.Create(pipe.c_str()));
    expectUnchanged(file.Create(static_cast<char const *>(nullptr)));
    expectUnchanged(file.Create(Kernel::Counted<CompressedRasterData const>()));
    expectUnchanged(file.CreateFromStream({}));
    for (auto const & path : {directory.GetPath("none/file.jpg"), directory.GetPath(), pipe})
        expectUnchanged(file.Create(path.c_str(), 1, 1, {}, RGBA8));
    EXPECT_THAT(file.GetFailure(), HasSubstr("can't be written"));
    expectUnchanged(file.Create(static_cast<char const *>(nullptr), 1, 1, {}, RGBA8));
    expectUnchanged(file.Create(Kernel::Counted<CompressedRasterData>(), 1, 1, {}, RGBA8));
    expectUnchanged(file.CreateToStream({}, 1, 1, {}, RGBA8));
    for (Format const format : {RGBA16, IA16, LABA16, A8, A16, NoFormat, RGBAUF, AF, Format(77)})
        expectUnchanged(file.CreateToStream(Kernel::MakeCounted<TestOutStream>(), 1, 1, {}, format));
    ASSERT_TRUE(file.CreateFromStream(StreamOf(MakeJPEG({}))));
    EXPECT_FALSE(file.HasFailed()) << "opening anew drops the failure";
    EXPECT_EQ(1, file.GetWidth());
}

TEST(DynamicJPEG, LeavesNoFileWhereTheFormatIsRefused) {
    TemporaryDirectory directory;
    auto const path = directory.GetPath("file.jpg");
    DynamicJPEG file;
    EXPECT_FALSE(file.Create(path.c_str(), 1, 1, {}, RGBA16));
    EXPECT_NE(0, access(path.c_str(), F_OK));
}

TEST(DynamicJPEG, ReplacesWhatItHeldByABrokenFile) {
    DynamicJPEG file;
    ASSERT_TRUE(file.CreateFromStream(StreamOf(MakeJPEG({}))));
    EXPECT_TRUE(file.CreateFromStream(StreamOf({0xFF, 0xD8, 0xFF, 0xE0})));
    EXPECT_EQ(NoFormat, file.GetFormat());
    EXPECT_EQ(0, file.GetWidth());
    EXPECT_TRUE(file.HasFailed());
}

TEST(DynamicJPEG, HasNoCopyOfAFile) {
    DynamicJPEG file;
    ASSERT_TRUE(file.CreateFromStream(StreamOf(MakeJPEG({}))));
    std::unique_ptr<DynamicJPEG> const clone(file.Clone()), empty(file.CloneEmpty());
    for (auto const * copy : {clone.get(), empty.get()}) {
        EXPECT_EQ(RGBA8, copy->GetFormat());
        EXPECT_EQ(0, copy->GetWidth());
    }
    EXPECT_EQ(RGBA8, DynamicJPEG(file).GetFormat());
    EXPECT_EQ(1, DynamicJPEG(file).GetWidth()) << "copies share it";
}

TEST(DynamicJPEG, TellsOfAFullDisk) {
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "there is no /dev/full";
    DynamicJPEG file;
    ASSERT_TRUE(file.Create("/dev/full", 30, 20, {}, IA8));
    EXPECT_THROW(WriteGrey(file), Kernel::OutStream::WriteException);
    EXPECT_TRUE(file.HasFailed());
}
}
}
