// The same bits for any number of threads and on every vector target: a table of digests, one line an operation, which
// the test prints. Kept here are those that are the same on every machine, since no step of them depends on the
// system's mathematics or on the colour library; of the others each machine has its own.
#include "colour/ICCManager.h"
#include "kernel/Dispatch.h"
#include "pixel/transfer/BitmapTransfer.h"
#include "pixel/transfer/Draw.h"
#include "pixel/transfer/Fill.h"
#include "pixel/transfer/Invert.h"
#include "pixel/transfer/TransferManaged.h"
#include "transfer/TransferPixels.h"

#include <hwy/targets.h>

#include <functional>
#include <iostream>

namespace Raster {
namespace {
float const opaque = 1.0f, faint = 0.6f;
constexpr int width = 500, height = 280;
#ifdef RASTER_SANITIZED
constexpr unsigned threadCounts[]{1, 8};
#else
constexpr unsigned threadCounts[]{1, 2, 8};
#endif

struct Operation {
    char const * name;
    Format format; ///< of the destination, which is empty at first
    std::function<void(DynamicBitmap & dest)> run;
    char const * digest; ///< null: only the same along threads and targets
};

class TransferDigestsTest : public StorageTest {
protected:
    ~TransferDigestsTest() override {
        Kernel::Dispatch::SetThreadCount(0);
        hwy::SetSupportedTargetsForTest(0);
    }

    static std::string Run(Operation const & operation) {
        auto const dest =
            Kernel::MakeCounted<DynamicBitmap>(width, height, operation.format, MipmapModeNone, HardwareCachePolicy());
        for (int pass = 0; pass < 2; ++pass)
            operation.run(*dest);
        unsigned char digest[16];
        GetBitmapMD5Digest(digest, dest);
        std::string text;
        for (unsigned char const byte : digest)
            text += "0123456789abcdef"[byte >> 4], text += "0123456789abcdef"[byte & 15];
        return text;
    }

    template<class Tuple>
    static DynamicBitmap MakeSource(MipmapMode mode = MipmapModeNone) {
        return DynamicBitmap(MakeBitmap<Tuple>(MakePicture<Tuple>(400, 300, 8), mode));
    }

