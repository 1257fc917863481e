/// How libpng is called: what its reader and its writer have in common.
#pragma once

#include <exception>
#include <string>

#include <png.h>

namespace Raster {
/// One codec at work. libpng is C: an exception must not pass through it, and it reports a fatal error by a call that
/// must not return. So every call that may fail is a step, run by `Run`; the error call jumps back there. Neither `Run`
/// nor a step nor a callback that may jump has an object with a destructor. Callbacks leave exceptions in `thrown`.
class PNGSession {
public:
    PNGSession(PNGSession const &) = delete;
    PNGSession & operator=(PNGSession const &) = delete;

protected:
    /// The banner that the codec gets; it accepts any of its own series.
    static constexpr char const * version = "1.6.5";

    PNGSession() = default;
    ~PNGSession() = default;

    /// Calls `step(session)`. @return false if the codec gave up.
    template<class Session>
    [[gnu::noinline]] static bool Run(Session & session, void (*step)(Session &)) {
        if (setjmp(png_jmpbuf(session.png)) != 0)
            return false;
        step(session);
        return true;
    }

    /// The codec's words on why it gave up, its first warning behind them.
    std::string DescribeFailure() const;

    // What a codec is created with. It prints if these are absent.
    [[noreturn]] static void OnError(png_structp png, png_const_charp text);
    static void OnWarning(png_structp png, png_const_charp text);

    png_structp png = nullptr;
    png_infop info = nullptr;
    std::exception_ptr thrown; ///< by a stream

private:
    static constexpr int mostTraced = 16; ///< A file can hold any number of bad chunks.

    char message[256] = "";
    char warning[256] = "";
    int warningCount = 0;
};
}
