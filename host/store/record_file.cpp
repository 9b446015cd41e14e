#include "record_file.h"

#include <dlfcn.h>

#include <glib.h>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "snapshot.h"

using Json = nlohmann::json;

static constexpr int VERSION = 1;

// A file is HEAD, the version, CHECKSUM, the checksum, RECORDS, the records' text, and TAIL. The checksum
// covers the text's bytes, so that it is verified before anything is parsed.
static constexpr char FORMAT[] = "ime-backup-records";
static const std::string HEAD = R"({"format":")" + std::string(FORMAT) + R"(","version":)";
static constexpr char CHECKSUM[] = R"(,"sha256":")";
static constexpr char RECORDS[] = R"(","records":)";
static constexpr char TAIL[] = "}";

static constexpr char CHANGED[] = "it has been changed since it was written, or is cut short";

static std::string encode_records(const CloudRecords &records)
{
    const auto encode = [](const auto &text) {
        return (text ? Json(*text) : Json()).dump(-1, ' ', false, Json::error_handler_t::replace);
    };
    std::string text;
    for (const auto &[key, date, value, failed] : records)
        text += (text.empty() ? "" : ",") + ("{\"key\":" + encode(key)) + ",\"date\":" + encode(date) +
                ",\"value\":" + encode(value) + "}";
    return "[" + text + "]";
}

static std::string checksum_of(const std::string &text)
{
    g_autofree gchar *checksum =
        g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.data(), static_cast<gssize>(text.size()));
    return checksum;
}

static std::string frame(const std::string &records)
{
    return HEAD + std::to_string(VERSION) + CHECKSUM + checksum_of(records) + RECORDS + records + TAIL;
}

bool is_record_file(const std::string &content)
{
    if (content.starts_with(HEAD))
        return true;
    const Json root = Json::parse(content, nullptr, false); // a program may have reformatted it
    return root.is_object() && root.value("format", Json()) == FORMAT;
}

std::string encode_record_file(const CloudRecords &records)
{
    std::string content = frame(encode_records(records));
    if (content.size() > MAX_RECORD_FILE_SIZE)
        throw HostError("the records are too large for a record file (" + std::to_string(content.size()) +
                        " bytes)");
    return content;
}

/// Returns the records' text. Throws if the file is damaged.
static std::string verified_text(const std::string &content)
{
    const size_t version = HEAD.size();
    if (!content.starts_with(HEAD))
        throw HostError(is_record_file(content) ? CHANGED : "it is not a record file");
    const size_t digits = content.find_first_not_of("0123456789", version) - version;
    if (content.compare(version, digits, std::to_string(VERSION)) != 0)
        throw HostError("it is damaged, or was written by a later version of the backup service");

    const size_t records = content.find(RECORDS, version);
    if (records == std::string::npos || !content.ends_with(TAIL))
        throw HostError("it is cut short");
    const size_t begin = records + sizeof RECORDS - 1;
    std::string text = content.substr(begin, content.size() - begin - (sizeof TAIL - 1));
    if (frame(text) != content)
        throw HostError(CHANGED);
    return text;
}

static std::optional<std::string> read_text(const Json &element, const char *name)
{
    const auto found = element.is_object() ? element.find(name) : element.end();
    return found != element.end() && found->is_string() ? std::optional(found->get<std::string>())
                                                        : std::nullopt;
}

bool is_unambiguous(const std::string &value)
{
    if (read_snapshot(value))
        return true;
    static auto *const parser = [] {
        void *library = dlopen("libime-backup-service-parser.so", RTLD_NOW);
        auto *found = library == nullptr ? nullptr : dlsym(library, "service_reads");
        return reinterpret_cast<decltype(service_reads) *>(found);
    }();
    return value.find('\0') == std::string::npos && parser != nullptr && !parser(value.c_str());
}

CloudRecords decode_record_file(const std::string &content)
{
    const Json elements = Json::parse(verified_text(content), nullptr, false);
    if (!elements.is_array())
        throw HostError("it holds no records");
    CloudRecords records;
    for (const Json &element : elements) {
        records.push_back(
            {read_text(element, "key"), read_text(element, "date"), read_text(element, "value")});
        const CloudRecord &record = records.back();
        if (record.value && !is_unambiguous(*record.value))
            throw HostError("it holds a record that parsers read in different ways");
        for (const auto &text : {record.key, record.date})
            if (text && text->find('\0') != std::string::npos)
                throw HostError("it holds a key or a date with NUL in it");
    }
    return records;
}
