#include "exchange_report.h"

#include <json-glib/json-glib.h>

#include "state.h"

static std::filesystem::path report_file()
{
    const char *file = g_getenv(REPORT_VARIABLE);
    return file != nullptr && *file != '\0' ? absolute_path(file) : state_root() / LAST_REPORT;
}

void write_report(const ExchangeReport &report)
{
    g_autoptr(JsonBuilder) builder = json_builder_new();
    const auto add = [&](const char *name, const std::string &text) {
        json_builder_set_member_name(builder, name);
        json_builder_add_string_value(builder, text.c_str());
    };

    json_builder_begin_object(builder);
    add("operation", report.operation);
    json_builder_set_member_name(builder, "succeeded");
    json_builder_add_boolean_value(builder, report.succeeded);
    add("reason", report.reason);
    json_builder_set_member_name(builder, "backup");
    json_builder_add_int_value(builder, static_cast<gint64>(report.backup));
    json_builder_set_member_name(builder, "records");
    json_builder_begin_array(builder);
    for (const CloudRecord &record : report.records) {
        json_builder_begin_object(builder);
        add("key", record.key.value_or(""));
        add("date", record.date.value_or(""));
        json_builder_set_member_name(builder, "failed");
        json_builder_add_boolean_value(builder, record.failed);
        json_builder_end_object(builder);
    }
    json_builder_end_array(builder);
    json_builder_end_object(builder);

    g_autoptr(JsonNode) root = json_builder_get_root(builder);
    g_autofree gchar *text = json_to_string(root, TRUE);
    write_private_file(report_file(), std::string(text) + "\n");
}

ExchangeReport read_report(const std::filesystem::path &file)
{
    g_autoptr(JsonParser) parser = json_parser_new();
    g_autoptr(GError) error = nullptr;
    if (json_parser_load_from_file(parser, file.c_str(), &error) == FALSE)
        throw HostError(error->message);
    JsonNode *root = json_parser_get_root(parser);
    if (root == nullptr || !JSON_NODE_HOLDS_OBJECT(root))
        throw HostError(file.string() + " is no exchange report");

    JsonObject *members = json_node_get_object(root);
    const auto text = [](JsonObject *object, const char *name) {
        return std::string(json_object_get_string_member_with_default(object, name, ""));
    };
    ExchangeReport report;
    report.operation = text(members, "operation");
    report.succeeded = json_object_get_boolean_member_with_default(members, "succeeded", FALSE) != FALSE;
    report.reason = text(members, "reason");
    report.backup = static_cast<guint64>(json_object_get_int_member_with_default(members, "backup", 0));
    JsonArray *records = json_object_get_array_member(members, "records");
    for (guint i = 0; i < json_array_get_length(records); i++) {
        JsonObject *record = json_array_get_object_element(records, i);
        report.records.push_back({text(record, "key"), text(record, "date"), std::nullopt,
                                  json_object_get_boolean_member(record, "failed") != FALSE});
    }
    return report;
}
