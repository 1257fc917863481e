#include "colour/ColourTesting.h"
#include "pixel/LabSeam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;
using testing::ElementsAre;
using testing::IsEmpty;

Profile Press() {
    static Profile const press = Add(Synthetic::Take(Synthetic::CreateCMYK("press")));
    return press;
}
Profile Default(ColourSpace space) { return Manager().GetDefaultProfile(space); }
Profile ForFormat(Format format) { return format == CMYKA8 ? Press() : Manager().GetDefaultProfileForFormat(format); }

struct Layout {
    Format format;
    std::size_t pixelBytes, alphaOffset;
};
constexpr Layout layouts[] = {{RGBA8, 4, 3},  {RGBA16, 8, 6}, {IA8, 2, 1},     {IA16, 4, 2},
                              {CMYKA8, 5, 4}, {LABA16, 8, 6}, {RGBAUF, 16, 12}};

void * Get(Layout const & from, Layout const & to) {
    return Manager().GetTransformForProfiles(from.format, ForFormat(from.format), to.format, ForFormat(to.format),
                                             Intent::Perceptual, false);
}

/// Pixels with any colours, floats mostly within 0 to 1.
std::vector<unsigned char> AnyPixels(Layout const & layout, std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<unsigned char> result(count * layout.pixelBytes);
    if (layout.format == RGBAUF)
        for (std::size_t i = 0; i < result.size(); i += 4) {
            float const value = float(random() % 1500) / 1000.0f - 0.25f;
            std::memcpy(&result[i], &value, 4);
        }
    else
        for (auto & byte : result)
            byte = static_cast<unsigned char>(random());
    return result;
}

std::vector<unsigned char> Apply(void * transform, std::vector<unsigned char> const & in, Layout const & from,
                                 Layout const & to, unsigned char filler = 0xA5) {
    std::size_t const count = in.size() / from.pixelBytes;
    std::vector<unsigned char> out(count * to.pixelBytes, filler);
    ICCManager::DoTransform(transform, in.data(), out.data(), int(count));
    return out;
}

TEST(ICCTransform, TypesAreThoseOfTheColourLibrary) {
    EXPECT_EQ(TYPE_RGBA_8, ICCManager::_TYPE_RGBA_8());
    EXPECT_EQ(TYPE_RGBA_16, ICCManager::_TYPE_RGBA_16());
    EXPECT_EQ(TYPE_GRAYA_8, ICCManager::_TYPE_GRAYA_8());
    EXPECT_EQ(TYPE_GRAYA_16, ICCManager::_TYPE_GRAYA_16());
    EXPECT_EQ(TYPE_CMYKA_8, ICCManager::_TYPE_CMYKA_8());
    EXPECT_EQ(TYPE_Lab_16 | EXTRA_SH(1), ICCManager::_TYPE_LabA_16());
    EXPECT_EQ(TYPE_RGBA_FLT, ICCManager::_TYPE_RGBA_FLT());
    EXPECT_EQ(TYPE_RGBA_FLT & ~7u, ICCManager::_TYPE_RGBA_HALF_FLT() & ~7u);
    EXPECT_EQ(TYPE_RGB_HALF_FLT | EXTRA_SH(1), ICCManager::_TYPE_RGBA_HALF_FLT());
    EXPECT_EQ(TYPE_BGRA_8, ICCManager::_TYPE_BGRA_8());
    EXPECT_EQ(0x40099u, ICCManager::ICCTypeFromFormat(RGBA8));
    EXPECT_EQ(0x4009Au, ICCManager::ICCTypeFromFormat(RGBA16));
    EXPECT_EQ(0x30089u, ICCManager::ICCTypeFromFormat(IA8));
    EXPECT_EQ(0x3008Au, ICCManager::ICCTypeFromFormat(IA16));
    EXPECT_EQ(0x600A1u, ICCManager::ICCTypeFromFormat(CMYKA8));
    EXPECT_EQ(0xA009Au, ICCManager::ICCTypeFromFormat(LABA16));
    EXPECT_EQ(0x44009Cu, ICCManager::ICCTypeFromFormat(RGBAUF));
    for (auto const format : {A8, A16, AF, NoFormat, static_cast<Format>(11), static_cast<Format>(1u << 31)})
        EXPECT_EQ(0u, ICCManager::ICCTypeFromFormat(format));
}

