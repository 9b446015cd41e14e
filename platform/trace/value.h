#pragma once

#include <concepts>
#include <string>
#include <vector>

#include "app_control.h"
#include "orvanta_cloud.h"
#include "vconf.h"

/// A value as a person sees it, and as JSON.
struct Shown {
    std::string text;
    std::string json;
};

/// The text between quotation marks, as JSON has it. What is no UTF-8 becomes replacement characters.
std::string quote(const std::string &text);

// Values that go over the boundary.

Shown show(int number);
Shown show(double number);
Shown show(bool truth);
Shown show(const char *text);
Shown show(const std::string &text);
/// Handles are called by their kind and a number, in the order in which they appear. One that is shown behind
/// another belongs to it.
Shown show(const char *kind, const void *handle, const void *owner = nullptr);

/// The name is given anew, and so are those of what belongs to the handle.
void forget_handle(const void *handle);

#define HANDLE(type, kind)                                                                                   \
    inline const char *kind_of(type)                                                                         \
    {                                                                                                        \
        return kind;                                                                                         \
    }
HANDLE(app_control_handle, "app_control")
HANDLE(orvanta_cloud_list_handle, "list")
HANDLE(orvanta_cloud_record_handle, "record")
HANDLE(orvanta_cloud_source_handle, "source")
HANDLE(vconf_keylist_handle, "keylist")
HANDLE(vconf_keynode_handle, "keynode")
#undef HANDLE

template <std::same_as<void *> Data> // what is no other kind of pointer
const char *kind_of(Data)
{
    return "data";
}

template <class Element>
Shown show(const std::vector<Element> &elements)
{
    Shown all;
    for (const Element &element : elements) {
        const Shown shown = show(element);
        const char *separator = all.text.empty() ? "" : ", ";
        all = {all.text + separator + shown.text, all.json + separator + shown.json};
    }
    return {"[" + all.text + "]", "[" + all.json + "]"};
}
