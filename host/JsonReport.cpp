#include "host/JsonReport.h"

#include <cstdio>
#include <exception>

namespace Host {
namespace {
bool WriteFile(Session & session, JsonWriter & json, std::string const & path,
               std::function<void(JsonWriter &, std::string const &)> const & write) {
    json.BeginObject();
    json.Name("file");
    json.Text(path);
    std::string error;
    bool const isDone = session.Try(path, [&] {
        try {
            write(json, path);
        } catch (std::exception const & failure) {
            error = failure.what();
            throw;
        }
    });
    if (!isDone) {
        json.Name("error");
        json.Text(error);
    }
    json.EndObject();
    return isDone;
}
}

bool PrintJsonReport(Session & session, std::vector<std::string> const & files,
                     std::function<void(JsonWriter &, std::string const &)> const & write) {
    JsonWriter json;
    json.BeginObject();
    json.Name("version");
    json.Number(std::uint64_t(1));
    json.Name("files");
    json.BeginArray();
    bool allDone = true;
    for (auto const & path : files) {
        Signals::ThrowIfAborted();
        allDone &= WriteFile(session, json, path, write);
    }
    json.EndArray();
    json.EndObject();
    std::fputs(json.GetText().c_str(), stdout);
    return allDone;
}
}
