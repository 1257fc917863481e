#pragma once

#include "kernel/String.h"

namespace Kernel {
/// A text that a person reads, with a context that tells a translator where it stands. Converting it to a string
/// translates it, so that a change of language reaches strings that exist already.
class RASTER_API LocalisedString {
public:
    /// Gives the translation of `text`, or `text` itself. May be called from any thread, and must not throw.
    using Translator = StringUtf8 (*)(StringUtf8 const & text, StringUtf8 const & context);

    LocalisedString() = default;
    LocalisedString(StringUtf8 const & textInEnglish, StringUtf8 const & contextOfText)
        : text(textInEnglish), context(contextOfText), isTranslatable(true) {}
    /// One that shows the given text in every language.
    static LocalisedString CreateFakeFromString(StringUtf8 const & shown);

    /// Sets the process's translator; null, as at the start, shows the texts as they are. Safe at any time.
    static void SetTranslator(Translator translator) noexcept;

    StringUtf8 const & GetText() const noexcept { return text; }
    StringUtf8 const & GetContext() const noexcept { return context; }
    StringUtf8 ToString() const;
    operator StringUtf8() const { return ToString(); }
    operator StringUtf16() const;

    /// Compares what was written, not what it translates to.
    bool operator==(LocalisedString const &) const = default;

private:
    StringUtf8 text, context;
    bool isTranslatable = false;
};
}
