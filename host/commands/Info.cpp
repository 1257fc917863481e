#include "host/Formats.h"
#include "host/JsonWriter.h"
#include "host/Picture.h"
#include "host/Signals.h"
#include "host/Text.h"
#include "host/commands/Commands.h"

#include <fmt/format.h>

#include <cstdio>

namespace Host {
namespace {
struct Facts {
    std::string file, type, format, profile;
    int width = 0, height = 0, orientation = 1;
    double dpi = 0;
    bool isProfileFallback = false;
    std::uint64_t decodedBytes = 0;
};

Facts ReadFacts(Session & session, std::string const & path) {
    SourceFile const source(session, path, {});
    auto const & file = source.GetFile();
    auto const profile = file.GetProfile();
    return {
        .file = path,
        .type = std::string(GetTypeName(file.GetFileType())),
        .format = std::string(GetFormatName(file.GetFormat())),
        .profile = profile ? std::string(profile->GetProfileName().GetView()) : std::string(),
        .width = file.GetWidth(),
        .height = file.GetHeight(),
        .orientation = file.GetOrientation(),
        .dpi = file.GetDPI(),
        .isProfileFallback = file.IsProfileFallback(),
        .decodedBytes = source.GetDecodedBytes(),
    };
}

void Print(Facts const & facts) {
    std::string profile = "none";
    if (!facts.profile.empty())
        profile = MakePrintable(facts.profile) + (facts.isProfileFallback ? " (a fallback; the file has none)" : "");
    std::fputs(fmt::format("{}\n"
                           "  type         {}\n"
                           "  size         {} x {} pixels\n"
                           "  format       {}\n"
                           "  resolution   {:g} dpi\n"
                           "  profile      {}\n"
                           "  orientation  {}\n"
                           "  decoded      {}\n",
                           MakePrintable(facts.file), facts.type, facts.width, facts.height, facts.format, facts.dpi,
                           profile, facts.orientation, FormatBytes(facts.decodedBytes))
                   .c_str(),
               stdout);
}

void Write(JsonWriter & json, Facts const & facts) {
    json.Name("type");
    json.Text(facts.type);
    json.Name("width");
    json.Number(std::uint64_t(facts.width));
    json.Name("height");
    json.Number(std::uint64_t(facts.height));
    json.Name("format");
    json.Text(facts.format);
    json.Name("dpi");
    json.Number(facts.dpi);
    json.Name("profile");
    if (facts.profile.empty())
        json.Null();
    else
        json.Text(facts.profile);
    json.Name("profileIsFallback");
    json.Boolean(facts.isProfileFallback);
    json.Name("orientation");
    json.Number(std::uint64_t(facts.orientation));
    json.Name("decodedBytes");
    json.Number(facts.decodedBytes);
}

void WriteFile(Session & session, JsonWriter & json, std::string const & path, bool & allDone) {
    json.BeginObject();
    json.Name("file");
    json.Text(path);
    std::string error;
    bool const isDone = session.Try(path, [&] {
        try {
            Write(json, ReadFacts(session, path));
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
    allDone &= isDone;
}
}

bool RunInfo(Session & session, InfoSettings const & settings) {
    bool allDone = true;
    if (!settings.json) {
        for (auto const & path : settings.files) {
            Signals::ThrowIfAborted();
            allDone &= session.Try(path, [&] { Print(ReadFacts(session, path)); });
        }
        return allDone;
    }
    JsonWriter json;
    json.BeginObject();
    json.Name("version");
    json.Number(std::uint64_t(1));
    json.Name("files");
    json.BeginArray();
    for (auto const & path : settings.files) {
        Signals::ThrowIfAborted();
        WriteFile(session, json, path, allDone);
    }
    json.EndArray();
    json.EndObject();
    std::fputs(json.GetText().c_str(), stdout);
    return allDone;
}
}
