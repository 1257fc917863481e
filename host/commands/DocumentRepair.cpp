#include "host/Document.h"
#include "host/DocumentDisk.h"
#include "host/Failure.h"
#include "host/Progress.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "host/commands/DocumentCommands.h"

#include <fmt/format.h>

#include <filesystem>
#include <string_view>
#include <system_error>

namespace Host {
namespace {
/// Progress of work that goes through a document.
void ShowFraction(void * context, double fraction) { static_cast<Progress *>(context)->Show(fraction); }

/// Makes a document that opens of one that lacks its list of layers, or a layer.
/// @param name  for messages
void RepairLayers(Session & session, std::string const & path, std::string const & name) {
    try {
        static_cast<void>(Document::Open(path));
    } catch (LaterVersion const &) { // which will know what to make of it
    } catch (Failure const &) {
        session.PrepareForPixels();
        auto document = Document::OpenRemains(path);
        document.Save({Kernel::ArchiveSaveMode::Update, /*keepDamaged=*/true});
        session.GetMessages().Warn(name, fmt::format("layers were lost; what is there makes {}, placed files included",
                                                     document.layers.size()));
    }
}
}

Kernel::ArchiveReport VerifyWithProgress(Session & session, std::string const & path) {
    Progress progress(session.GetMessages(), path);
    progress.BeginStep(1);
    try {
        auto report = Kernel::VerifyArchive(path, Signals::GetAbortFlag(), ShowFraction, &progress);
        Signals::ThrowIfAborted();
        return report;
    } catch (Kernel::ArchiveError const & error) {
        throw Document::MakeFailure(error, path);
    }
}

bool VerifyDocument(Session & session, DocumentSettings const & settings) {
    bool isWhole = false;
    return session.Try(settings.document, [&] {
        auto const report = VerifyWithProgress(session, settings.document);
        for (auto const & problem : report.problems)
            Print(fmt::format("{}: {}{}\n", MakePrintable(settings.document),
                              MakePrintable(Document::WithoutPath(problem.what, settings.document)),
                              problem.isInUse ? "" : " (no longer in use)"));
        isWhole = report.problems.empty();
        Print(fmt::format("{}: {} items, {} checked, {}{}\n", MakePrintable(settings.document), report.itemsChecked,
                          FormatBytes(report.bytesChecked),
                          isWhole ? "whole" : fmt::format("{} damaged", report.problems.size()),
                          report.unfinishedBytes ? ", an unfinished save behind the end" : ""));
    }) && isWhole;
}

bool SalvageDocument(Session & session, DocumentSettings const & settings) {
    return session.Try(settings.document, [&] {
        Blaming(settings.out, [&] { CheckTarget(settings.out, settings.writing.noClobber); });
        std::error_code none;
        if (std::filesystem::equivalent(settings.document, settings.out, none))
            throw Failure("OUT is the damaged document itself; name another file");
        Progress progress(session.GetMessages(), settings.document);
        progress.BeginStep(1);
        // It takes its place once it opens: until then what was there stands, and if it is interrupted nothing is
        // there.
        auto const disk = Kernel::MakeCounted<HoldingDisk>();
        try {
            auto const saved = Kernel::SalvageArchive(settings.document, settings.out, Signals::GetAbortFlag(),
                                                      ShowFraction, &progress, disk, Document::archiveTag);
            session.GetMessages().Note(settings.document,
                                       fmt::format("{} items saved, {}; {} lost{}", saved.itemsSaved,
                                                   FormatBytes(saved.bytesSaved), saved.itemsLost,
                                                   saved.hasScanned ? "; looked for in all of the file" : ""));
        } catch (Kernel::ArchiveError const & error) {
            Signals::ThrowIfAborted();
            if (error.GetKind() == Kernel::ArchiveError::Kind::NotFound)
                throw Document::MakeFailure(error, settings.document);
            auto failure =
                Failure(Document::WithoutPath(Document::WithoutPath(error.what(), settings.document), settings.out));
            if (std::string_view(error.what()).starts_with(settings.out + ": "))
                failure.SetFile(settings.out);
            throw failure;
        }
        Blaming(settings.out, [&] {
            RepairLayers(session, disk->GetHeldPath(), settings.out);
            Signals::ThrowIfAborted();
            disk->PutInPlace(settings.out, GetTarget(settings.writing.noClobber));
        });
    });
}
}
