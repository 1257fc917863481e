// The foundation: rectangles, shared objects, texts, and messages to a sink of one's own.
#include "kernel/AppendFormat.h"
#include "kernel/ConvertEnc.h"
#include "kernel/Countable.h"
#include "kernel/Counted.h"
#include "kernel/Path.h"
#include "kernel/Rect.h"
#include "kernel/String.h"
#include "kernel/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {
/// Something shared: derived from `Countable`, held by `Counted`.
class Selection : public Kernel::Countable {
public:
    explicit Selection(Kernel::RectT<int> const & bounds) : area(bounds) {}
    Kernel::RectT<int> const area;
};

/// Without a sink all messages are dropped.
class Collector : public Kernel::TraceSink {
public:
    void Write(std::string_view message) override { text += message; }
    std::string text; // one thread traces here, so no lock is needed
};
}

int main() {
    Kernel::RectT<int> const canvas{0, 0, 640, 480};
    auto const selection = Kernel::MakeCounted<Selection>(Kernel::RectT<int>{600, 400, 800, 500});
    auto const other = selection; // a second holder of the same object
    auto const visible = canvas.Intersect(other->area);

    Kernel::StringUtf8 const name = "Größe"; // texts are UTF-8 or UTF-16, immutable and shared
    auto const wide = Kernel::ConvertEnc<Kernel::TEncUtf16>(name);
    Kernel::Path path = "pictures";
    path.Append(name + ".png");

    auto const collector = Kernel::MakeCounted<Collector>();
    Kernel::SetTraceSink(collector);
    Kernel::Trace("%1 shows %2 x %3 pixels and has %4 holders\n", "the selection", visible.GetWidth(),
                  visible.GetHeight(), selection->GetCount());
    Kernel::Trace("%1 is %2 bytes in UTF-8 and %3 units in UTF-16\n", name, name.GetLength(), wide.GetLength());
    Kernel::Trace("the extension of %1 is %2\n", path.GetString(), path.GetExtension());
    Kernel::SetTraceSink(nullptr);
    std::fputs(collector->text.c_str(), stdout);

    bool const isRight = collector->text == "the selection shows 40 x 80 pixels and has 2 holders\n"
                                            "Größe is 7 bytes in UTF-8 and 5 units in UTF-16\n"
                                            "the extension of pictures/Größe.png is png\n";
    return isRight ? EXIT_SUCCESS : EXIT_FAILURE;
}
