#pragma once

#include "kernel/Countable.h"
#include "pixel/DynamicBase.h"

#include <string>
#include <utility>

namespace Raster {
/// Base of the wrappers that hold a file model of a format which the file decides: `DynamicPNG` and its like. It adds
/// the word on what went wrong, also where no model came to be.
///
/// A wrapper `DynamicXXX : FileWrapper<DynamicXXX>` provides, as its type of file allows,
/// - `bool Create(char const *)`, `bool Create(Counted<CompressedRasterData const>)`: open for reading. A file that
///   turns out to be broken leaves `NoFormat`, a failure, and may give true;
/// - `bool Create(char const *, int, int, ExportOptions const &, Format)`, the same for `Counted<CompressedRasterData>`
///   and, as `CreateToStream`, for streams: open for writing. False if that is not possible;
/// - `double GetDPI() const`, `Consolidated<ICCProfile> GetProfile() const`, `bool IsProfileFallback() const`,
///   `int GetOrientation() const`;
/// - `static bool IsXXXFile(char const *)` and of `Counted<CompressedRasterData const>`, never throwing for what is in
///   the file;
/// - `static Format GetSupportedFormat(Format)` and `static bool IsSupportedFormat(Format)`.
/// Opening anew drops the failure of before.
template<class T>
class FileWrapper : public DynamicBase<T>, public Kernel::Countable {
public:
    /// Whether opening, reading or writing has gone wrong for good.
    bool HasFailed() const {
        return !openFailure.empty() || this->Dispatch([](auto const & model) { return model.HasFailed(); });
    }
    /// What went wrong last, in words for the user; empty if nothing did.
    std::string GetFailure() const {
        return openFailure.empty() ? this->Dispatch([](auto const & model) { return model.GetFailure(); })
                                   : openFailure;
    }

protected:
    FileWrapper() = default;
    FileWrapper(FileWrapper const &) = default;
    FileWrapper & operator=(FileWrapper const &) = default;
    ~FileWrapper() override = default;

    /// Why there is no model; empty for none.
    void SetOpenFailure(std::string reason) { openFailure = std::move(reason); }

private:
    std::string openFailure;
};
}
