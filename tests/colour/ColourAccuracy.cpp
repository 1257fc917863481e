// Measures how far colours go astray and writes docs/colour-accuracy.md: ColourAccuracy [FILE]. Ends with 1 if any
// figure is beyond what the library promises.
#include "colour/ColourTesting.h"
#include "pixel/Conversion.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <random>

namespace Raster {
namespace {
namespace Synthetic = SyntheticProfiles;

#ifdef RASTER_SANITIZED
constexpr std::size_t sampleCount = 2000;
#else
constexpr std::size_t sampleCount = 50000;
#endif

struct Limits {
    static constexpr double integerUnits = 0.51; // to nearest, but for the constant that stands for 1 / 255
    static constexpr double floatUnits = 2;
    static constexpr double meanDifference = 0.5, largestDifference = 4; // in 16 bits Lab goes through a table
};

using Colour = std::array<double, 4>; // as many as the format has, alpha left out

struct Kind {
    Format format;
    char const * name;
    int colours, largest; // 0 for floats
};
constexpr Kind kinds[] = {{RGBA8, "RGBA8", 3, 255},    {RGBA16, "RGBA16", 3, 65535}, {RGBAUF, "RGBAUF", 3, 0},
                          {IA8, "IA8", 1, 255},        {IA16, "IA16", 1, 65535},     {CMYKA8, "CMYKA8", 4, 255},
                          {LABA16, "LABA16", 3, 65535}};
constexpr int labIndex = 6;

Kind const & KindOf(Format format) { return *std::ranges::find(kinds, format, &Kind::format); }

/// Samples as 0 to 1.
Colour ToUnits(Kind const & kind, Colour const & samples) {
    Colour result = samples;
    if (kind.largest)
        for (double & sample : result)
            sample /= kind.largest;
    return result;
}

Colour AnyColour(Kind const & kind, std::mt19937 & random) {
    Colour result{};
    for (int i = 0; i < kind.colours; ++i) {
        unsigned const bits = static_cast<unsigned>(random());
        result[std::size_t(i)] = kind.largest == 255 ? bits >> 24
                                 : kind.largest      ? bits >> 16
                                                     : double(float(bits) / 4294967296.0f);
    }
    return result;
}

// ---- formulas

/// What the formulas say, in double throughout.
Colour Model(Kind const & to, Kind const & from, Colour const & samples) {
    Colour const in = ToUnits(from, samples);
    if (to.format == from.format)
        return in;
    Colour rgb = in;
    if (from.colours == 1)
        rgb = {in[0], in[0], in[0]};
    if (from.colours == 4)
        for (std::size_t i = 0; i < 3; ++i)
            rgb[i] = 1 - std::min(in[i] * (1 - in[3]) + in[3], 1.0);
    if (to.colours == 1) {
        if (from.colours == 1)
            return {in[0]};
        return {to.format == IA8 ? 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2] : (rgb[0] + rgb[1] + rgb[2]) / 3};
    }
    if (to.colours == 4) {
        double const black = 1 - std::max({rgb[0], rgb[1], rgb[2]});
        auto const ink = [&](double light) { return black < 1 ? (1 - light - black) / (1 - black) : 0; };
        return {ink(rgb[0]), ink(rgb[1]), ink(rgb[2]), black};
    }
    return rgb;
}

template<class D, class S>
Colour Convert(Colour const & samples) {
    PixelOf<S> source{};
    for (std::size_t i = 0; i < std::size_t(S::colourCount); ++i)
        source[i] = static_cast<typename S::Storage>(samples[i]);
    PixelOf<D> dest{};
    ConvertPixel<D, S>(dest, source);
    Colour result{};
    for (std::size_t i = 0; i < std::size_t(D::colourCount); ++i)
        result[i] = double(dest[i]);
    return result;
}

/// The largest error: of the integer's steps, or of steps of 2^-23.
template<class D, class S>
double MeasureFormula(Kind const & to, Kind const & from) {
    std::mt19937 random(1);
    double const unit = to.largest ? to.largest : std::ldexp(1.0, 23);
    double largest = 0;
    for (std::size_t i = 0; i < sampleCount; ++i) {
        auto const samples = AnyColour(from, random);
        auto const expected = Model(to, from, samples), actual = ToUnits(to, Convert<D, S>(samples));
        for (std::size_t channel = 0; channel < std::size_t(to.colours); ++channel)
            largest = std::max(largest, std::abs(expected[channel] - actual[channel]) * unit);
    }
    return largest;
}

template<class S>
std::array<double, labIndex> MeasureFormulasFrom(Kind const & from) {
    return {MeasureFormula<RGBA8Tuple, S>(kinds[0], from),  MeasureFormula<RGBA16Tuple, S>(kinds[1], from),
            MeasureFormula<RGBAUFTuple, S>(kinds[2], from), MeasureFormula<IA8Tuple, S>(kinds[3], from),
            MeasureFormula<IA16Tuple, S>(kinds[4], from),   MeasureFormula<CMYKA8Tuple, S>(kinds[5], from)};
}

bool WriteFormulas(std::ostream & page) {
    std::array const errors = {MeasureFormulasFrom<RGBA8Tuple>(kinds[0]),  MeasureFormulasFrom<RGBA16Tuple>(kinds[1]),
                               MeasureFormulasFrom<RGBAUFTuple>(kinds[2]), MeasureFormulasFrom<IA8Tuple>(kinds[3]),
                               MeasureFormulasFrom<IA16Tuple>(kinds[4]),   MeasureFormulasFrom<CMYKA8Tuple>(kinds[5])};
    page << "| from \\ to |";
    for (int to = 0; to < labIndex; ++to)
        page << ' ' << kinds[to].name << " |";
    page << "\n|---|---|---|---|---|---|---|\n";
    bool isGood = true;
    for (std::size_t from = 0; from < labIndex; ++from) {
        page << "| " << kinds[from].name << " |";
        for (std::size_t to = 0; to < labIndex; ++to) {
            isGood = isGood && errors[from][to] <= (kinds[to].largest ? Limits::integerUnits : Limits::floatUnits);
            char text[32];
            std::snprintf(text, sizeof text, " %.3f |", errors[from][to]);
            page << text;
        }
        page << '\n';
    }
    return isGood;
}

/// The same for alpha, which goes by itself in every conversion.
template<class D, class S>
double MeasureAlpha(int toLargest, int fromLargest) {
    Kind const from{NoFormat, "", 1, fromLargest}, to{NoFormat, "", 1, toLargest};
    std::mt19937 random(3);
    double const unit = toLargest ? toLargest : std::ldexp(1.0, 23);
    double largest = 0;
    for (std::size_t i = 0; i < sampleCount; ++i) {
        auto const sample = AnyColour(from, random);
        PixelOf<S> const source{{static_cast<typename S::Storage>(sample[0])}};
        PixelOf<D> dest{};
        ConvertPixel<D, S>(dest, source);
        largest = std::max(largest, std::abs(ToUnits(from, sample)[0] - ToUnits(to, {double(dest[0])})[0]) * unit);
    }
    return largest;
}

bool WriteAlpha(std::ostream & page) {
    struct Line {
        char const * name;
        double toBytes, toWords, toFloats;
    };
    bool isGood = true;
    page << "| from \\ to | A8 | A16 | AF |\n|---|---|---|---|\n";
    for (auto const & line :
         {Line{"A8", MeasureAlpha<A8Tuple, A8Tuple>(255, 255), MeasureAlpha<A16Tuple, A8Tuple>(65535, 255),
               MeasureAlpha<AFTuple, A8Tuple>(0, 255)},
          Line{"A16", MeasureAlpha<A8Tuple, A16Tuple>(255, 65535), MeasureAlpha<A16Tuple, A16Tuple>(65535, 65535),
               MeasureAlpha<AFTuple, A16Tuple>(0, 65535)},
          Line{"AF", MeasureAlpha<A8Tuple, AFTuple>(255, 0), MeasureAlpha<A16Tuple, AFTuple>(65535, 0),
               MeasureAlpha<AFTuple, AFTuple>(0, 0)}}) {
        isGood = isGood && line.toBytes <= Limits::integerUnits && line.toWords <= Limits::integerUnits &&
                 line.toFloats <= Limits::floatUnits;
        char text[80];
        std::snprintf(text, sizeof text, "| %s | %.3f | %.3f | %.3f |\n", line.name, line.toBytes, line.toWords,
                      line.toFloats);
        page << text;
    }
    return isGood;
}

// ---- managed transforms

Profile ProfileFor(Format format) {
    static Profile const press = Add(Synthetic::Take(Synthetic::CreateCMYK("press")));
    return format == CMYKA8 ? press : Manager().GetDefaultProfileForFormat(format);
}

cmsUInt32Number DoubleTypeOf(Format format) {
    switch (KindOf(format).colours) {
    case 1:
        return TYPE_GRAY_DBL;
    case 4:
        return TYPE_CMYK_DBL;
    default:
        return format == LABA16 ? TYPE_Lab_DBL : TYPE_RGB_DBL;
    }
}

/// In the numbers of the double types: inks go to 100, Lab is itself.
Colour ToDoubleType(Kind const & kind, Colour const & samples) {
    Colour units = ToUnits(kind, samples);
    if (kind.format == LABA16)
        return {units[0] * 100, units[1] * 255 - 128, units[2] * 255 - 128};
    if (kind.format == CMYKA8)
        for (double & ink : units)
            ink *= 100;
    return units;
}

template<class Sample>
Colour RunTyped(void * transform, Kind const & to, void const * in) {
    Sample out[5] = {};
    ICCManager::DoTransform(transform, static_cast<unsigned char const *>(in), reinterpret_cast<unsigned char *>(out),
                            1);
    return {double(out[0]), double(out[1]), to.colours > 2 ? double(out[2]) : 0, to.colours > 3 ? double(out[3]) : 0};
}

Colour RunManaged(void * transform, Kind const & from, Kind const & to, Colour const & samples) {
    std::uint8_t bytes[5] = {};
    std::uint16_t words[5] = {};
    float floats[5] = {};
    for (std::size_t i = 0; i < 4; ++i) {
        bytes[i] = std::uint8_t(samples[i] < 256 ? samples[i] : 0);
        words[i] = std::uint16_t(samples[i]);
        floats[i] = float(samples[i]);
    }
    void const * const in = from.largest == 0     ? static_cast<void const *>(floats)
                            : from.largest == 255 ? bytes
                                                  : static_cast<void const *>(words);
    return to.largest == 0     ? RunTyped<float>(transform, to, in)
           : to.largest == 255 ? RunTyped<std::uint8_t>(transform, to, in)
                               : RunTyped<std::uint16_t>(transform, to, in);
}

class DoubleTransform {
public:
    DoubleTransform(Profile const & from, cmsUInt32Number fromType, cmsHPROFILE to, cmsUInt32Number toType)
        : transform(cmsCreateTransform(from->GetHandle(), fromType, to, toType, INTENT_RELATIVE_COLORIMETRIC,
                                       cmsFLAGS_NOOPTIMIZE | cmsFLAGS_NOCACHE | cmsFLAGS_BLACKPOINTCOMPENSATION)) {}
    ~DoubleTransform() { cmsDeleteTransform(transform); }
    DoubleTransform(DoubleTransform const &) = delete;

