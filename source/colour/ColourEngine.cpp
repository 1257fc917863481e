#include "colour/ColourEngine.h"

#include "colour/ICCManager.h"
#include "kernel/ConvertEnc.h"
#include "kernel/Trace.h"

#include <lcms2_plugin.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace Raster::ColourEngine {
namespace {
void * AllocateWithinLimit(cmsContext, cmsUInt32Number size) {
    return size == 0 || size > largestAllocationBytes ? nullptr : std::malloc(size);
}
void FreeAllocated(cmsContext, void * memory) { std::free(memory); }
void * ReallocateWithinLimit(cmsContext, void * memory, cmsUInt32Number size) {
    return size > largestAllocationBytes ? nullptr : std::realloc(memory, size);
}

void TraceMessage(cmsContext, cmsUInt32Number, char const * text) { Kernel::Trace("Colour engine: %1\n", text); }
void DropMessage(cmsContext, cmsUInt32Number, char const *) {}

cmsContext CreateContext(cmsLogErrorHandlerFunction handler) {
    constexpr cmsUInt32Number oldestVersion = 2000; // any 2.x
    cmsPluginMemHandler memory = {{cmsPluginMagicNumber, oldestVersion, cmsPluginMemHandlerSig, nullptr},
                                  AllocateWithinLimit,
                                  FreeAllocated,
                                  ReallocateWithinLimit,
                                  nullptr, // the rest is made of these three
                                  nullptr,
                                  nullptr};
    cmsContext const context = cmsCreateContext(&memory, nullptr);
    if (!context)
        throw std::bad_alloc();
    cmsSetLogErrorHandlerTHR(context, handler);
    return context;
}
}

void * GetContext(Messages messages) {
    // Never deleted: profiles and transforms that hold one may outlive every static.
    static cmsContext const traced = CreateContext(TraceMessage), dropped = CreateContext(DropMessage);
    return messages == Messages::Traced ? traced : dropped;
}

void CloseProfile::operator()(void * handle) const noexcept { cmsCloseProfile(handle); }
void DeleteTransform(void * transform) noexcept { cmsDeleteTransform(transform); }

ProfileHandle OpenProfile(void const * data, std::uint64_t size) {
    if (!data || size == 0 || size > ICCManager::largestProfileBytes)
        return nullptr;
    auto const context = static_cast<cmsContext>(GetContext(Messages::Traced));
    return ProfileHandle(cmsOpenProfileFromMemTHR(context, data, static_cast<cmsUInt32Number>(size)));
}

std::optional<Kernel::StringUtf8> ReadDescription(void * profile) {
    char text[256] = {};
    if (cmsGetProfileInfoASCII(profile, cmsInfoDescription, "en", "US", text, sizeof text) == 0)
        return std::nullopt;
    // The library cuts each UTF-16 unit to its low byte, so what isn't ASCII here is Latin-1.
    char16_t wide[std::size(text)] = {};
    auto * const end = std::find(std::begin(text), std::end(text), '\0');
    std::transform(std::begin(text), end, std::begin(wide),
                   [](char character) { return static_cast<char16_t>(static_cast<unsigned char>(character)); });
    std::u16string_view const view(wide, static_cast<std::size_t>(end - text));
    return Kernel::ConvertEnc<Kernel::TEncUtf8, Kernel::TEncUtf16>(view);
}
}