TEST(ICCTransform, IntentsKeepTheirNumbersAndOthersArePerceptual) {
    EXPECT_EQ(0u, ICCManager::ICCIntentFromIntent(Intent::Perceptual));
    EXPECT_EQ(1u, ICCManager::ICCIntentFromIntent(Intent::RelativeColorimetric));
    EXPECT_EQ(2u, ICCManager::ICCIntentFromIntent(Intent::Saturation));
    EXPECT_EQ(3u, ICCManager::ICCIntentFromIntent(Intent::AbsoluteColorimetric));
    EXPECT_EQ(0u, ICCManager::ICCIntentFromIntent(static_cast<Intent>(4)));
    EXPECT_EQ(0u, ICCManager::ICCIntentFromIntent(static_cast<Intent>(~0u)));
}

TEST(ICCTransform, SameOnBothSidesNeedsNone) {
    auto & manager = Manager();
    auto const sRGB = Default(ColourSpaceRGB), linear = Default(ColourSpaceRGBUF);
    TraceCapture messages;
    EXPECT_EQ(nullptr, manager.GetTransformForProfiles(RGBA8, sRGB, RGBA8, sRGB, Intent::Perceptual, false));
    EXPECT_EQ(nullptr, manager.GetTransformForProfiles(A8, sRGB, A8, sRGB, Intent::Perceptual, false));
    EXPECT_EQ(nullptr, manager.GetTransformForProfiles(RGBA8, nullptr, RGBA16, sRGB, Intent::Perceptual, false));
    EXPECT_EQ(nullptr, manager.GetTransformForProfiles(RGBA8, sRGB, RGBA16, nullptr, Intent::Perceptual, false));
    EXPECT_EQ(nullptr, manager.GetProofingTransformForProfiles(RGBA8, sRGB, sRGB, Intent::Perceptual,
                                                               Intent::Perceptual, false, false));
    EXPECT_EQ(nullptr, manager.GetProofingTransformForProfiles(RGBA8, nullptr, Press(), Intent::Perceptual,
                                                               Intent::Perceptual, false, false));
    EXPECT_EQ(nullptr, manager.GetProofingTransformForProfiles(RGBA8, sRGB, nullptr, Intent::Perceptual,
                                                               Intent::Perceptual, false, false));
    EXPECT_THAT(messages.Take(), IsEmpty()) << "nothing was tried";
    EXPECT_NE(nullptr, manager.GetTransformForProfiles(RGBA8, sRGB, RGBA16, sRGB, Intent::Perceptual, false));
    EXPECT_NE(nullptr, manager.GetTransformForProfiles(RGBA8, sRGB, RGBAUF, linear, Intent::Perceptual, false));
}

TEST(ICCTransform, EqualRequestsShareOneAndEveryDifferenceMakesAnother) {
    auto & manager = Manager();
    auto const sRGB = Default(ColourSpaceRGB), other = Add(Synthetic::Take(Synthetic::CreateRGB("key", 2, 2, 2)));
    auto const get = [&](Format from, Profile const & source, Format to, Profile const & destination, Intent intent,
                         bool black) {
        return manager.GetTransformForProfiles(from, source, to, destination, intent, black);
    };
    std::vector<void *> const all = {get(RGBA8, sRGB, RGBA8, other, Intent::Perceptual, false),
                                     get(RGBA8, sRGB, RGBA8, other, Intent::Perceptual, true),
                                     get(RGBA8, sRGB, RGBA8, other, Intent::Saturation, false),
                                     get(RGBA8, sRGB, RGBA16, other, Intent::Perceptual, false),
                                     get(RGBA16, sRGB, RGBA8, other, Intent::Perceptual, false),
                                     get(RGBA8, other, RGBA8, sRGB, Intent::Perceptual, false)};
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_NE(nullptr, all[i]) << i;
        EXPECT_EQ(1, std::ranges::count(all, all[i])) << i;
    }
    EXPECT_EQ(all[0], get(RGBA8, sRGB, RGBA8, other, Intent::Perceptual, false));
    EXPECT_EQ(all[1], get(RGBA8, sRGB, RGBA8, other, Intent::Perceptual, true));
    EXPECT_EQ(all[0], get(RGBA8, sRGB, RGBA8, other, static_cast<Intent>(7), false))
        << "an unknown intent is perceptual";
}

