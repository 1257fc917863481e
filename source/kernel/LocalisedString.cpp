#include "kernel/LocalisedString.h"

#include "kernel/ConvertEnc.h"

namespace Kernel {
namespace {
std::atomic<LocalisedString::Translator> currentTranslator{nullptr}; // read by ToString
}

LocalisedString LocalisedString::CreateFakeFromString(StringUtf8 const & shown) {
    LocalisedString result;
    result.text = shown;
    return result;
}

void LocalisedString::SetTranslator(Translator translator) noexcept {
    currentTranslator.store(translator, std::memory_order_release);
}

StringUtf8 LocalisedString::ToString() const {
    auto const translator = currentTranslator.load(std::memory_order_acquire);
    return translator && isTranslatable ? translator(text, context) : text;
}

LocalisedString::operator StringUtf16() const { return ConvertEnc<TEncUtf16>(ToString()); }
}
