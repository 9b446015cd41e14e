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

/// A JSON value.
using Json = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, std::string,
                          std::vector<std::string>, std::vector<std::uint64_t>, std::shared_ptr<Table>>;

/// A value in two forms: JSON for scripts, text for people.
struct Cell {
    Cell(std::string value) : json(value), text(std::move(value)) {}
    Cell(const char *value) : Cell(std::string(value)) {}
    Cell(std::uint64_t value) : json(value), text(std::to_string(value)) {}
    Cell(Json value, std::string shown) : json(std::move(value)), text(std::move(shown)) {}

    Json json;
    std::string text;
};

/// A column is in the JSON document if it has a member name, and in the printed table if it has a heading,
/// even an empty one.
struct Column {
    const char *member;
    std::optional<std::string> heading;
};

inline constexpr std::nullopt_t FOR_SCRIPTS = std::nullopt;
inline constexpr const char *FOR_PEOPLE = nullptr;

/// The use of the last printed column for remarks. If a row is too long for the terminal, its remark is
/// printed below it.
enum class Remarks { none, plain, warnings };

struct Table {
    std::vector<Column> columns{};
    std::vector<std::vector<Cell>> rows{};
    Remarks remarks = Remarks::none;
    bool is_for_people = true;
};

/// The output of a command: one JSON document for scripts, or tables and sentences for people. All standard
/// output passes through it, except raw data such as an exported backup.
class Document
{
public:
    Document();
    ~Document();

    /// Sets a member of the JSON document only.
    void set(const char *member, const Json &value);

    /// Sets a member of the JSON document, and prints the table to people.
    void set(const char *member, const Table &table);

    /// Makes the table the whole JSON document, and prints it to people.
    void set(const Table &table);

    /// Replaces the JSON document with this text.
    void set_json(std::string text) { exact_json = std::move(text); }

    /// Prints a table to people only, in place of all other tables.
    void show(const Table &table) { tables = {{"", table}}; }

    /// Prints a sentence to people.
    void say(const std::string &sentence) { sentences.push_back(sentence); }

    /// Sets the members "succeeded" and "reason".
    void set_result(bool succeeded, const std::string &reason = "");
    bool has_result() const;

    /// Prints nothing if nothing was set.
    void print_json() const;
    void print_text(FILE *stream) const;

private:
    std::unique_ptr<nlohmann::ordered_json> json;
    std::vector<std::pair<std::string, Table>> tables; ///< by their members
    std::vector<std::string> sentences;
    std::optional<std::string> exact_json;
};

/// Reports success.
///
/// @param doubt why the result may not be complete or durable, or ""
void report_success(Document &document, const std::string &doubt, const std::string &sentence = "");