TEST(ICCTransform, EveryProofingFlagAndIntentCounts) {
    auto & manager = Manager();
    auto const sRGB = Default(ColourSpaceRGB);
    // A display as the press: with tables in both directions each would take a second.
    auto const press = Add(Synthetic::Take(Synthetic::CreateRGB("proofed display", 1.5, 1.5, 1.5)));
    std::vector<void *> all;
    for (bool const black : {false, true})
        for (bool const gamut : {false, true})
            for (auto const intent : {Intent::Perceptual, Intent::RelativeColorimetric})
                for (auto const proofing : {Intent::RelativeColorimetric, Intent::AbsoluteColorimetric})
                    for (auto const format : {RGBA8, RGBA16}) {
                        // Checking the gamut costs half a second a transform, and the one more without it is enough.
                        if (format == RGBA16 && (gamut || intent == proofing))
                            continue;
                        auto const get = [&] {
                            return manager.GetProofingTransformForProfiles(format, sRGB, press, intent, proofing, black,
                                                                           gamut);
                        };
                        all.push_back(get());
                        EXPECT_NE(nullptr, all.back());
                        EXPECT_EQ(all.back(), get());
                    }
    std::ranges::sort(all);
    EXPECT_TRUE(std::ranges::adjacent_find(all) == all.end());
}

TEST(ICCTransform, FailureIsCachedAndTracedOnce) {
    auto & manager = Manager();
    auto const sRGB = Default(ColourSpaceRGB), grey = Default(ColourSpaceGrey);
    TraceCapture messages;
    auto const line =
        "Colour engine failed to create transform between " + NameOf(grey) + " and " + NameOf(sRGB) + "\r\n";
    auto const proofingLine =
        "Colour engine failed to create proofing transform between " + NameOf(grey) + " and " + NameOf(sRGB) + "\r\n";
    // Grey pixels can't be told by the bytes of RGBA8.
    EXPECT_EQ(nullptr, manager.GetTransformForProfiles(RGBA8, grey, RGBA8, sRGB, Intent::Perceptual, false));
    EXPECT_THAT(messages.Take(), ElementsAre(line));
    EXPECT_EQ(nullptr, manager.GetTransformForProfiles(RGBA8, grey, RGBA8, sRGB, Intent::Perceptual, false));
    EXPECT_THAT(messages.Take(), IsEmpty());
    EXPECT_EQ(nullptr, manager.GetProofingTransformForProfiles(RGBA8, grey, sRGB, Intent::Perceptual,
                                                               Intent::Perceptual, false, false));
    EXPECT_THAT(messages.Take(), ElementsAre(proofingLine));
    EXPECT_EQ(nullptr, manager.GetProofingTransformForProfiles(RGBA8, grey, sRGB, Intent::Perceptual,
                                                               Intent::Perceptual, false, false));
    EXPECT_THAT(messages.Take(), IsEmpty());
}

TEST(ICCTransform, FormatsWithoutATypeFailOnce) {
    auto & manager = Manager();
    auto const sRGB = Default(ColourSpaceRGB), grey = Default(ColourSpaceGrey);
    for (auto const format : {A8, A16, NoFormat, AF, static_cast<Format>(11)}) {
        TraceCapture messages;
        EXPECT_EQ(nullptr, manager.GetTransformForProfiles(format, sRGB, IA8, grey, Intent::Saturation, false));
        // All these have type 0, so that the first one stands for all.
        EXPECT_EQ(format == A8 ? 1u : 0u, messages.Take().size()) << format;
        EXPECT_EQ(nullptr, manager.GetTransformForProfiles(RGBA8, sRGB, format, grey, Intent::Saturation, false));
        EXPECT_EQ(format == A8 ? 1u : 0u, messages.Take().size()) << format;
        EXPECT_EQ(nullptr, manager.GetProofingTransformForProfiles(format, sRGB, grey, Intent::Saturation,
                                                                   Intent::Perceptual, false, false));
        EXPECT_EQ(format == A8 ? 1u : 0u, messages.Take().size()) << format;
    }
}

