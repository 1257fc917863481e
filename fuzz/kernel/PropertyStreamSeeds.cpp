// Writes streams of properties of every kind into a folder.
#include "SeedFolder.h"
#include "kernel/Everything.h"

#include "kernel/FileStoreOut.h"
#include "kernel/MemoryOutStream.h"
#include "kernel/OutSerialiserFile.h"

using namespace Kernel;

namespace {
class NumberingStore final : public FileStoreOut {
public:
    ItemID StoreItem(DelayLoadHolder &, FileStoreOutPathGenerator const &, FileStoreCompressionHint const *) override {
        return {1, ++last};
    }
    ItemID StoreSharedObject(SharedSerialisable const & object) override {
        bool const isLabel = dynamic_cast<Fuzz::Label const *>(&object);
        return {2, 2 * ++last + (isLabel ? 1 : 0)};
    }

private:
    std::uint64_t last = 0;
};

std::vector<std::uint8_t> Write(int depth) {
    auto const stream = MakeCounted<MemoryOutStream>();
    auto const store = MakeCounted<NumberingStore>();
    OutSerialiserFile serialiser(*stream, *store, "Root", 1);
    Fuzz::MakeEverything(depth)->Save(serialiser);
    serialiser.Close();
    return stream->TakeData();
}
}

int main(int argc, char ** argv) {
    return Fuzz::MakeSeeds(argc, argv, [](Fuzz::SeedFolder const & folder) {
        for (int depth = 0; depth < 3; ++depth)
            folder.Save("depth" + std::to_string(depth), Write(depth));
    });
}
