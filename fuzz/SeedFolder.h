/// What programs that make seeds share.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace Fuzz {
/// Where the seeds of one program go.
class SeedFolder {
public:
    explicit SeedFolder(std::filesystem::path path) : folder(std::move(path)) {}

    void Save(std::string const & name, std::vector<std::uint8_t> const & bytes) const {
        std::ofstream file(folder / name, std::ios::binary);
        file.write(reinterpret_cast<char const *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        if (!file)
            std::abort();
    }

private:
    std::filesystem::path folder;
};

/// A main program: makes seeds in the folder that is its one argument.
template<class Make>
int MakeSeeds(int argc, char ** argv, Make && make) {
    if (argc != 2)
        return 2;
    make(SeedFolder(argv[1]));
    return 0;
}
}