TEST(ICCTransform, CallersMakeTheirOwn) {
    auto const sRGB = Default(ColourSpaceRGB), linear = Default(ColourSpaceRGBUF);
    auto * const swizzle = ICCManager::CreateTransform(sRGB->GetHandle(), ICCManager::_TYPE_BGRA_8(), sRGB->GetHandle(),
                                                       ICCManager::_TYPE_RGBA_8(), 0, 0);
    ASSERT_NE(nullptr, swizzle);
    unsigned char const in[] = {10, 20, 30, 40};
    unsigned char out[] = {0, 0, 0, 9};
    ICCManager::DoTransform(swizzle, in, out, 1);
    EXPECT_THAT(out, ElementsAre(30, 20, 10, 9));
    ICCManager::DeleteTransform(swizzle);
    auto * const halves = ICCManager::CreateTransform(linear->GetHandle(), ICCManager::_TYPE_RGBA_FLT(),
                                                      linear->GetHandle(), ICCManager::_TYPE_RGBA_HALF_FLT(), 0, 0);
    ASSERT_NE(nullptr, halves);
    float const colour[4] = {1.0f, 0.5f, 0.0f, 1.0f};
    std::uint16_t half[4] = {7, 7, 7, 7};
    ICCManager::DoTransform(halves, reinterpret_cast<unsigned char const *>(colour),
                            reinterpret_cast<unsigned char *>(half), 1);
    EXPECT_NEAR(0x3c00, half[0], 2);
    EXPECT_NEAR(0x3800, half[1], 2);
    EXPECT_EQ(7, half[3]);
    ICCManager::DeleteTransform(halves);
    EXPECT_EQ(nullptr, ICCManager::CreateTransform(nullptr, ICCManager::_TYPE_RGBA_8(), sRGB->GetHandle(),
                                                   ICCManager::_TYPE_RGBA_8(), 0, 0));
    EXPECT_EQ(nullptr,
              ICCManager::CreateTransform(sRGB->GetHandle(), 0, sRGB->GetHandle(), ICCManager::_TYPE_RGBA_8(), 0, 0));
    ICCManager::DeleteTransform(nullptr);
}

