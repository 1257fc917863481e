/// How libjpeg is called: what its reader and its writer have in common.
#pragma once

#include <csetjmp>
#include <cstdio> // jpeglib.h needs it and doesn't include it
#include <exception>
#include <string>

#include <jerror.h>
#include <jpeglib.h>

namespace Raster {
/// One codec at work. libjpeg is C: an exception must not pass through it, and it reports a fatal error by a call that
/// must not return. So every call into it is a step, run by `Run`; the error call jumps back there. Neither `Run` nor a
/// step nor a callback that may jump has an object with a destructor. Callbacks leave exceptions in `thrown`.
class JPEGSession {
public:
    JPEGSession(JPEGSession const &) = delete;
    JPEGSession & operator=(JPEGSession const &) = delete;

    /// Polled between rows, and by the codec while it takes or gives a progressive file. May be null.
    void SetAbort(bool const * newAbort) { abort = newAbort; }
    bool WasAborted() const { return wasAborted; }
    /// Complaints of the codec about the data that it could live with, and the first of them in words.
    unsigned long GetWarningCount() const { return warningCount; }
    char const * GetWarning() const { return warning; }

protected:
    static constexpr std::size_t bufferBytes = 4096;

    JPEGSession();
    ~JPEGSession() = default;

    /// Makes the codec report to this session. To be called before the codec is created.
    template<class Codec>
    void Connect(Codec & codec) {
        codec.err = &errors;
        codec.client_data = this;
    }
    /// After the codec is created.
    /// @param monitor  calls `OnProgress` first
    template<class Codec>
    void ConnectProgress(Codec & codec, void (*monitor)(j_common_ptr) = &OnProgress) {
        progress.progress_monitor = monitor;
        codec.progress = &progress;
    }
    /// What the codec calls while it works long.
    static void OnProgress(j_common_ptr codec);

    /// Calls `step(session)`. @return false if the codec gave up, or was aborted.
    template<class Session>
    [[gnu::noinline]] static bool Run(Session & session, void (*step)(Session &)) {
        if (setjmp(session.jump) != 0)
            return false;
        step(session);
        return true;
    }
    template<class Session>
    static void RunOrThrow(Session & session, void (*step)(Session &)) {
        if (!Run(session, step))
            session.ThrowFailure();
    }

    /// What a callback threw, or the codec's words as a `JPEGError`, or std::bad_alloc if the codec had no memory.
    [[noreturn]] void ThrowFailure() const;

    static JPEGSession & Of(j_common_ptr codec) { return *static_cast<JPEGSession *>(codec->client_data); }
    /// For callbacks and steps: reports one of the codec's own errors. Does not return.
    [[noreturn]] static void Fail(j_common_ptr codec, J_MESSAGE_CODE code);
    /// For callbacks: the codec may not go on, for a reason of ours.
    [[noreturn]] void Refuse(char const * reason);
    /// For callbacks: back to `Run`, `thrown` or `message` having been set.
    [[noreturn]] void Jump() { std::longjmp(jump, 1); }

    bool const * abort = nullptr;
    std::exception_ptr thrown;

private:
    [[noreturn]] static void OnError(j_common_ptr codec);
    static void OnMessage(j_common_ptr codec, int level);

    jpeg_error_mgr errors;
    jpeg_progress_mgr progress{};
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX] = "";
    char warning[JMSG_LENGTH_MAX] = "";
    unsigned long warningCount = 0;
    bool isOutOfMemory = false;
    bool wasAborted = false;
};
}
