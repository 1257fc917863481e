// Writes recipes for documents, and one document, into a folder.
#include "FuzzTarget.h"
#include "SeedFolder.h"
#include "kernel/ArchiveRecipe.h"
#include "kernel/Everything.h"

#include "kernel/Archive.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveSession.h"
#include "kernel/ArchiveSnapshot.h"
#include "kernel/DelayLoadHolder.h"
#include "kernel/InSerialiserFile.h"
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
            bool const isCompressed = isTile || (flags & ArchiveRecipe::Compressed && IsCompressible(raw));
            out.Put(std::uint8_t(isCompressed ? 1 : 0)).Put(std::uint8_t(isTile ? 2 : 0));
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
    // What isn't made smaller is stored as it is.
    static bool IsCompressible(std::vector<std::uint8_t> const & raw) {
        FileStoreCompressionHintGeneral const hint(1);
        return ItemCodec::Encode(raw, &hint).codec == ArchiveLayout::Codec::Zstd;
    }
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

bool IsAsMade(Counted<Fuzz::Everything const> const & object, int depth) {
    if (object->u32 != unsigned(depth) || object->label.Get()->text.GetView() != "label" || object->blobs.size() != 3)
        return false;
    for (auto const & blob : object->blobs) {
        DelayLoadHolder::TempLoadItem const temp(blob);
        if (!temp.GetItem() || temp.GetItemAs<Fuzz::Blob>()->bytes.size() < 100)
            return false;
    }
    return depth == 0 || IsAsMade(DynamicCast<Fuzz::Everything>(object->shared), depth - 1);
}

// A seed whose document is refused at the door leads nowhere.
void ExpectOpens(std::vector<std::uint8_t> const & file, int depth, std::uint32_t commits, bool isWhole) {
    auto const disk = MakeCounted<MemoryDisk>(MemoryDisk::Files{{path, file}});
    auto const archive = Archive::Open(path, ArchiveRecipe::archiveTag, disk);
    Fuzz::Expect(archive->GetInfo().commitNumber == commits);
    auto const parsed = InSerialiserFile::ParseWithChecks(*archive->OpenStream("Main.dat"), *archive, false);
    auto const object = MakeCounted<Fuzz::Everything>();
    Fuzz::Expect(object->Load(*parsed, *archive, 1) && IsAsMade(object, depth));
    Fuzz::Expect(VerifyArchive(path, nullptr, nullptr, nullptr, disk).problems.empty() == isWhole);
}

void SaveRecipe(Fuzz::SeedFolder const & folder, std::string const & name, Output const & recipe, int depth,
                std::uint32_t commits, bool isWhole) {
    auto const & bytes = recipe.GetBytes();
    ExpectOpens(ArchiveRecipe::MakeFile(bytes.data(), bytes.size()), depth, commits, isWhole);
    folder.Save(name, bytes);
}

void SaveRecipes(Fuzz::SeedFolder const & folder) {
    for (int depth = 0; depth < 2; ++depth) {
        RecipeMaker const maker(SaveDocument(depth));
        for (unsigned const flags : {0u, unsigned(ArchiveRecipe::Compressed)}) {
            auto const name = "depth" + std::to_string(depth) + (flags ? "-compressed" : "");
            Output out;
            maker.PutItems(out, std::uint8_t(flags));
            PutCommit(out, 0);
            SaveRecipe(folder, name, out, depth, 1, true);
            out.Put(std::uint8_t(ArchiveRecipe::Raw)).Put(std::uint16_t(4)).PutAll(std::string("tail"));
            PutCommit(out, ArchiveRecipe::Far | ArchiveRecipe::FirstDamaged);
            SaveRecipe(folder, name + "-twice", out, depth, 2, false);
            PutCommit(out, ArchiveRecipe::FooterDamaged);
            SaveRecipe(folder, name + "-footerless", out, depth, 2, false);
        }
    }
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        Fuzz::Everything::Register();
        SaveRecipes(folder);
        auto const document = SaveDocument(0)->GetFiles().at(path);
        Fuzz::Expect(ArchiveRecipe::IsFile(document.data(), document.size()));
        ExpectOpens(document, 0, 1, true);
        folder.Save("document", document);
    });
}
