#include "host/Formats.h"
#include "host/JsonReport.h"
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
}

bool RunInfo(Session & session, InfoSettings const & settings) {
    if (settings.json)
        return PrintJsonReport(session, settings.files, [&](JsonWriter & json, std::string const & path) {
            Write(json, ReadFacts(session, path));
        });
    bool allDone = true;
    for (auto const & path : settings.files) {
        Signals::ThrowIfAborted();
        allDone &= session.Try(path, [&] { Print(ReadFacts(session, path)); });
    }
    return allDone;
}
}