    Colour Run(Colour const & in) const {
        Colour out{};
        cmsDoTransform(transform, in.data(), out.data(), 1);
        return out;
    }

private:
    cmsHTRANSFORM transform;
};

bool WriteManaged(std::ostream & page, Format fromFormat, Format toFormat) {
    auto const &from = KindOf(fromFormat), &to = KindOf(toFormat);
    auto const source = ProfileFor(fromFormat), destination = ProfileFor(toFormat);
    auto * const managed = Manager().GetTransformForProfiles(fromFormat, source, toFormat, destination,
                                                             Intent::RelativeColorimetric, true);
    static cmsHPROFILE const lab = cmsCreateLab4Profile(nullptr);
    DoubleTransform const reference(source, DoubleTypeOf(fromFormat), destination->GetHandle(), DoubleTypeOf(toFormat));
    DoubleTransform const show(destination, DoubleTypeOf(toFormat), lab, TYPE_Lab_DBL);
    std::mt19937 random(2);
    std::vector<double> differences;
    double sum = 0;
    for (std::size_t i = 0; i < sampleCount; ++i) {
        auto samples = AnyColour(from, random);
        if (fromFormat == LABA16) { // colours that sRGB can show
            static DoubleTransform const toLab(ProfileFor(RGBA8), TYPE_RGB_DBL, lab, TYPE_Lab_DBL);
            auto const inside = toLab.Run(ToUnits(kinds[1], samples));
            samples = {std::round(inside[0] * 655.35), std::round((inside[1] + 128) * 257),
                       std::round((inside[2] + 128) * 257)};
        }
        auto const expected = show.Run(reference.Run(ToDoubleType(from, samples)));
        auto const actual = show.Run(ToDoubleType(to, RunManaged(managed, from, to, samples)));
        cmsCIELab const one{expected[0], expected[1], expected[2]}, other{actual[0], actual[1], actual[2]};
        differences.push_back(cmsCIE2000DeltaE(&one, &other, 1, 1, 1));
        sum += differences.back();
    }
    std::ranges::sort(differences);
    double const mean = sum / double(sampleCount), largest = differences.back();
    char text[160];
    std::snprintf(text, sizeof text, "| %s to %s | %.4f | %.4f | %.4f |\n", from.name, to.name, mean,
                  differences[sampleCount * 99 / 100], largest);
    page << text;
    return mean <= Limits::meanDifference && largest <= Limits::largestDifference;
}

bool WritePage(std::ostream & page) {
    page
        << "# How accurate colours are\n\n"
           "Written by the program `ColourAccuracy`, which is built with the tests; run `ColourAccuracy "
           "docs/colour-accuracy.md`\nto renew it. "
        << sampleCount << " random colours a line, from a fixed seed. Colour library: Little CMS "
        << cmsGetEncodedCMMversion() / 1000 << '.' << cmsGetEncodedCMMversion() % 1000 / 10
        << ".\n\n"
           "## Formulas\n\n"
           "The conversions between formats that need no profile, against the same formulas in double. The largest "
           "error, in\nunits of the last place: steps of the integer, of which rounding alone takes 0.5, or for floats "
           "steps of 2^-23, the\nspacing just above 1.\n\n";
    bool isGood = WriteFormulas(page);
    page << "\nAlpha goes through every conversion by itself, by its depth alone.\n\n";
    isGood = WriteAlpha(page) && isGood;
    page << "\n## Managed transforms\n\n"
            "Transforms between the default profiles (for CMYK a press made by the tests) as documents get them, "
            "against the\ncolour library in double without its shortcuts. Relative colorimetric, with black point "
            "compensation. The difference\nin delta E 2000, rounding to the target format included: 1 can just be "
            "seen side by side.\n\n"
            "| transform | mean | 99 % | largest |\n|---|---|---|---|\n";
    for (auto const & from : kinds)
        for (auto const & to : kinds)
            if (from.format != to.format)
                isGood = WriteManaged(page, from.format, to.format) && isGood;
    return isGood;
}
}
}

int main(int argumentCount, char ** arguments) {
    if (argumentCount < 2)
        return Raster::WritePage(std::cout) ? 0 : 1;
    std::ofstream file(arguments[1]);
    bool const isGood = Raster::WritePage(file);
    file.close();
    return isGood && file ? 0 : 1;
}
