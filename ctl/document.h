#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <variant>
#include <vector>

/// A value as JSON has it.
using Json = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, std::string,
                          std::vector<std::string>, std::vector<std::uint64_t>>;

/// A value for a script, and the same one for a person.
struct Cell {
    Cell(std::string value) : json(value), text(std::move(value)) {}
    Cell(const char *value) : Cell(std::string(value)) {}
    Cell(std::uint64_t value) : json(value), text(std::to_string(value)) {}
    Cell(Json value, std::string text_for_people) : json(std::move(value)), text(std::move(text_for_people))
    {
    }

    Json json;
    std::string text;
};

/// A column is for scripts when it has a member name, and for people when it has a heading, be it empty.
struct Column {
    const char *member;
    std::optional<std::string> heading;
};

inline constexpr std::nullopt_t FOR_SCRIPTS = std::nullopt;
inline constexpr const char *FOR_PEOPLE = nullptr;

/// Whether the last column for people holds remarks: where a row is too long for the terminal, its remark
/// stands below it.
enum class Remarks { none, plain, warnings };

/// Rows of cells.
struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<Cell>> rows;
    bool is_keyed =
        false; ///< for a script, each row is a member: the first cell its name, the second its value
    bool is_for_people = true;
    Remarks remarks = Remarks::none;
};

/// What a command tells: to a script one JSON document, to a person its tables and sentences. It is the one
/// way to standard output, but for data that was asked for as it is.
class Document
{
public:
    /// A member of the document.
    void set(const char *member, std::variant<Json, Table> value);

    /// A table that is the whole document.
    void set(Table table) { set("", std::move(table)); }

    /// The whole document, as it stands.
    void set_json(std::string text) { exact_json = std::move(text); }

    /// A sentence for a person.
    void say(const std::string &sentence) { sentences.push_back(sentence); }

    /// The two members with which commands that do something tell whether they did.
    void set_result(bool succeeded, const std::string &reason = "");
    bool has_result() const;
    bool is_empty() const { return members.empty(); }

    void print_json() const;
    void print_text(FILE *stream) const;

private:
    struct Member {
        std::string name;
        std::variant<Json, Table> value;
    };

    std::vector<Member> members;
    std::vector<std::string> sentences;
    std::optional<std::string> exact_json;
};
