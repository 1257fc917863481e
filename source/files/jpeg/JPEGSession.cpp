#include "files/jpeg/JPEGSession.h"

#include "files/jpeg/JPEGError.h"
#include "kernel/Abort.h"
#include "kernel/Trace.h"

#include <cstdio>
#include <new>

namespace Raster {
JPEGError::~JPEGError() = default;

JPEGSession::JPEGSession() {
    jpeg_std_error(&errors);
    errors.error_exit = OnError;
    errors.emit_message = OnMessage;
}

void JPEGSession::ThrowFailure() const {
    if (thrown)
        std::rethrow_exception(thrown);
    if (isOutOfMemory)
        throw std::bad_alloc();
    throw JPEGError(std::string("JPEG: ") + message);
}

void JPEGSession::Fail(j_common_ptr codec, J_MESSAGE_CODE code) {
    codec->err->msg_code = code;
    OnError(codec);
}

void JPEGSession::OnError(j_common_ptr codec) {
    auto & session = Of(codec);
    codec->err->format_message(codec, session.message);
    session.isOutOfMemory = codec->err->msg_code == JERR_OUT_OF_MEMORY || codec->err->msg_code == JERR_NO_BACKING_STORE;
    session.Jump();
}

// A level below 0 is a warning, the others tell how the work goes.
void JPEGSession::OnMessage(j_common_ptr codec, int level) {
    if (level >= 0)
        return;
    ++codec->err->num_warnings;
    auto & session = Of(codec);
    if (++session.warningCount != 1)
        return; // damaged data brings thousands of them
    codec->err->format_message(codec, session.warning);
    Kernel::Trace("JPEG: %1\r\n", static_cast<char const *>(session.warning));
}

void JPEGSession::Refuse(char const * reason) {
    std::snprintf(message, sizeof(message), "%s", reason);
    Jump();
}

void JPEGSession::OnProgress(j_common_ptr codec) {
    auto & session = Of(codec);
    if (Kernel::IsAborted(session.abort)) {
        session.wasAborted = true;
        session.Refuse("stopped on request");
    }
}
}
