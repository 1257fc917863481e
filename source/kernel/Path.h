#pragma once

#include "kernel/ConcatString.h"

namespace Kernel {
/// How paths are put together and taken apart. The separator is '/' on every system; a backslash is a character like
/// any other.
struct PathTraitsDos {
    static constexpr char Separator = '/';

    /// `name` below `directory`, with exactly one separator between them. If either is empty, the other one.
    template<class TEnc>
    static StringT<TEnc> Append(StringT<TEnc> const & directory, StringT<TEnc> const & name) {
        if (directory.IsEmpty() || name.IsEmpty())
            return directory.IsEmpty() ? name : directory;
        using Character = typename TEnc::Character;
        Character const separator = Separator;
        auto const directoryView = directory.GetView();
        auto nameView = name.GetView();
        nameView.remove_prefix(std::min(nameView.find_first_not_of(separator), nameView.size()));
        bool const isSeparated = directoryView.back() == separator;
        return ConcatString(directory, std::basic_string_view<Character>(&separator, isSeparated ? 0 : 1), nameView);
    }
};

/// A path of a file: any text, opened as it is.
template<class TEnc, class Traits = PathTraitsDos>
class PathT {
public:
    using String = StringT<TEnc>;
    using View = typename String::View;

    PathT() = default;
    PathT(String const & text) : path(text) {}
    PathT(typename TEnc::Character const * text) : path(text) {}

    String const & GetString() const noexcept { return path; }
    typename TEnc::Character const * GetCharacters() const noexcept { return path.GetCharacters(); }
    bool IsEmpty() const noexcept { return path.IsEmpty(); }

    PathT & Append(String const & name) {
        path = Traits::Append(path, name);
        return *this;
    }
    /// What stands behind the last separator.
    String GetFileName() const { return String(path.GetView().substr(GetFileNameStart())); }
    /// What stands before the last separator, or the root; empty if there is none.
    PathT GetDirectory() const {
        auto const start = GetFileNameStart();
        return PathT(String(path.GetView().substr(0, start > 1 ? start - 1 : start)));
    }
    /// What stands behind the last dot of the file name, without it. A dot in front marks a hidden file, no extension.
    String GetExtension() const {
        auto const name = path.GetView().substr(GetFileNameStart());
        auto const dot = name.find_last_of(typename TEnc::Character('.'));
        return dot == View::npos || dot == 0 ? String() : String(name.substr(dot + 1));
    }

    bool operator==(PathT const &) const = default;
    auto operator<=>(PathT const &) const = default;

private:
    std::size_t GetFileNameStart() const {
        return path.GetView().find_last_of(typename TEnc::Character(Traits::Separator)) + 1; // npos + 1 is 0
    }

    String path;
};

using Path = PathT<TEncUtf8>;
}
