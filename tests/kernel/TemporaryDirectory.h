/// A directory of a test's own, deleted with all that is in it at the end.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <stdlib.h>

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "raster-test-XXXXXX").string();
        path = mkdtemp(pattern.data());
    }
    TemporaryDirectory(TemporaryDirectory const &) = delete;
    TemporaryDirectory & operator=(TemporaryDirectory const &) = delete;
    ~TemporaryDirectory() {
        std::error_code error;
        std::filesystem::remove_all(path, error);
    }

    std::string GetPath(std::string const & name = "") const { return (path / name).string(); }

private:
    std::filesystem::path path;
};

inline void PutFile(std::string const & path, std::string const & content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string GetFile(std::string const & path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
