#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Host {
/// Puts a JSON text together, in order. Names belong into objects only; who forgets one or closes too much is told so
/// by an assertion. What isn't UTF-8 in a text is replaced, so that the result is always valid.
class JsonWriter {
public:
    void BeginObject();
    void EndObject();
    void BeginArray();
    void EndArray();
    /// Of the value that follows.
    void Name(std::string_view name);

    void Text(std::string_view value);
    void Number(std::uint64_t value);
    void Number(double value); ///< null if it isn't finite
    void Boolean(bool value);
    void Null();

    /// The whole, with a line end.
    std::string const & GetText() const { return text; }

private:
    struct Level {
        bool isObject, isEmpty;
    };

    void BeginValue();
    void Begin(bool isObject);
    void End(bool isObject);
    void NewLine();
    void Quote(std::string_view value);

    std::string text;
    std::vector<Level> levels;
    bool hasName = false;
};
}
