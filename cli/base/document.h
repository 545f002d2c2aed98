// A file in TOML or JSON. Errors name the part by its JSON pointer; in TOML, by line and column too.
#pragma once

#include <map>

#include "cli/base/library.h"

namespace vsctl {

class Document {
public:
    // Throws when the file is not well-formed. The error says where.
    explicit Document(const std::string &path);
    const Json &Root() const { return root; }
    // An error at the part with this JSON pointer.
    Error At(const std::string &pointer, const std::string &problem, Exit exit = Exit::BAD_VALUE) const;

private:
    struct Position {
        size_t line;
        size_t column;
    };
    void ReadToml(const std::string &text);
    void ReadJson(const std::string &text);
    Error At(Position position, const std::string &problem, Exit exit) const;

    std::string path;
    Json root;
    std::map<std::string, Position> positions; // of a TOML file
};

// One step of a JSON pointer.
std::string PointerStep(const std::string &key);
std::string TomlText(const Json &json);

}
