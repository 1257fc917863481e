#include "host/CommandLine.h"

#include "host/Failure.h"
#include "host/Formats.h"
#include "host/OptionValues.h"
#include "host/Text.h"

#include <fmt/format.h>

#include <limits>
#include <sstream>

namespace Host {
namespace {
using namespace OptionValues;

constexpr int largestSide = 1 << 20;
constexpr double mostTimes = 1000; // larger, or smaller

std::vector<CLI::App *> GetCommandsOf(CLI::App & app) {
    return app.get_subcommands([](CLI::App *) { return true; }); // without a filter: those that were called
}

void AddGlobal(CLI::App * app, GlobalSettings & settings) {
    constexpr std::uint64_t mostMebibytes = std::numeric_limits<std::uint64_t>::max() >> 20; // held in bytes
    app->set_version_flag("--version", "raster " RASTER_VERSION, "print the version");
    AddNumber<decltype(settings.memoryMebibytes), std::uint64_t>(
        app, "--memory", settings.memoryMebibytes, 1, mostMebibytes, "MiB",
        "memory for pixels; tiles beyond it go to disk (1024)");
    AddNumber<decltype(settings.decodeLimitMebibytes), std::uint64_t>(
        app, "--decode-limit", settings.decodeLimitMebibytes, 1, mostMebibytes, "MiB",
        "memory that files may take to decode (4096, or half of the machine's)");
    app->add_option("--backstore", settings.backstore, "folder for what doesn't fit into memory ($TMPDIR or /var/tmp)")
        ->type_name("DIR");
    AddNumber<unsigned, unsigned>(app, "--threads", settings.threads, 1, 1024, "N",
                                  "threads that work (one for each processor)");
    app->add_flag("--verbose", settings.verbose, "print what the library has to say");
    app->add_flag("--quiet", settings.quiet, "print errors only");
    app->add_flag("--stats", settings.stats, "print what memory was used, at the end");
}

void AddReading(CLI::App * app, ReadSettings & settings) {
    app->add_flag("--strict", settings.strict, "fail for files that end early, rather than take what is there");
    app->add_option("--assume-profile", settings.assumeProfile, "the profile of pictures that have none")
        ->type_name("FILE|NAME");
}

void AddQuality(CLI::App * app, unsigned & quality) {
    AddNumber<unsigned, unsigned>(app, "--quality", quality, 0, 100, "0..100", "quality of a JPEG (90)");
}

void AddClobbering(CLI::App * app, bool & noClobber) {
    app->add_flag("--no-clobber", noClobber, "never replace a file");
}

void AddWriting(CLI::App * app, WriteSettings & settings) {
    AddWord(app, "--type", settings.type, FindWrittenType, ListWrittenTypes(), "TYPE",
            "jpeg or png (by the extension of OUT)");
    AddQuality(app, settings.quality);
    app->add_flag("--progressive", settings.progressive, "make a JPEG progressive");
    AddNumber<std::optional<double>, double>(app, "--dpi", settings.dpi, 1, 65535, "DPI", "resolution (of the source)");
    app->add_flag("--strip-alpha", settings.stripAlpha, "lay the picture over the background");
    app->add_option_function<std::string>(
           "--background", [&](std::string const & text) { settings.background = ParseColour("--background", text); },
           "what transparent pictures are laid over, where alpha isn't kept (white)")
        ->type_name("#RRGGBB");
    AddClobbering(app, settings.noClobber);
    app->add_flag("--force", settings.force, "write a picture that is too large for the type: it is cut");
}

void AddOrienting(CLI::App * app, bool & autoOrient) {
    app->add_flag("--auto-orient", autoOrient, "turn the picture as the file says");
}

void AddColours(CLI::App * app, ColourSettings & settings) {
    AddWord(app, "--format", settings.format, FindFormat, Join(ListFormats()), "FORMAT",
            "pixel format, such as RGBA8 (that of IN)");
    app->add_option("--profile", settings.profile, "colours go to this profile, and it is written")
        ->type_name("FILE|NAME");
    AddWord(app, "--intent", settings.intent, FindIntent, "perceptual, relative, saturation and absolute", "INTENT",
            "how colours go from profile to profile (perceptual)");
    app->add_flag("--bpc", settings.blackPointCompensation, "compensate the black point");
}

void AddInfo(CLI::App & app, InfoSettings & settings) {
    auto * const command = app.add_subcommand("info", "say what picture files are; reads headers only");
    command->add_option("FILE", settings.files, "pictures, '-' being standard input")->required();
    command->add_flag("--json", settings.json, "as JSON");
}

void AddConvert(CLI::App & app, ConvertSettings & settings) {
    auto * const command = app.add_subcommand("convert", "write a picture as another type, format or profile");
    command->add_option("IN", settings.in, "a picture, or '-'")->required();
    command->add_option("OUT", settings.out, "the file to write, or '-'")->required();
    AddColours(command, settings.colours);
    AddOrienting(command, settings.autoOrient);
    AddReading(command, settings.reading);
    AddWriting(command, settings.writing);
}

void AddResize(CLI::App & app, ResizeSettings & settings) {
    auto * const command = app.add_subcommand("resize", "write a picture in another size");
    command->add_option("IN", settings.in, "a picture, or '-'")->required();
    command->add_option("OUT", settings.out, "the file to write, or '-'")->required();
    auto * const width = AddNumber<std::optional<int>, int>(command, "--width", settings.width, 1, largestSide,
                                                            "PIXELS", "the shape is kept; with --height, both fit");
    auto * const height =
        AddNumber<std::optional<int>, int>(command, "--height", settings.height, 1, largestSide, "PIXELS", "likewise");
    AddNumber<std::optional<double>, double>(command, "--scale", settings.scale, 1 / mostTimes, mostTimes, "FACTOR",
                                             "0.5 halves both sides")
        ->excludes(width)
        ->excludes(height);
    command->add_flag("--stretch", settings.stretch, "take --width and --height as they are")->needs(width, height);
    AddOrienting(command, settings.autoOrient);
    AddReading(command, settings.reading);
    AddWriting(command, settings.writing);
}

void AddThumbnail(CLI::App & app, ThumbnailSettings & settings) {
    auto * const command = app.add_subcommand("thumbnail", "write small upright versions of pictures");
    command->add_option("IN", settings.in, "pictures, '-' being standard input")->required();
    AddNumber<int, int>(command, "--size", settings.size, 1, largestSide, "PIXELS",
                        "the longer side; nothing is enlarged")
        ->required();
    command->add_option("--out", settings.folder, "folder for NAME.jpg, or NAME.png if there is alpha")
        ->type_name("DIR")
        ->required();
    AddQuality(command, settings.quality);
    AddReading(command, settings.reading);
    AddClobbering(command, settings.noClobber);
}

void AddComposite(CLI::App & app, CompositeSettings & settings) {
    auto * const command = app.add_subcommand("composite", "lay one picture over another");
    command->add_option("BASE", settings.base, "gives size, format and colours; or '-'")->required();
    command->add_option("OVER", settings.over, "is laid over it; or '-'")->required();
    command->add_option("OUT", settings.out, "the file to write, or '-'")->required();
    command
        ->add_option_function<std::string>(
            "--at", [&](std::string const & text) { ParsePoint("--at", text, settings.x, settings.y); },
            "where OVER's top left corner comes, before it is turned (0,0)")
        ->type_name("X,Y");
    AddNumber<double, double>(command, "--rotate", settings.rotateDegrees, -36000, 36000, "DEGREES",
                              "clockwise, about OVER's centre (0)");
    AddNumber<double, double>(command, "--scale", settings.scale, 1 / mostTimes, mostTimes, "FACTOR", "of OVER (1)");
    AddNumber<double, double>(command, "--opacity", settings.opacity, 0, 1, "0..1", "of OVER (1)");
    AddOrienting(command, settings.autoOrient);
    AddReading(command, settings.reading);
    AddWriting(command, settings.writing);
}

void AddProfile(CLI::App & app, ProfileSettings & settings) {
    auto * const command = app.add_subcommand("profile", "look at colour profiles");
    command->require_subcommand(1);
    command->add_subcommand("list", "name the profiles that are built in")->callback([&] { settings.list = true; });
    auto * const show = command->add_subcommand("show", "say what a profile is");
    show->add_option("FILE", settings.file, "a profile file, or the name of a built-in profile")->required();
    show->fallthrough();
}

/// One of the commands of documents, with the document as its first argument.
CLI::App * AddAction(CLI::App * command, DocumentSettings & settings, DocumentAction action, char const * name,
                     char const * description) {
    auto * const added = command->add_subcommand(name, description);
    added->add_option("DOC", settings.document, "the document")->required();
    added->callback([&settings, action] { settings.action = action; });
    added->fallthrough();
    return added;
}

void AddLayer(CLI::App * app, int & layer) {
    AddNumber<int, int>(app, "--layer", layer, 1, 10000, "N", "from the bottom, 1 being the lowest (1)");
}

void AddEditing(CLI::App * app, DocumentSettings & settings) {
    AddLayer(app, settings.layer);
    AddNumber<double, double>(app, "--opacity", settings.opacity, 0, 1, "0..1", "(1)");
    app->add_flag("--keep-damaged", settings.keepDamaged,
                  "save what is damaged as it is and paint on it, rather than fail");
}

void AddDocument(CLI::App & app, DocumentSettings & settings) {
    auto * const command = app.add_subcommand("document", "keep pictures in layers, in one file that is safe");
    command->require_subcommand(1);
    auto * const create = AddAction(command, settings, DocumentAction::Create, "create", "make a document of pictures");
    create->add_option("IN", settings.files, "pictures, the lowest layer first")->required();
    AddClobbering(create, settings.noClobber);
    auto * const info = AddAction(command, settings, DocumentAction::Info, "info", "say what is in a document");
    info->add_flag("--json", settings.json, "as JSON");
    auto * const extract =
        AddAction(command, settings, DocumentAction::Extract, "extract", "write a layer as a picture");
    AddNumber<int, int>(extract, "N", settings.layer, 1, 10000, "", "which layer, from the bottom")->required();
    extract->add_option("OUT", settings.out, "the file to write, or '-'")->required();
    extract->add_flag("--original", settings.original, "the file that was placed, byte for byte");
    AddReading(extract, settings.reading);
    AddWriting(extract, settings.writing);
    auto * const fill = AddAction(command, settings, DocumentAction::Fill, "fill", "fill a part of a layer; saves");
    fill->add_option_function<std::string>(
            "--rect", [&](std::string const & text) { settings.rect = ParseRect("--rect", text); }, "in pixels")
        ->type_name("X,Y,W,H")
        ->required();
    fill->add_option_function<std::string>(
            "--colour", [&](std::string const & text) { settings.colour = ParseColour("--colour", text); }, "")
        ->type_name("#RRGGBB")
        ->required();
    AddEditing(fill, settings);
    auto * const stamp =
        AddAction(command, settings, DocumentAction::Stamp, "stamp", "lay a picture on a layer; saves");
    stamp->add_option("IMAGE", settings.files, "a picture, or '-'")->required()->expected(1);
    stamp
        ->add_option_function<std::string>(
            "--at", [&](std::string const & text) { ParsePoint("--at", text, settings.x, settings.y); },
            "where its top left corner comes (0,0)")
        ->type_name("X,Y");
    AddEditing(stamp, settings);
    AddReading(stamp, settings.reading);
    auto * const flatten =
        AddAction(command, settings, DocumentAction::Flatten, "flatten", "write all layers as one picture");
    flatten->add_option("OUT", settings.out, "the file to write, or '-'")->required();
    AddReading(flatten, settings.reading);
    AddWriting(flatten, settings.writing);
    AddAction(command, settings, DocumentAction::Compact, "compact", "write the file anew, without what is dead")
        ->add_flag("--keep-damaged", settings.keepDamaged, "keep what is damaged as it is, rather than fail");
    AddAction(command, settings, DocumentAction::Verify, "verify", "check every byte; ends with 1 if one is wrong");
    auto * const salvage =
        AddAction(command, settings, DocumentAction::Salvage, "salvage", "save what is whole of a damaged document");
    salvage->add_option("OUT", settings.out, "the document to write")->required();
    AddClobbering(salvage, settings.writing.noClobber);
}

/// What the help of every command has in common.
void CompleteHelp(CLI::App & app) {
    for (auto * const option : app.get_options())
        if (option->get_positional())
            option->type_name(""); // the name says what it is
    for (auto * const command : GetCommandsOf(app)) {
        command->footer(
            "Every command also takes the options that `raster --help` lists, such as --memory and --quiet.\n"
            "Ends with 0 if all was done, 1 if a file failed, 2 for wrong usage. More: man raster.");
        CompleteHelp(*command);
    }
}

/// The parser's complaint in our words; where a command is missing, or the word for it is none, which ones there are.
std::string Describe(CLI::App & app, CLI::ParseError const & error) {
    std::string const words = error.what();
    if (words.ends_with(" missing")) // "--dpi: 1 required DPI missing"
        return words.substr(0, words.find(':')) + " needs a value";
    auto * last = &app;
    while (!last->get_subcommands().empty())
        last = last->get_subcommands().front();
    bool const lacksCommand = last->get_require_subcommand_min() != 0;
    if (!lacksCommand || error.get_exit_code() != static_cast<int>(CLI::ExitCodes::RequiredError))
        return words;
    std::vector<std::string> names;
    for (auto * const command : GetCommandsOf(*last))
        names.push_back(command->get_name());
    std::string const owner = last == &app ? "" : last->get_name() + ": ";
    for (auto const & word : app.remaining(/*recurse=*/true))
        if (!word.starts_with('-'))
            return fmt::format("{}'{}' is no command; there are {}", owner, word, Join(names));
    return fmt::format("{}a command is missing; there are {}", owner, Join(names));
}

/// What only makes sense together.
void Check(Invocation const & invocation) {
    if (auto const * const resize = std::get_if<ResizeSettings>(&invocation.command))
        if (!resize->width && !resize->height && !resize->scale)
            throw UsageError("resize: needs --width, --height or --scale");
    std::vector<std::string> inputs;
    if (auto const * const info = std::get_if<InfoSettings>(&invocation.command))
        inputs = info->files;
    else if (auto const * const thumbnail = std::get_if<ThumbnailSettings>(&invocation.command))
        inputs = thumbnail->in;
    else if (auto const * const composite = std::get_if<CompositeSettings>(&invocation.command))
        inputs = {composite->base, composite->over};
    else if (auto const * const document = std::get_if<DocumentSettings>(&invocation.command))
        inputs = document->files;
    if (std::count(inputs.begin(), inputs.end(), "-") > 1)
        throw UsageError("standard input can be read once only");
}
}

Invocation ParseCommandLine(int argumentCount, char ** arguments) {
    CLI::App app("Looks at pictures, converts, resizes and composites them.", "raster");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_help_flag("-h,--help", "print this help");
    app.get_formatter()->column_width(34);
    app.footer("Ends with 0 if all was done, 1 if a file failed, 2 for wrong usage. More: man raster.");

    Invocation invocation;
    InfoSettings info;
    ConvertSettings convert;
    ResizeSettings resize;
    ThumbnailSettings thumbnail;
    CompositeSettings composite;
    ProfileSettings profile;
    DocumentSettings document;
    AddGlobal(&app, invocation.global);
    AddInfo(app, info);
    AddConvert(app, convert);
    AddResize(app, resize);
    AddThumbnail(app, thumbnail);
    AddComposite(app, composite);
    AddProfile(app, profile);
    AddDocument(app, document);
    CompleteHelp(app);

    try {
        app.parse(argumentCount, arguments);
    } catch (CLI::ParseError const & end) {
        std::ostringstream out, error;
        if (app.exit(end, out, error) != 0)
            throw UsageError(Describe(app, end));
        invocation.answer = out.str();
        return invocation;
    }
    auto const take = [&](char const * name, auto & settings) {
        if (app.got_subcommand(name))
            invocation.command = std::move(settings);
    };
    take("info", info);
    take("convert", convert);
    take("resize", resize);
    take("thumbnail", thumbnail);
    take("composite", composite);
    take("profile", profile);
    take("document", document);
    Check(invocation);
    return invocation;
}
}
