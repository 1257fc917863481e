// Opens a document, reads everything in it, checks, saves and salvages it. The bytes of a run are a recipe for the
// file; those that begin as a file does are the file itself.
#include "FuzzTarget.h"
#include "kernel/ArchiveRecipe.h"
#include "kernel/Everything.h"

#include "kernel/Archive.h"
#include "kernel/ArchiveCheck.h"
#include "kernel/ArchiveSession.h"
#include "kernel/Dispatch.h"
#include "kernel/FutureVersionException.h"
#include "kernel/InSerialiserFile.h"
#include "kernel/MemoryDisk.h"

#include <map>
#include <optional>
#include <set>
#include <stdexcept>

using namespace Kernel;
using Fuzz::Bytes;
using Fuzz::Expect;

namespace {
constexpr char const * path = "document";
constexpr char const * salvaged = "salvaged";

Counted<MemoryDisk> MakeDisk(Bytes const & file) { return MakeCounted<MemoryDisk>(MemoryDisk::Files{{path, file}}); }

Counted<Archive> Open(Counted<MemoryDisk> const & disk, char const * which = path) {
    try {
        return Archive::Open(which, IDTag(), disk);
    } catch (ArchiveError const &) {
        return {};
    }
}

std::optional<ArchiveReport> Verify(Counted<MemoryDisk> const & disk, char const * which = path) {
    try {
        return VerifyArchive(which, nullptr, nullptr, nullptr, disk);
    } catch (ArchiveError const &) {
        return {};
    }
}

bool IsWhole(ArchiveReport const & report) {
    return std::none_of(report.problems.begin(), report.problems.end(),
                        [](ArchiveProblem const & problem) { return problem.isInUse; });
}

std::set<std::string> GetStreamNames(Archive const & archive) {
    std::set<std::string> names;
    for (auto const & item : archive.GetInfo().items)
        if (item.type == ArchiveTags::stream)
            names.insert(item.name);
    return names;
}

// No bytes for those that are damaged.
std::map<std::string, std::optional<Bytes>> ReadStreams(Archive const & archive) {
    std::map<std::string, std::optional<Bytes>> streams;
    for (auto const & name : GetStreamNames(archive)) {
        auto & bytes = streams[name];
        try {
            auto const stream = archive.OpenStream(name);
            bytes.emplace(stream->GetSize());
            Expect(stream->ReadAll(bytes->data(), bytes->size()));
        } catch (ArchiveError const &) {
        }
    }
    return streams;
}

Counted<Fuzz::Everything> LoadObject(Counted<Archive> const & archive, std::string const & name) {
    auto object = MakeCounted<Fuzz::Everything>();
    try {
        auto const stream = archive->OpenStream(name);
        auto const parsed = InSerialiserFile::ParseWithChecks(*stream, *archive, true);
        return object->Load(*parsed, *archive, 1) ? object : nullptr;
    } catch (ArchiveError const &) {
    } catch (PropertyStreamError const &) {
    }
    return {};
}

void LoadItems(Counted<Archive> const & archive) {
    for (auto const & item : archive->GetInfo().items) {
        archive->LoadSharedObject(item.id, 0);
        DelayLoadHolder::TempLoadItem const temp(archive->GetHolder(item.id, Fuzz::Blob::GetType()));
        Expect(!temp.GetItem() || temp.GetItemAs<Fuzz::Blob>()->bytes.size() == item.rawSize);
    }
}

// Keeps every stream as it is, and stores what can be loaded of them under other names.
bool Save(Counted<Archive> const & archive, ArchiveSaveMode mode, bool keepDamaged, bool withObjects) {
    try {
        auto session = archive->CreateSession(mode);
        session->SetKeepDamaged(keepDamaged);
        for (auto const & name : GetStreamNames(*archive)) {
            session->KeepStream(name);
            auto const object = withObjects ? LoadObject(archive, name) : nullptr;
            auto const newName = "new " + name.substr(0, 4000);
            if (object && !archive->HasStream(newName))
                session->StoreObject(newName, *object);
        }
        archive->CloseSession(std::move(session));
        return true;
    } catch (ArchiveError const &) {
    } catch (std::length_error const &) {     // a name of the file is longer than names are
    } catch (std::invalid_argument const &) { // two become one when they are cut
    }
    return false;
}

void TrySave(Bytes const & file, ArchiveSaveMode mode, bool keepDamaged, bool withObjects, bool isWhole) {
    auto const disk = MakeDisk(file);
    auto archive = Open(disk);
    auto const before = ReadStreams(*archive);
    bool const isSaved = Save(archive, mode, keepDamaged, withObjects);
    Expect(isSaved || !isWhole || withObjects); // objects may refer to what is not there
    archive = Open(disk);
    Expect(static_cast<bool>(archive));
    auto const after = ReadStreams(*archive);
    for (auto const & [name, bytes] : before)
        Expect(after.contains(name) && after.at(name) == bytes);
    Expect(isSaved || after.size() == before.size());
    if (isSaved && isWhole && !withObjects && mode == ArchiveSaveMode::Compact)
        Expect(Verify(disk)->problems.empty());
}

void TrySalvage(Bytes const & file) {
    auto const disk = MakeDisk(file);
    try {
        SalvageArchive(path, salvaged, nullptr, nullptr, nullptr, disk);
    } catch (ArchiveError const &) {
        return;
    }
    auto const report = Verify(disk, salvaged);
    for (auto const & problem : report->problems)
        Expect(problem.what.find("refers to an item that") != std::string::npos); // items are kept as they are
    auto const archive = Open(disk, salvaged);
    Expect(static_cast<bool>(archive));
    for (auto const & [name, bytes] : ReadStreams(*archive))
        Expect(bytes.has_value());
}

void Try(Bytes const & file) {
    auto const disk = MakeDisk(file);
    auto const report = Verify(disk);
    auto const archive = Open(disk);
    bool const isWhole = report && IsWhole(*report);
    Expect(archive || !isWhole);
    TrySalvage(file);
    if (!archive)
        return;
    for (auto const & [name, bytes] : ReadStreams(*archive)) {
        Expect(bytes || !isWhole);
        LoadObject(archive, name);
    }
    LoadItems(archive);
    // One way of saving in each run, for speed.
    auto const way = ArchiveLayout::Hash64(file.data(), file.size());
    TrySave(file, way & 1 ? ArchiveSaveMode::Compact : ArchiveSaveMode::Update, (way & 2) != 0, (way & 4) != 0,
            isWhole);
}
}

int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size) {
    Fuzz::Everything::Register();
    Dispatch::SetThreadCount(1);
    Try(Fuzz::ArchiveRecipe::IsFile(data, size) ? Bytes(data, data + size) : Fuzz::ArchiveRecipe::MakeFile(data, size));
    return 0;
}
