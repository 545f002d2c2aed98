// A file in TOML or JSON. Errors name the part by its JSON pointer; in TOML, by line and column too.
#pragma once

#include <map>

#include "frontend/output.h"

namespace frontend {

class Document {
public:
    // Throws when the text of the file with this name is not well-formed. The error says where.
    Document(std::string name, const std::string &text);
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

    std::string name;
    Json root;
    std::map<std::string, Position> positions; // of a TOML file
};

// What is wrong with a key that is not among these names.
std::string UnknownKey(const std::string &key, const std::vector<std::string> &names);
// One step of a JSON pointer.
std::string PointerStep(const std::string &key);
std::string TomlText(const Json &json);

}
