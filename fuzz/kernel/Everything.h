/// Classes for the targets of documents: an object with a property of every kind.
#pragma once

#include "geometry/Spline.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/FileStore.h"
#include "kernel/FileStoreCompressionHint.h"
#include "kernel/FileStoreOutPathGenerator.h"
#include "kernel/HashAccumulator.h"
#include "kernel/InSerialiser.h"
#include "kernel/InStream.h"
#include "kernel/OutSerialiser.h"
#include "kernel/OutStream.h"
#include "kernel/SharedSerialisable.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace Fuzz {
/// An item of bytes.
class Blob final : public Kernel::FileStoreItem {
public:
    std::vector<std::uint8_t> bytes;

    static Kernel::FileStoreItemType const & GetType() {
        static Kernel::FileStoreItemType const type("Blob", Kernel::ItemNesting::NotNestable,
                                                    Kernel::ItemRecovery::Recoverable,
                                                    [] { return Kernel::Counted<Kernel::FileStoreItem>(new Blob); });
        return type;
    }
    Kernel::FileStoreItemType const & GetObjectFileStoreItemType() const override { return GetType(); }
    void Save(Kernel::OutStream & stream, Kernel::FileStoreOut &) const override {
        stream.WriteAll(bytes.data(), bytes.size());
    }
    bool Load(Kernel::InStream & stream, Kernel::FileStore &) override {
        bytes.resize(stream.GetSize());
        return stream.ReadAll(bytes.data(), bytes.size());
    }
};

/// A shared object of one text.
class Label final : public Kernel::SharedSerialisable {
public:
    Kernel::StringUtf8 text;

    static Kernel::SharedClassProperties const & GetClassProperties() {
        static Kernel::SharedClassProperties const properties(
            "Labl", 1, [] { return Kernel::Counted<Kernel::Serialisable>(new Label); });
        return properties;
    }
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(Kernel::OutSerialiser & serialiser) const override { serialiser.SaveType("Text", text); }
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore &, unsigned short) override {
        return serialiser.LoadType("Text", text);
    }
    void AccumulateHash(Kernel::HashAccumulator & accumulator) const override { accumulator.AddToHash(text.GetView()); }
    bool CompareMembers(Kernel::Serialisable const & other) const override {
        return static_cast<Label const &>(other).text == text;
    }
};

class Numbers final : public Kernel::EnumSerialiser {
public:
    Numbers() {
        Kernel::EnumEntry const older[] = {{20, "Twenty"}, {10, "Ten"}};
        RegisterEnumSet(older, 2);
        Kernel::EnumEntry const newer[] = {{10, "Ten"}, {20, "Twenty"}, {30, "Thirty"}};
        RegisterEnumSet(newer, 3);
    }
};

/// An object with properties of every kind, further ones of its class among them, within it and shared.
class Everything final : public Kernel::SharedSerialisable {
public:
    static Kernel::SharedClassProperties const & GetClassProperties() {
        static Kernel::SharedClassProperties const properties(
            "Evry", 1, [] { return Kernel::Counted<Kernel::Serialisable>(new Everything); });
        return properties;
    }
    static void Register() {
        GetClassProperties().Init();
        Label::GetClassProperties().Init();
        Geometry::Spline::GetClassProperties().Init();
    }
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }

    void Save(Kernel::OutSerialiser & serialiser) const override {
        SaveValues(serialiser);
        if (!children.empty() && serialiser.StartObjectArrayTestI("Arra")) {
            serialiser.StartObjectArrayBeginI(children.size());
            for (auto const & each : children)
                serialiser.SaveObjectI(*each);
        }
        if (child)
            serialiser.SaveObject("Chld", *child);
        serialiser.SaveSharedObject("Shar", shared.Get());
        serialiser.SaveSharedObject("Labl", label.Get());
        Kernel::FileStoreCompressionHintGeneral const hint(1, Kernel::CompressionPredictor::Bytes2,
                                                           Kernel::CompressionStriping::Rows256);
        for (std::size_t i = 0; i < blobs.size(); ++i)
            serialiser.SaveDelayLoadObject(GetBlobTag(i), blobs[i].Get(),
                                           Kernel::FileStoreOutIndexedPathGenerator("", "b/"), &hint);
        if (serialiser.StartClassTestI("Clas")) {
            serialiser.StartClassBeginI("Insi", 2);
            serialiser.SaveType("Numb", inside);
            serialiser.EndPropClassI();
        }
    }

    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short) override {
        LoadValues(serialiser);
        std::vector<Kernel::Counted<Kernel::Serialisable>> loaded;
        serialiser.LoadObjectsI("Arra", store, loaded);
        for (auto & each : loaded)
            if (each)
                children.push_back(std::move(each));
        serialiser.LoadObjectI("Chld", store, child);
        serialiser.LoadSharedObjectI("Shar", store, GetClassProperties(), shared);
        serialiser.LoadSharedObject("Labl", store, label);
        blobs.resize(3);
        for (std::size_t i = 0; i < blobs.size(); ++i)
            serialiser.LoadDelayLoadObject(GetBlobTag(i), store, Blob::GetType(), blobs[i]);
        serialiser.LoadClassI("Clas", "Insi", [&](Kernel::InSerialiser const & nested, unsigned short) {
            nested.LoadType("Numb", inside);
        });
        return inside != 0xdead;
    }

    void AccumulateHash(Kernel::HashAccumulator & accumulator) const override { accumulator.AddToHash(u32); }
    bool CompareMembers(Kernel::Serialisable const & other) const override { return this == &other; }

    std::uint8_t u8 = 0;
    std::uint16_t u16 = 0;
    std::uint32_t u32 = 0;
    std::uint64_t u64 = 0;
    std::int8_t i8 = 0;
    std::int16_t i16 = 0;
    std::int32_t i32 = 0;
    std::int64_t i64 = 0;
    float f32 = 0;
    double f64 = 0;
    bool truth = false;
    Kernel::PointT<int> point{};
    Kernel::PointT<double> finePoint{};
    Kernel::SizeT<int> size{};
    Kernel::RectT<int> rect{};
    Kernel::StringUtf8 text;
    Kernel::StringUtf16 wideText;
    Kernel::TextMap texts;
    int number = 10;
    std::vector<std::uint8_t> array;
    std::uint8_t raw4[4] = {};
    Kernel::RawDataT<Kernel::Countable, Kernel::AllocatorNew> rawData;
    std::vector<Kernel::Counted<Kernel::Serialisable>> children; // none is null
    Kernel::Counted<Kernel::Serialisable> child;
    Kernel::Counted<Kernel::SharedSerialisable> shared;
    Kernel::Consolidated<Label> label;
    std::vector<Kernel::Counted<Kernel::DelayLoadHolder>> blobs; // may be null
    std::uint32_t inside = 0;

