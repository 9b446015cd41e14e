#pragma once

#include <glib.h>
#include <nlohmann/json.hpp>

#include "setting_value.h"

/// The member that holds the base64-encoded bytes of a text that is not UTF-8.
inline constexpr char BYTES[] = "base64";

/// Converts device values to JSON and back without loss.
template <>
struct nlohmann::adl_serializer<DeviceValue> {
    static void to_json(nlohmann::json &json, const DeviceValue &value)
    {
        json = nullptr;
        if (value)
            std::visit([&](const auto &typed) { json = typed; }, *value);
        const auto *text = json.get_ptr<const std::string *>();
        if (text == nullptr ||
            g_utf8_validate(text->data(), static_cast<gssize>(text->size()), nullptr) != FALSE)
            return;
        g_autofree gchar *encoded =
            g_base64_encode(reinterpret_cast<const guchar *>(text->data()), text->size());
        json = {{BYTES, encoded}};
    }

    static void from_json(const nlohmann::json &json, DeviceValue &value)
    {
        if (json.is_null()) {
            value.reset();
        } else if (json.is_boolean()) {
            value = json.get<bool>();
        } else if (json.is_object()) {
            gsize length = 0;
            g_autofree guchar *bytes = g_base64_decode(json.at(BYTES).get<std::string>().c_str(), &length);
            value = std::string(reinterpret_cast<const char *>(bytes), length);
        } else if (json.is_string()) {
            value = json.get<std::string>();
        } else {
            value = json.get<int>();
        }
    }
};
