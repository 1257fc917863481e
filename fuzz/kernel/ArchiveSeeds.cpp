// Writes recipes for documents, and one document, into a folder.
#include "SeedFolder.h"
#include "kernel/ArchiveRecipe.h"
#include "kernel/Everything.h"

#include "kernel/Archive.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/MemoryDisk.h"

using namespace Kernel;
using Fuzz::ArchiveRecipe;
using Fuzz::Output;

namespace {
constexpr char const * path = "document";

Counted<MemoryDisk> SaveDocument(int depth) {
    auto const disk = MakeCounted<MemoryDisk>();
    auto const archive = Archive::Create(path, ArchiveRecipe::archiveTag, disk);
    auto session = archive->CreateSession();
    session->StoreObject("Main.dat", *Fuzz::MakeEverything(depth));
    session->StoreStream("Text", "bytes", 5);
    archive->CloseSession(std::move(session));
    return disk;
}

// A document is turned into steps that make it: its ids become small numbers, in items as in what refers to them.
class RecipeMaker {
public:
    explicit RecipeMaker(Counted<MemoryDisk> const & disk)
        : snapshot(ArchiveSnapshot::Open(path, disk->OpenToRead(path), IDTag())) {}

    void PutItems(Output & out, std::uint8_t flags) const {
        for (auto const & entry : snapshot->GetEntries()) {
            auto const header = snapshot->GetReader().ReadHeader(entry);
            auto const raw = WithSmallIDs(snapshot->GetReader().ReadRaw(entry));
            bool const isTile = raw.size() == 65536;
            auto const type = std::find(ArchiveRecipe::types.begin(), ArchiveRecipe::types.end(), entry.type);
            out.Put(std::uint8_t(ArchiveRecipe::Item));
            out.Put(std::uint8_t(isTile ? ArchiveRecipe::Compressed | ArchiveRecipe::Predicted : flags));
            out.Put(std::uint8_t(type - ArchiveRecipe::types.begin()));
            PutID(out, entry.id);
            out.Put(std::uint8_t(isTile || flags & ArchiveRecipe::Compressed ? 1 : 0))
                .Put(std::uint8_t(isTile ? 2 : 0));
            out.Put(std::uint8_t(entry.name.size())).PutAll(entry.name);
            out.Put(std::uint8_t(header.references.size()));
            for (auto const & reference : header.references)
                PutID(out, reference);
            if (isTile)
                out.Put(std::uint16_t(4)).PutAll(std::string("tile"));
            else
                out.Put(std::uint16_t(raw.size())).PutAll(raw);
        }
    }

private:
    static void PutID(Output & out, ItemID id) { out.Put(std::uint8_t(1)).Put(std::uint8_t(id.number)); }

    // The random half of each id becomes 1.
    std::vector<std::uint8_t> WithSmallIDs(std::vector<std::uint8_t> raw) const {
        Output commit, one;
        commit.Put(snapshot->GetEntries().front().id.commit);
        one.Put(std::uint64_t(1));
        auto const & wanted = commit.GetBytes();
        for (auto at = raw.begin();; at += 8) {
            at = std::search(at, raw.end(), wanted.begin(), wanted.end());
            if (at == raw.end())
                return raw;
            std::copy(one.GetBytes().begin(), one.GetBytes().end(), at);
        }
    }

    Counted<ArchiveSnapshot const> const snapshot;
};

void PutCommit(Output & out, unsigned flags) {
    out.Put(std::uint8_t(ArchiveRecipe::Commit)).Put(std::uint8_t(flags)).Put(std::uint8_t(0)).Put(std::uint8_t(0));
}

void SaveRecipes(Fuzz::SeedFolder const & folder) {
    for (int depth = 0; depth < 2; ++depth) {
        RecipeMaker const maker(SaveDocument(depth));
        for (unsigned const flags : {0u, unsigned(ArchiveRecipe::Compressed)}) {
            auto const name = "depth" + std::to_string(depth) + (flags ? "-compressed" : "");
            Output out;
            maker.PutItems(out, std::uint8_t(flags));
            PutCommit(out, 0);
            folder.Save(name, out.GetBytes());
            out.Put(std::uint8_t(ArchiveRecipe::Raw)).Put(std::uint16_t(3)).PutAll(std::string("tail"));
            PutCommit(out, ArchiveRecipe::Far | ArchiveRecipe::FirstDamaged);
            folder.Save(name + "-twice", out.GetBytes());
            PutCommit(out, ArchiveRecipe::FooterDamaged);
            folder.Save(name + "-footerless", out.GetBytes());
        }
    }
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        SaveRecipes(folder);
        folder.Save("document", SaveDocument(0)->GetFiles().at(path));
    });
}