    static std::vector<Operation> MakeOperations() {
        static double const turn[6]{0.75, -0.5, 30.25, 0.5, 0.75, -20.5}, shrink[6]{3.5, 0, 0, 0, 3.5, 0};
        static double const scale[6]{0.8, 0, -7.25, 0, 1.25, 5.5};
        auto const bytes = MakeSource<RGBA8Tuple>(MipmapModeOnDemand), words = MakeSource<RGBA16Tuple>();
        auto const floats = MakeSource<RGBAUFTuple>(), lab = MakeSource<LABA16Tuple>(),
                   inks = MakeSource<CMYKA8Tuple>(), mask = MakeSource<A8Tuple>();
        auto const transfer = [](DynamicBitmap const & source, double const * matrix, float const & opacity) {
            return [source, matrix, &opacity](DynamicBitmap & dest) {
                DynamicBitmap own(source);
                own.InvalidateMipmaps(); // levels are built anew by each run
                Transfer(*dest.GetCore(), *own.GetCore(), nullptr, &opacity, matrix);
            };
        };
        auto const draw = [](DynamicBitmap const & source, float const & opacity) {
            return [source, &opacity](DynamicBitmap & dest) {
                VisitFormat(source.GetFormat(), [&](auto tuple) {
                    using Tuple = decltype(tuple);
                    Draw(*dest.GetTyped<Tuple>(), *source.GetTyped<Tuple>(), nullptr, &opacity, 37, -11);
                });
            };
        };
        auto const fill = [](double red, double alpha, float opacity) {
            DynamicPixel const colour(PixelOf<RGBAUFTuple>{{float(red), 0.25f, 0.75f, float(alpha)}});
            return [=](DynamicBitmap & dest) {
                Fill(dest, {3, 5, 300, 270}, colour, opacity);
                Fill(dest, {200, -10, 600, 600}, colour, opacity);
            };
        };
        auto const invert = [](DynamicBitmap const & source) {
            return [source](DynamicBitmap & dest) {
                Transfer(*dest.GetCore(), *source.GetCore(), nullptr, &opaque, nullptr);
                Invert(dest, nullptr);
            };
        };
        auto const managed = [](DynamicBitmap const & source, Format to) {
            auto & manager = ICCManager::GetInstance();
            auto const from = source.GetFormat();
            auto * const transform = manager.GetTransformForProfiles(
                from, manager.GetDefaultProfileForFormat(from), to, manager.GetDefaultProfileForFormat(to),
                Intent::RelativeColorimetric, /*blackPointCompensation=*/true);
            EXPECT_TRUE(transform);
            return [source, transform](DynamicBitmap & dest) { TransferManaged(dest, source, transform, nullptr); };
        };
        return {{"over, 8 bits", RGBA8, transfer(bytes, nullptr, opaque), "2cf66aaf5c3bbe27bdcb54e9343eebe2"},
                {"over at 0.6, 8 bits", RGBA8, transfer(bytes, nullptr, faint), "413d93649d34282af976809287a0966f"},
                {"turned, 8 bits", RGBA8, transfer(bytes, turn, opaque), "65a9be6db92437af3e738230dba4acd1"},
                {"shrunk through levels, 8 bits", RGBA8, transfer(bytes, shrink, opaque),
                 "52bb8be37ad9c8891a2aaf27dd0803e8"},
                {"scaled, 8 bits", RGBA8, transfer(bytes, scale, opaque), "c91667b05742eda762f494d11f943044"},
                {"scaled, floats", RGBAUF, transfer(floats, scale, faint), "c775ab0c0537dd0ebb7ca7b09227b8e3"},
                {"turned, 16 bits", RGBA16, transfer(words, turn, faint), "69b6134dd725b78a05112ffb03d1bada"},
                {"turned, floats", RGBAUF, transfer(floats, turn, faint), "f72f223c871ae0eb6c1c27abdea0eef7"},
                {"floats to inks", CMYKA8, transfer(floats, turn, opaque), "8998a818c6b29ca30117afea91e00cff"},
                {"8 bits to grey", IA16, transfer(bytes, nullptr, faint), "acd1173c9526f27924512c444e559111"},
                {"mask, turned", A8, transfer(mask, turn, faint), "f34b4ab977d51e6175c9cbc24b70ff10"},
                {"drawn, 8 bits", RGBA8, draw(bytes, faint), "632c5b158ca84cee8b36222b0157a767"},
                {"drawn, 16 bits", RGBA16, draw(words, opaque), "b8c3826b7de56c0e29c39c048c886984"},
                {"drawn, floats", RGBAUF, draw(floats, faint), "470e459f90ce6d776911e20b2ce639ef"},
                {"drawn, inks", CMYKA8, draw(inks, faint), "daab57354466ba7d0e75553f2730c2d0"},
                {"filled, 8 bits", RGBA8, fill(0.5, 1.0, 1.0f), "6054143a00bcb070075ab90f4aaf54aa"},
                {"filled at 0.3, 16 bits", RGBA16, fill(0.5, 0.8, 0.3f), "ff5b55d5204ea1d70a6af41512924c24"},
                {"filled, floats", RGBAUF, fill(3.5, 0.7, 1.0f), "342d7b7124121596085f87937ee08362"},
                {"inverted, 8 bits", RGBA8, invert(bytes), "b85e5fbee39b40cd9f4cf28f28b145e1"},
                {"inverted, inks", CMYKA8, invert(inks), "119250daf124499b827cf12ffac75adc"},
                {"inverted, floats", RGBAUF, invert(floats), "79ad653faff32aa429b7f3a8aa1ee40b"},
                {"by formula, floats to 8 bits", RGBA8,
                 [floats](DynamicBitmap & dest) { TransferManaged(dest, floats, nullptr, nullptr); },
                 "95245f2a42036daa1b17990f9740d285"},
                {"8 bits to Lab, turned", LABA16, transfer(bytes, turn, faint), nullptr},
                {"Lab to floats", RGBAUF, transfer(lab, nullptr, opaque), nullptr},
                {"managed, 8 bits to floats", RGBAUF, managed(bytes, RGBAUF), nullptr},
                {"managed, floats to 8 bits", RGBA8, managed(floats, RGBA8), nullptr},
                {"managed, 16 bits to grey", IA8, managed(words, IA8), nullptr},
                {"managed, Lab to 16 bits", RGBA16, managed(lab, RGBA16), nullptr}};
    }
};
}

TEST_F(TransferDigestsTest, AreConstantAlongThreadsAndTargets) {
    auto const targets = hwy::SupportedAndGeneratedTargets(); // asked again it would name the one that is set alone
    std::string table = "| operation | target |", line = "|---|---|";
    for (unsigned const threads : threadCounts) {
        table += ' ' + std::to_string(threads) + " threads |";
        line += "---|";
    }
    table += '\n' + line + '\n';
    for (auto const & operation : MakeOperations()) {
        std::string expected = operation.digest ? operation.digest : "";
        for (auto const target : targets) {
            table += std::string("| ") + operation.name + " | " + hwy::TargetName(target) + " |";
            for (unsigned const threads : threadCounts) {
                hwy::SetSupportedTargetsForTest(target);
                Kernel::Dispatch::SetThreadCount(threads);
                auto const digest = Run(operation);
                if (!operation.digest && expected.empty())
                    expected = digest;
                EXPECT_EQ(expected, digest)
                    << operation.name << ", " << hwy::TargetName(target) << ", " << threads << " threads";
                table += ' ' + digest + " |";
            }
            table += '\n';
        }
        RecordProperty(operation.name, expected);
    }
    std::cout << table;
}
}