private:
    static Kernel::IDTag GetBlobTag(std::size_t i) { return {'B', 'l', 'b', static_cast<char>('0' + i)}; }
    static Numbers const & GetNumbers() {
        static Numbers const numbers;
        return numbers;
    }

    template<class Self, class Visit>
    static void VisitValues(Self & self, Visit const & visit) {
        visit("UI08", self.u8);
        visit("UI16", self.u16);
        visit("UI32", self.u32);
        visit("UI64", self.u64);
        visit("SI08", self.i8);
        visit("SI16", self.i16);
        visit("SI32", self.i32);
        visit("SI64", self.i64);
        visit("FL32", self.f32);
        visit("FL64", self.f64);
        visit("Bool", self.truth);
        visit("Poin", self.point);
        visit("PoiD", self.finePoint);
        visit("Size", self.size);
        visit("Rect", self.rect);
        visit("Text", self.text);
        visit("TexW", self.wideText);
        visit("Txts", self.texts);
    }
    void SaveValues(Kernel::OutSerialiser & serialiser) const {
        VisitValues(*this, [&](Kernel::IDTag tag, auto const & value) { serialiser.SaveType(tag, value); });
        serialiser.SaveEnumI("Enum", GetNumbers(), number);
        serialiser.SaveTypeArrayI("Byts", Kernel::PropType::UInt16, array.data(), 2, array.size() / 2);
        serialiser.SaveTypeI("Raw4", Kernel::PropType::UInt32, raw4, sizeof raw4);
        serialiser.SaveRawData("RawD", rawData);
    }
    void LoadValues(Kernel::InSerialiser const & serialiser) {
        VisitValues(*this, [&](Kernel::IDTag tag, auto & value) { serialiser.LoadType(tag, value); });
        serialiser.LoadEnumI("Enum", GetNumbers(), number);
        serialiser.LoadTypeArrayI("Byts", Kernel::PropType::UInt16, 2, array);
        serialiser.LoadTypeI("Raw4", Kernel::PropType::UInt32, raw4, sizeof raw4);
        serialiser.LoadRawData("RawD", rawData);
    }
};

inline Kernel::Counted<Geometry::Spline> MakeSpline() {
    return Kernel::MakeCounted<Geometry::Spline>(std::vector<Geometry::Spline::Point>{{0, 0}, {0.5, 0.25}, {1, 1}});
}

/// With something in every property.
/// @param depth  how many of its class stand within it.
inline Kernel::Counted<Everything> MakeEverything(int depth) {
    auto made = Kernel::MakeCounted<Everything>();
    made->u8 = made->u16 = 1;
    made->u32 = static_cast<std::uint32_t>(depth);
    made->i64 = -5;
    made->f32 = 0.5f;
    made->f64 = 1e300;
    made->truth = true;
    made->rect = {1, 2, 3, 4};
    made->text = "text";
    made->wideText = u"wide";
    made->texts = {{"author", "somebody"}, {"title", "something"}};
    made->number = 30;
    made->array = {1, 2, 3, 4};
    made->rawData = Kernel::RawDataT<Kernel::Countable, Kernel::AllocatorNew>::CreateCopy("raw", 3);
    auto label = Kernel::MakeCounted<Label>();
    label->text = "label";
    made->label = Kernel::Consolidated<Label>::ConsolidateObjectSacrifice(label);
    for (std::size_t i = 0; i < 3; ++i) {
        auto blob = Kernel::MakeCounted<Blob>();
        blob->bytes.assign(i == 2 && depth == 1 ? 65536 : 100, static_cast<std::uint8_t>(i + 1));
        made->blobs.push_back(Kernel::DelayLoadHolder::Create(Blob::GetType(), blob));
    }
    if (depth > 0) {
        made->children = {MakeEverything(depth - 1), Kernel::MakeCounted<Label>(), MakeSpline()};
        made->child = MakeEverything(depth - 1);
        made->shared = MakeEverything(depth - 1);
    }
    return made;
}
}
