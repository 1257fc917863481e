/// What a thumbnail of 256 pixels costs as a whole process: `raster thumbnail` beside `vipsthumbnail`, if that is
/// installed, on the same file, in turns. The file is a JPEG of 24 million pixels (4:2:0, quality 90) made here, or the
/// one that $RASTER_BENCHMARK_JPEG names. The argument is the number of threads, 0 for one a processor. `best` and
/// `median` are seconds of the day that `raster` takes from start to exit, `user` and `system` its processor time;
/// `peer_best` and so on are those of the other one, `ratio` is median over median. More rounds steady them:
/// --benchmark_min_time=10.
#include "files/BenchmarkPictures.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace Raster {
namespace {
using Arguments = std::vector<std::string>;

/// Goes with all that is in it.
class Folder {
public:
    Folder() {
        std::string name = std::filesystem::temp_directory_path() / "thumbnails-XXXXXX";
        path = ::mkdtemp(name.data());
    }
    Folder(Folder const &) = delete;
    Folder & operator=(Folder const &) = delete;
    ~Folder() { std::filesystem::remove_all(path); }
    std::string Get(char const * name) const { return path / name; }

private:
    std::filesystem::path path;
};

std::string MakeInput(Folder const & folder) {
    if (char const * const given = std::getenv("RASTER_BENCHMARK_JPEG"))
        return given;
    auto picture = MakePicture(Side(6000), Side(4000), 3);
    auto const bytes = EncodeJPEGAlone(picture, Settings::Camera);
    auto const path = folder.Get("picture.jpg");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<char const *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
}

/// The times of one program over many runs.
class Times {
public:
    /// @return false if the program isn't there, or failed.
    bool Run(Arguments arguments) {
        std::vector<char *> pointers;
        for (auto & argument : arguments)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int const descriptor : {STDOUT_FILENO, STDERR_FILENO})
            posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_WRONLY, 0);
        auto const start = std::chrono::steady_clock::now();
        pid_t process = 0;
        int const error = posix_spawnp(&process, pointers[0], &actions, nullptr, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        int status = 0;
        rusage usage{};
        if (error != 0 || ::wait4(process, &status, 0, &usage) != process || status != 0)
            return false;
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        user += GetSeconds(usage.ru_utime);
        system += GetSeconds(usage.ru_stime);
        return true;
    }
    double GetLast() const { return seconds.back(); }
    double GetMedian() {
        std::sort(seconds.begin(), seconds.end());
        return seconds[seconds.size() / 2];
    }
    void Report(benchmark::State & state, std::string const & prefix) {
        auto const count = static_cast<double>(seconds.size());
        state.counters[prefix + "median"] = GetMedian();
        state.counters[prefix + "best"] = seconds.front(); // sorted now
        state.counters[prefix + "user"] = user / count;
        state.counters[prefix + "system"] = system / count;
    }

private:
    static double GetSeconds(timeval const & time) { return double(time.tv_sec) + double(time.tv_usec) * 1e-6; }

    std::vector<double> seconds;
    double user = 0, system = 0;
};

void Thumbnail(benchmark::State & state) {
    Folder const folder;
    auto const input = MakeInput(folder);
    Arguments ours{RASTER_PROGRAM, "thumbnail", input, "--size", "256", "--out", folder.Get("out")};
    if (state.range(0) != 0)
        ours.insert(ours.end(), {"--threads", std::to_string(state.range(0))});
    Arguments const theirs{"vipsthumbnail", input, "--size", "256", "-o", folder.Get("peer.jpg")};
    bool hasPeer = Times().Run(theirs); // and both programs and the file are in memory
    if (!Times().Run(ours))
        return state.SkipWithError("the program made no thumbnail");
    Times raster, peer;
    for (auto _ : state) {
        raster.Run(ours);
        hasPeer = hasPeer && peer.Run(theirs);
        state.SetIterationTime(raster.GetLast());
    }
    raster.Report(state, "");
    if (!hasPeer)
        return state.SetLabel("vipsthumbnail isn't installed");
    peer.Report(state, "peer_");
    state.counters["ratio"] = raster.GetMedian() / peer.GetMedian();
}

BENCHMARK(Thumbnail)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);
}
}
