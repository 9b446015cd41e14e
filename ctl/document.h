#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json_fwd.hpp>

struct Table;

/// A value as JSON has it.
using Json = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, std::string,
                          std::vector<std::string>, std::vector<std::uint64_t>, std::shared_ptr<Table>>;

/// A value for a script, and the same one for a person.
struct Cell {
    Cell(std::string value) : json(value), text(std::move(value)) {}
    Cell(const char *value) : Cell(std::string(value)) {}
    Cell(std::uint64_t value) : json(value), text(std::to_string(value)) {}
    Cell(Json value, std::string shown) : json(std::move(value)), text(std::move(shown)) {}

    Json json;
    std::string text;
};

/// A column is for scripts when it has a member name, and for people when it has a heading, even an empty
/// one.
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
    std::vector<Column> columns{};
    std::vector<std::vector<Cell>> rows{};
    Remarks remarks = Remarks::none;
    bool is_for_people = true;
};

/// What a command tells: to a script one JSON document, to a person its tables and sentences. It is the one
/// way to standard output, except for raw data, such as an exported backup.
class Document
{
public:
    Document();
    ~Document();

    /// A member of the document, for scripts.
    void set(const char *member, const Json &value);

    /// A member of the document, which is also shown to people.
    void set(const char *member, const Table &table);

    /// A table that is the whole document.
    void set(const Table &table);

    /// The whole document, as it stands.
    void set_json(std::string text) { exact_json = std::move(text); }

    /// A table for people alone.
    void show(const Table &table) { tables = {{"", table}}; }

    /// A sentence for a person.
    void say(const std::string &sentence) { sentences.push_back(sentence); }

    /// The two members with which commands that do something tell whether they did.
    void set_result(bool succeeded, const std::string &reason = "");
    bool has_result() const;

    /// Prints nothing when nothing was set.
    void print_json() const;
    void print_text(FILE *stream) const;

private:
    std::unique_ptr<nlohmann::ordered_json> json;
    std::vector<std::pair<std::string, Table>> tables; ///< by their members
    std::vector<std::string> sentences;
    std::optional<std::string> exact_json;
};

/// Tells that a command did what it should.
///
/// @param doubt what is not known of that, or empty
void tell_success(Document &document, const std::string &doubt, const std::string &sentence = "");
