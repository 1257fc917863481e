// Whatever is done to the bytes of a profile: it is refused, or it works.
#include "colour/ColourTesting.h"
#include "pixel/FormatFunctions.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;

#ifdef RASTER_SANITIZED
constexpr std::size_t sampleStep = 29;
#else
constexpr std::size_t sampleStep = 7;
#endif

/// Everything that is done with profiles, for one that may be anything.
void Use(Profile const & profile) {
    auto & manager = Manager();
    profile->GetVersion();
    profile->IsDevicePrinter();
    EXPECT_FALSE(profile->GetRawData().empty());
    if (auto const linear = manager.GetLinearRGBProfile(profile))
        manager.GetGammaCorrectedRGBProfile(linear, 0);
    constexpr int count = 16;
    unsigned char in[count * 16], out[count * 16];
    for (std::size_t i = 0; i < sizeof in; ++i)
        in[i] = static_cast<unsigned char>(i * 37);
    for (auto const format : {RGBA8, RGBA16, IA8, IA16, CMYKA8, LABA16, RGBAUF}) {
        if (!profile->CanApplyTo(format))
            continue;
        auto const type = ICCManager::ICCTypeFromFormat(format), rgb = ICCManager::_TYPE_RGBA_8();
        auto * const handle = profile->GetHandle();
        auto * const sRGB = manager.GetDefaultProfile(ColourSpaceRGB)->GetHandle();
        // Not through the manager's list, which would keep thousands of them.
        auto * const there = ICCManager::CreateTransform(sRGB, rgb, handle, type, 0, 0);
        ICCManager::DoTransform(there, in, out, count);
        auto * const back = ICCManager::CreateTransform(handle, type, sRGB, rgb, 1, cmsFLAGS_BLACKPOINTCOMPENSATION);
        ICCManager::DoTransform(back, in, out, count);
        ICCManager::DeleteTransform(there);
        ICCManager::DeleteTransform(back);
    }
}

// Names don't matter here, and a registry of thousands would only slow the test: each profile replaces the one before.
void Try(Synthetic::Bytes const & bytes) {
    auto const candidate = Kernel::DynamicCast<ICCProfile>(ICCProfile::CreateObject());
    bool const isProfile = candidate->SetRawData(bytes.data(), bytes.size());
    ASSERT_EQ(isProfile, candidate->GetHandle() != nullptr);
    if (isProfile)
        Use(Profile::ConsolidateObjectSacrifice(candidate));
    else
        EXPECT_EQ(ColourSpaceNone, candidate->GetColourSpace());
}

void TryEveryDamage(Synthetic::Bytes const & whole, std::size_t step) {
    for (std::size_t length = 0; length < whole.size(); length += step)
        Try(Synthetic::Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length)));
    std::mt19937 random(11);
    for (std::size_t i = 0; i < whole.size(); i += step)
        for (int const change : {0xff, 0x80, 1, int(random() % 255 + 1)}) {
            auto bytes = whole;
            bytes[i] ^= static_cast<std::uint8_t>(change);
            Try(bytes);
        }
}

// The size in the header must fit, or the colour library stops there: then nothing behind it would be tried.
Synthetic::Bytes WithLength(Synthetic::Bytes bytes) {
    if (bytes.size() >= 4)
        for (std::size_t i = 0; i < 4; ++i)
            bytes[i] = static_cast<std::uint8_t>(bytes.size() >> (24 - 8 * i));
    return bytes;
}

TEST(DamagedProfiles, RGBIsRefusedOrWorks) {
    TryEveryDamage(Synthetic::Take(Synthetic::CreateRGB("damaged", 2.2, 1.8, 1.0)), sampleStep);
}

TEST(DamagedProfiles, GreyIsRefusedOrWorks) {
    TryEveryDamage(Synthetic::Take(Synthetic::CreateGrey("damaged", 2.2)), sampleStep);
}

TEST(DamagedProfiles, CutOnesThatOwnUpToItAreRefusedOrWork) {
    auto const whole = Synthetic::Take(Synthetic::CreateRGB("cut", 2.2, 1.8, 1.0));
    for (std::size_t length = 0; length < whole.size(); length += sampleStep)
        Try(WithLength(Synthetic::Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(length))));
}

TEST(DamagedProfiles, TablesAreRefusedOrWork) {
    auto const press = Synthetic::Take(Synthetic::CreateCMYK("damaged press"));
    constexpr std::size_t interesting = 512; // header, directory, the heads of the tables
    std::mt19937 random(12);
    for (int i = 0; i < int(200 / sampleStep); ++i) {
        auto bytes = press;
        for (unsigned changes = random() % 4; changes != ~0u; --changes)
            bytes[random() % (i % 3 ? interesting : bytes.size())] = static_cast<std::uint8_t>(random());
        Try(bytes);
    }
    for (int i = 0; i < 20; ++i)
        Try(WithLength(Synthetic::Bytes(press.begin(), press.begin() + std::ptrdiff_t(random() % press.size()))));
}

TEST(DamagedProfiles, DirectoryMayClaimAnything) {
    auto const whole = Synthetic::Take(Synthetic::CreateRGB("claims", 2.2, 2.2, 2.2));
    std::mt19937 random(13);
    std::uint32_t const odd[] = {0, 1, 3, 128, 0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff};
    for (std::size_t field = 128; field < 128 + 4 + 12 * 6; field += 4)
        for (auto const value : odd) {
            auto bytes = whole;
            for (std::size_t i = 0; i < 4; ++i)
                bytes[field + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
            Try(bytes);
        }
}
}
}
