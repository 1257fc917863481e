#include "files/png/PNGSession.h"

#include "kernel/Trace.h"

#include <cstdio>

namespace Raster {
std::string PNGSession::DescribeFailure() const {
    std::string text = "PNG: ";
    text += message[0] != '\0' ? message : "the codec gave up";
    if (warning[0] != '\0')
        text.append(" (").append(warning).append(")");
    return text;
}

void PNGSession::OnError(png_structp png, png_const_charp text) {
    auto & session = *static_cast<PNGSession *>(png_get_error_ptr(png));
    std::snprintf(session.message, sizeof(session.message), "%s", text);
    png_longjmp(png, 1);
}

void PNGSession::OnWarning(png_structp png, png_const_charp text) {
    auto & session = *static_cast<PNGSession *>(png_get_error_ptr(png));
    if (session.warningCount++ == 0)
        std::snprintf(session.warning, sizeof(session.warning), "%s", text);
    if (session.warningCount <= mostTraced)
        Kernel::Trace("PNG: %1\r\n", text);
}
}