TEST(ICCTransform, NullOrNoPixelsDoNothing) {
    auto * const transform = Get(layouts[0], layouts[1]);
    unsigned char const in[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    unsigned char out[16] = {};
    ICCManager::DoTransform(nullptr, in, out, 2);
    ICCManager::DoTransform(transform, in, out, 0);
    ICCManager::DoTransform(transform, in, out, -1);
    ICCManager::DoTransform(transform, nullptr, nullptr, 0);
    EXPECT_THAT(out, testing::Each(0));
    auto const & manager = Manager();
    manager.DoLABA16ToRGBAFTransform(nullptr, nullptr, 0);
    manager.DoRGBAFToLABA16Transform(nullptr, nullptr, -5);
}

TEST(ICCTransform, LeavesAlphaAsItWas) {
    for (auto const & from : layouts)
        for (auto const & to : layouts) {
            auto * const transform = Get(from, to);
            if (from.format == to.format) {
                EXPECT_EQ(nullptr, transform);
                continue;
            }
            ASSERT_NE(nullptr, transform) << from.format << " to " << to.format;
            for (std::size_t const count : {std::size_t(1), std::size_t(2), std::size_t(33)}) {
                auto const in = AnyPixels(from, count, unsigned(count));
                auto const one = Apply(transform, in, from, to, 0xA5), other = Apply(transform, in, from, to, 0x5A);
                for (std::size_t i = 0; i < one.size(); ++i) {
                    bool const isAlpha = i % to.pixelBytes >= to.alphaOffset;
                    EXPECT_EQ(isAlpha ? 0xA5 : other[i], one[i])
                        << from.format << " to " << to.format << ", byte " << i << " of " << count << " pixels";
                }
            }
        }
}

TEST(ICCTransform, GroupingOfPixelsDoesNotMatter) {
    constexpr std::size_t count = 257;
    for (auto const & from : layouts)
        for (auto const & to : layouts) {
            auto * const transform = Get(from, to);
            if (!transform)
                continue;
            auto in = AnyPixels(from, count, 5);
            std::copy_n(in.begin(), from.pixelBytes * 100, in.begin() + std::ptrdiff_t(from.pixelBytes * 100)); // again
            std::copy_n(in.begin(), from.pixelBytes, in.begin() + std::ptrdiff_t(from.pixelBytes)); // twice in a row
            auto const whole = Apply(transform, in, from, to);
            std::vector<unsigned char> pieces(whole.size(), 0xA5);
            std::mt19937 random(7);
            for (std::size_t done = 0; done < count;) {
                auto const some = std::min<std::size_t>(random() % 5 + 1, count - done);
                ICCManager::DoTransform(transform, &in[done * from.pixelBytes], &pieces[done * to.pixelBytes],
                                        int(some));
                done += some;
            }
            EXPECT_EQ(whole, pieces) << from.format << " to " << to.format;
        }
}

TEST(ICCTransform, AnyFloatGivesSomeColour) {
    std::vector<float> const odd = {0.0f,
                                    -0.0f,
                                    1.0f,
                                    -1.0f,
                                    1e30f,
                                    -1e30f,
                                    1e-40f,
                                    std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity(),
                                    std::numeric_limits<float>::quiet_NaN(),
                                    std::numeric_limits<float>::max()};
    auto const & floats = layouts[6];
    std::vector<unsigned char> in(odd.size() * odd.size() * odd.size() * floats.pixelBytes);
    std::size_t offset = 0;
    for (float const red : odd)
        for (float const green : odd)
            for (float const blue : odd) {
                float const pixel[4] = {red, green, blue, blue};
                std::memcpy(&in[offset], pixel, sizeof pixel);
                offset += sizeof pixel;
            }
    for (auto const & to : layouts) {
        auto * const transform = Get(floats, to);
        if (!transform)
            continue;
        EXPECT_EQ(Apply(transform, in, floats, to), Apply(transform, in, floats, to)) << to.format;
    }
}

TEST(ICCTransform, ProofingShowsTheGamutOfTheOther) {
    auto & manager = Manager();
    auto const wide = Add(Synthetic::Take(Synthetic::CreateRGB("wide", 2.2, 2.2, 2.2, Synthetic::Primaries::Wide)));
    // A pure exponent, since the straight start of sRGB's curve goes on below 0 and keeps what it can't show.
    auto const display = Add(Synthetic::Take(Synthetic::CreateRGB("display", 2.2, 2.2, 2.2)));
    auto const & rgb = layouts[0];
    // A green that no display reaches, and a grey.
    std::vector<unsigned char> const in = {0, 255, 0, 255, 128, 128, 128, 255};
    for (bool const black : {false, true}) {
        auto const get = [&](bool gamut) {
            return manager.GetProofingTransformForProfiles(RGBA8, wide, display, Intent::RelativeColorimetric,
                                                           Intent::RelativeColorimetric, black, gamut);
        };
        auto const plain = Apply(get(false), in, rgb, rgb), checked = Apply(get(true), in, rgb, rgb);
        EXPECT_GT(plain[0], 50) << "mixed with the others";
        EXPECT_NEAR(128, plain[4], 2);
        EXPECT_NEAR(128, plain[5], 2);
        EXPECT_THAT(std::vector(checked.begin(), checked.begin() + 3), ElementsAre(0x7f, 0x7f, 0x7f))
            << "the alarm colour";
        EXPECT_NEAR(plain[4], checked[4], 1) << "within the gamut nothing is marked";
    }
}

TEST(ICCTransform, ProofingIntentShowsThePaper) {
    auto & manager = Manager();
    auto const sRGB = Default(ColourSpaceRGB);
    auto const paper = [&] { // a display whose white is yellowish
        auto const profile = Synthetic::CreateRGB("yellowish", 2.2, 2.2, 2.2);
        cmsCIEXYZ const white{0.93, 0.97, 0.62};
        cmsWriteTag(profile, cmsSigMediaWhitePointTag, &white);
        return Add(Synthetic::Take(profile));
    }();
    std::vector<unsigned char> const white = {255, 255, 255, 255};
    auto const show = [&](Intent proofing) {
        return Apply(manager.GetProofingTransformForProfiles(RGBA8, sRGB, paper, Intent::RelativeColorimetric, proofing,
                                                             false, false),
                     white, layouts[0], layouts[0]);
    };
    EXPECT_GT(show(Intent::RelativeColorimetric)[2], 252);
    EXPECT_LT(show(Intent::AbsoluteColorimetric)[2], 240);
}

TEST(ICCTransform, IntentShowsThePaper) {
    auto const paper = [] { // a display whose white is yellowish
        auto const profile = Synthetic::CreateRGB("yellowish source", 2.2, 2.2, 2.2);
        cmsCIEXYZ const white{0.93, 0.97, 0.62};
        cmsWriteTag(profile, cmsSigMediaWhitePointTag, &white);
        return Add(Synthetic::Take(profile));
    }();
    std::vector<unsigned char> const white = {255, 255, 255, 255};
    auto const show = [&](Intent intent) {
        return Apply(Manager().GetTransformForProfiles(RGBA8, paper, RGBA8, Default(ColourSpaceRGB), intent, false),
                     white, layouts[0], layouts[0]);
    };
    EXPECT_GT(show(Intent::RelativeColorimetric)[2], 252);
    EXPECT_LT(show(Intent::AbsoluteColorimetric)[2], 240);
}

TEST(ICCTransform, BlackPointsAreCompensatedIfAsked) {
    std::vector<unsigned char> const inks = {255, 255, 255, 255, 255}; // the press prints no deep black
    auto const show = [&](bool compensate) {
        return Apply(Manager().GetTransformForProfiles(CMYKA8, Press(), RGBA8, Default(ColourSpaceRGB),
                                                       Intent::RelativeColorimetric, compensate),
                     inks, layouts[4], layouts[0]);
    };
    EXPECT_GT(show(false)[0], 10);
    EXPECT_LT(show(true)[0], 4);
}

TEST(ICCTransform, LabComesBackAsTheSameRGB) {
    auto const & manager = Manager();
    std::vector<float> in, out;
    for (int red = 0; red <= 16; ++red)
        for (int green = 0; green <= 16; ++green)
            for (int blue = 0; blue <= 16; ++blue)
                in.insert(in.end(), {float(red) / 16, float(green) / 16, float(blue) / 16, 0.25f});
    out.assign(in.size(), 0.75f);
    std::vector<std::uint16_t> lab(in.size(), 1234);
    int const count = int(in.size() / 4);
    manager.DoRGBAFToLABA16Transform(in.data(), lab.data(), count);
    manager.DoLABA16ToRGBAFTransform(lab.data(), out.data(), count);
    for (std::size_t i = 0; i < in.size(); ++i)
        if (i % 4 == 3) {
            EXPECT_EQ(1234, lab[i]);
            EXPECT_EQ(0.75f, out[i]);
        } else {
            ASSERT_NEAR(in[i], out[i], 2e-3f) << "sample " << i;
        }
    EXPECT_THAT(std::vector(lab.begin(), lab.begin() + 3), ElementsAre(0, 32896, 32896)) << "black";
    EXPECT_NEAR(65535, lab[lab.size() - 4], 8) << "white";
}

TEST(ICCTransform, ConversionsTakeTheirLabFromHere) {
    auto const & manager = Manager();
    float const in[8] = {0.2f, 0.4f, 0.9f, 0.5f, 0.7f, 0.1f, 0.0f, 1.0f};
    std::uint16_t expected[8] = {}, actual[8] = {};
    manager.DoRGBAFToLABA16Transform(in, expected, 2);
    ConvertToLab(actual, in, 2);
    EXPECT_THAT(actual, testing::ElementsAreArray(expected));
    EXPECT_NE(0, actual[0]);
    float back[8] = {}, expectedBack[8] = {};
    manager.DoLABA16ToRGBAFTransform(expected, expectedBack, 2);
    ConvertFromLab(back, actual, 2);
    EXPECT_THAT(back, testing::ElementsAreArray(expectedBack));

    SetLabConversions({});
    ConvertToLab(actual, in, 2);
    EXPECT_EQ(0, actual[0]);
    ICCManager::ConnectLabConversions();
    ConvertToLab(actual, in, 2);
    EXPECT_THAT(actual, testing::ElementsAreArray(expected));
}
}
}
