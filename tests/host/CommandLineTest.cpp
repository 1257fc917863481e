#include "host/CommandLine.h"

#include "host/Failure.h"

#include <gtest/gtest.h>

#include <vector>

namespace Host {
namespace {
Invocation Parse(std::vector<std::string> words) {
    words.insert(words.begin(), "raster");
    std::vector<char *> arguments;
    for (auto & word : words)
        arguments.push_back(word.data());
    return ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

std::string GetErrorOf(std::vector<std::string> const & words) {
    try {
        Parse(words);
    } catch (UsageError const & error) {
        return error.what();
    }
    return {};
}

TEST(CommandLine, HasDefaultsForEverything) {
    auto const invocation = Parse({"convert", "in.png", "out.jpg"});
    auto const & convert = std::get<ConvertSettings>(invocation.command);
    EXPECT_EQ("in.png", convert.in);
    EXPECT_EQ("out.jpg", convert.out);
    EXPECT_EQ(90u, convert.writing.quality);
    EXPECT_FALSE(convert.writing.type);
    EXPECT_FALSE(convert.writing.dpi);
    EXPECT_EQ((Colour{255, 255, 255}), convert.writing.background);
    EXPECT_EQ(Raster::Intent::Perceptual, convert.colours.intent);
    EXPECT_FALSE(invocation.global.memoryMebibytes);
    EXPECT_EQ(0u, invocation.global.threads);
}

TEST(CommandLine, TakesEveryOptionOfConvert) {
    auto const invocation = Parse({"convert",
                                   "-",
                                   "-",
                                   "--type",
                                   "png",
                                   "--format",
                                   "IA16",
                                   "--quality",
                                   "0",
                                   "--dpi",
                                   "300.5",
                                   "--progressive",
                                   "--profile",
                                   "p.icc",
                                   "--intent",
                                   "absolute",
                                   "--bpc",
                                   "--assume-profile",
                                   "q.icc",
                                   "--strip-alpha",
                                   "--auto-orient",
                                   "--background",
                                   "#0a0B0c",
                                   "--no-clobber",
                                   "--force",
                                   "--strict"});
    auto const & convert = std::get<ConvertSettings>(invocation.command);
    EXPECT_EQ(Raster::FileTypePNG, convert.writing.type);
    EXPECT_EQ(Raster::IA16, convert.colours.format);
    EXPECT_EQ(0u, convert.writing.quality);
    EXPECT_EQ(300.5, convert.writing.dpi);
    EXPECT_TRUE(convert.writing.progressive && convert.writing.stripAlpha && convert.writing.noClobber &&
                convert.writing.force && convert.autoOrient && convert.reading.strict &&
                convert.colours.blackPointCompensation);
    EXPECT_EQ("p.icc", convert.colours.profile);
    EXPECT_EQ(Raster::Intent::AbsoluteColorimetric, convert.colours.intent);
    EXPECT_EQ("q.icc", convert.reading.assumeProfile);
    EXPECT_EQ((Colour{10, 11, 12}), convert.writing.background);
}

TEST(CommandLine, TakesGlobalOptionsBeforeAndBehindTheCommand) {
    for (auto const & words : {std::vector<std::string>{"--memory", "12", "--threads", "3", "--quiet", "info", "a"},
                               std::vector<std::string>{"info", "a", "--memory=12", "--threads", "3", "--quiet"}}) {
        auto const invocation = Parse(words);
        EXPECT_EQ(12u, invocation.global.memoryMebibytes);
        EXPECT_EQ(3u, invocation.global.threads);
        EXPECT_TRUE(invocation.global.quiet);
        EXPECT_EQ(std::vector<std::string>{"a"}, std::get<InfoSettings>(invocation.command).files);
    }
}

TEST(CommandLine, TakesNegativePositionsAndAngles) {
    auto const invocation = Parse({"composite", "b", "o", "out.png", "--at", "-5,-6.5", "--rotate", "-30"});
    auto const & composite = std::get<CompositeSettings>(invocation.command);
    EXPECT_EQ(-5, composite.x);
    EXPECT_EQ(-6.5, composite.y);
    EXPECT_EQ(-30, composite.rotateDegrees);
}

TEST(CommandLine, TakesFilesThatAreNamedLikeCommandsAndOptions) {
    EXPECT_EQ((std::vector<std::string>{"convert", "info"}),
              std::get<InfoSettings>(Parse({"info", "convert", "info"}).command).files);
    EXPECT_EQ((std::vector<std::string>{"--json"}),
              std::get<InfoSettings>(Parse({"info", "--", "--json"}).command).files);
}

TEST(CommandLine, RefusesWhatMakesNoSense) {
    for (std::vector<std::string> const & words : std::vector<std::vector<std::string>>{
             {},
             {"paint"},
             {"info"},
             {"info", "a", "--jason"},
             {"convert", "a"},
             {"convert", "a", "b.png", "c"},
             {"convert", "a", "b.png", "--quality", "101"},
             {"convert", "a", "b.png", "--quality", "-1"},
             {"convert", "a", "b.png", "--quality", "9x"},
             {"convert", "a", "b.png", "--quality"},
             {"convert", "a", "b.png", "--dpi", "nan"},
             {"convert", "a", "b.png", "--dpi", "inf"},
             {"convert", "a", "b.png", "--dpi", "0"},
             {"convert", "a", "b.png", "--type", "bmp"},
             {"convert", "a", "b.png", "--format", "RGB"},
             {"convert", "a", "b.png", "--intent", "loud"},
             {"convert", "a", "b.png", "--background", "#12345"},
             {"convert", "a", "b.png", "--background", "#12345g"},
             {"convert", "a", "b.png", "--background", "-12345"},
             {"convert", "a", "b.png", "--memory", "0"},
             {"convert", "a", "b.png", "--memory", "17592186044416"}, // 2^64 bytes
             {"convert", "a", "b.png", "--threads", "0"},
             {"resize", "a", "b.png"},
             {"resize", "a", "b.png", "--width", "0"},
             {"resize", "a", "b.png", "--width", "4294967297"},
             {"resize", "a", "b.png", "--scale", "0"},
             {"resize", "a", "b.png", "--scale", "2", "--width", "3"},
             {"resize", "a", "b.png", "--width", "3", "--stretch"},
             {"thumbnail", "a", "--size", "10"},
             {"thumbnail", "a", "--out", "d"},
             {"thumbnail", "--size", "10", "--out", "d"},
             {"thumbnail", "-", "-", "--size", "10", "--out", "d"},
             {"composite", "-", "-", "b.png"},
             {"composite", "a", "b", "c.png", "--at", "1"},
             {"composite", "a", "b", "c.png", "--at", "1,"},
             {"composite", "a", "b", "c.png", "--at", "1,2,3"},
             {"composite", "a", "b", "c.png", "--opacity", "1.5"},
             {"profile"},
             {"profile", "show"},
             {"profile", "list", "x"},
         }) {
        std::string line;
        for (auto const & word : words)
            line += word + ' ';
        EXPECT_NE("", GetErrorOf(words)) << line;
    }
}

TEST(CommandLine, SaysWhichValuesThereAre) {
    EXPECT_NE(std::string::npos, GetErrorOf({"convert", "a", "b", "--type", "bmp"}).find("jpeg (.jpg"));
    EXPECT_NE(std::string::npos, GetErrorOf({"convert", "a", "b.png", "--format", "x"}).find("CMYKA8"));
    EXPECT_NE(std::string::npos, GetErrorOf({"convert", "a", "b.png", "--quality", "101"}).find("0 to 100"));
}

TEST(CommandLine, SaysWhichOptionLacksItsValue) {
    EXPECT_EQ("--memory needs a value", GetErrorOf({"info", "a", "--memory"}));
    EXPECT_EQ("--background needs a value", GetErrorOf({"convert", "a", "b.png", "--background"}));
    EXPECT_EQ("--profile needs a value", GetErrorOf({"convert", "a", "b.png", "--profile"}));
}

TEST(CommandLine, SaysWhichCommandsThereAre) {
    EXPECT_EQ("'paint' is no command; there are info, convert, resize, thumbnail, composite, profile and document",
              GetErrorOf({"paint"}));
    EXPECT_EQ("'paint' is no command; there are info, convert, resize, thumbnail, composite, profile and document",
              GetErrorOf({"--quiet", "paint", "a.png", "--strict"}));
    EXPECT_EQ("a command is missing; there are info, convert, resize, thumbnail, composite, profile and document",
              GetErrorOf({}));
    EXPECT_EQ("profile: 'lst' is no command; there are list and show", GetErrorOf({"profile", "lst"}));
    EXPECT_EQ("document: a command is missing; there are create, info, extract, fill, stamp, flatten, compact, verify "
              "and salvage",
              GetErrorOf({"document"}));
    EXPECT_EQ("FILE is required", GetErrorOf({"profile", "show"}));
}

TEST(CommandLine, SaysInTheHelpOfCommandsWhereTheOtherOptionsAre) {
    auto const help = Parse({"document", "extract", "--help"}).answer;
    EXPECT_NE(std::string::npos, help.find("such as --memory and --quiet")) << help;
    EXPECT_EQ(std::string::npos, help.find("TEXT")) << help;
    EXPECT_EQ(std::string::npos, Parse({"--help"}).answer.find("such as --memory")); // it lists them itself
}

TEST(CommandLine, AnswersQuestionsAboutItself) {
    EXPECT_EQ(0u, Parse({"--version"}).answer.find("raster "));
    EXPECT_NE(std::string::npos, Parse({"--help"}).answer.find("thumbnail"));
    EXPECT_NE(std::string::npos, Parse({"convert", "--help"}).answer.find("--assume-profile"));
}

TEST(CommandLine, TellsTheTwoQuestionsAboutProfilesApart) {
    EXPECT_TRUE(std::get<ProfileSettings>(Parse({"profile", "list"}).command).list);
    auto const show = std::get<ProfileSettings>(Parse({"profile", "show", "x.icc", "--quiet"}).command);
    EXPECT_FALSE(show.list);
    EXPECT_EQ("x.icc", show.file);
}
}
}
