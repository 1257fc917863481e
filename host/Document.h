/// A document of pictures, one on another: the worked example of docs/documents.md. It uses public classes only.
#pragma once

#include "colour/ICCManager.h"
#include "colour/ICCProfileSet.h"
#include "host/Failure.h"
#include "host/Progress.h"
#include "kernel/Archive.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/Point.h"
#include "kernel/Serialisable.h"
#include "kernel/SharedObjectReference.h"
#include "kernel/String.h"
#include "storage/DynamicBitmap.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Host {
/// One picture of a document. Its pixels are those of the file that was placed until somebody paints on them; the file
/// itself stays with the layer.
class Layer final : public Kernel::Serialisable {
public:
    Kernel::StringUtf8 name;
    Kernel::PointT<int> offset{0, 0}; ///< of its top left corner in the document, pixels
    float opacity = 1;
    double dpi = 72;
    Raster::DynamicBitmap bitmap;
    Raster::ICCManager::Profile profile;                 ///< of the file; null if it has none
    Kernel::SharedObjectReference unreadProfile;         ///< the one that it has, if that can't be read
    Kernel::Counted<Kernel::DelayLoadHolder> placedFile; ///< a `CompressedRasterData`; null if there is none
    bool isStored = false; ///< the document on disk has it as it is: a save keeps its stream

    static Kernel::ClassProperties const & GetClassProperties();
    Kernel::ClassPropertiesBase const & GetObjectClassProperties() const override { return GetClassProperties(); }
    void Save(Kernel::OutSerialiser & serialiser) const override;
    bool Load(Kernel::InSerialiser const & serialiser, Kernel::FileStore & store, unsigned short version) override;
};

/// Whoever opens the document would save less than is in it.
class LaterVersion : public Failure {
public:
    using Failure::Failure;
};

/// Layers from the bottom up, each a stream of its own, and the stream "Document.dat" that names them.
class Document {
public:
    static constexpr Kernel::IDTag archiveTag{"Rast"};

    /// Registers what documents hold. Before the first one.
    static void RegisterClasses();
    /// Whether a file is one, if a damaged one.
    static bool IsDocument(std::string const & path);
    /// A new one, which `Save` puts in the place of whatever lies at the path, if that may be replaced.
    static Document Create(std::string const & path, Kernel::ArchiveTarget target = Kernel::ArchiveTarget::Any);
    /// Reads no pixel. Throws `Failure`.
    static Document Open(std::string const & path);
    /// What can still be made of a document whose list of layers, or some layer, is gone: the layers that are whole,
    /// and a layer for each placed file that none of them has. Throws `Failure`.
    static Document OpenRemains(std::string const & path);

    /// What a save is told.
    struct SaveSettings {
        Kernel::ArchiveSaveMode mode = Kernel::ArchiveSaveMode::Update;
        bool keepDamaged = false;      ///< save what is damaged as it is, rather than fail
        Progress * progress = nullptr; ///< may be null; told after each layer
    };
    /// Throws `Interrupted`, and `Failure`; the document on disk is as it was then, unless the text says otherwise.
    Kernel::ArchiveSaveCounts Save(SaveSettings const & settings);

    std::string const & GetPath() const { return archive->GetPath(); }
    Kernel::Archive const & GetArchive() const { return *archive; }
    /// The n-th layer, counted from 1 as users do, to be looked at. Throws `Failure`.
    Layer const & GetLayer(int number) const;
    /// The same, to be changed.
    Layer & ChangeLayer(int number);

    int width = 0, height = 0; ///< of the canvas, pixels
    std::vector<Kernel::Counted<Layer>> layers;
    Raster::ICCManager::ICCProfileSet profiles;

    /// The layer for a picture file, which stays in it as it is; it takes size and format from there.
    static Kernel::Counted<Layer> MakeLayer(Kernel::Counted<Kernel::DelayLoadHolder> placedFile, int width, int height,
                                            Raster::Format format, Raster::ICCManager::Profile const & profile);

    /// What an error of a document says, without the name of the file, which whoever reports it puts before.
    static std::string WithoutPath(std::string_view text, std::string const & path);
    /// The same, with what may help.
    static Failure MakeFailure(Kernel::ArchiveError const & error, std::string const & path);

private:
    explicit Document(Kernel::Counted<Kernel::Archive> openArchive) : archive(std::move(openArchive)) {}
    void Load();
    void ShareEqualTiles();
    Kernel::ArchiveSaveCounts Store(SaveSettings const & settings);
    void LoadRoot(Kernel::InSerialiser const & root, std::uint32_t & layerCount);
    /// Null if it is missing or damaged. Throws `Failure` if all layers so far have more tiles than one bitmap may
    /// have: a small file could claim any number, and each takes memory before there is a pixel in it.
    Kernel::Counted<Layer> LoadLayer(std::string const & streamName);
    /// Of the placed files that none of the layers has.
    std::vector<Kernel::Counted<Layer>> MakeLayersOfOtherFiles();

    Kernel::Counted<Kernel::Archive> archive;
    std::uint64_t tileCount = 0; // of the layers that were loaded
};
}
