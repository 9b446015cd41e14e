// An import of any text either fails, or makes a valid backup with the same snapshot.

#include "import.h"

#include "cloud_store.h"
#include "errors.h"
#include "fuzz.h"

static std::string import_snapshot(const std::string &text)
{
    return snapshot_in(decode_record_file(make_importable(text).content));
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = text_of(data, size);
    try {
        make_importable(text);
    } catch (const HostError &) {
        return 0;
    }
    const std::string snapshot = import_snapshot(text);
    require(is_record_file(text) || import_snapshot(snapshot) == snapshot);
    return 0;
}
