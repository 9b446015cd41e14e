// A record file of any content is read or refused, and what is read is written and read again as it was.

#include "record_file.h"

#include <glib.h>

#include "errors.h"
#include "fuzz.h"

static void read(const std::string &content)
{
    CloudRecords records;
    try {
        records = decode_record_file(content);
    } catch (const HostError &) {
        return;
    }
    const CloudRecords again = decode_record_file(encode_record_file(records));
    require(again.size() == records.size());
    for (size_t i = 0; i < records.size(); i++)
        require(again[i].key == records[i].key && again[i].date == records[i].date &&
                again[i].value == records[i].value);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = text_of(data, size);
    read(text);
    // Few texts have a checksum that is right.
    g_autofree gchar *checksum = g_compute_checksum_for_data(G_CHECKSUM_SHA256, data, size);
    read(R"({"format":"ime-backup-records","version":1,"sha256":")" + std::string(checksum) +
         R"(","records":)" + text + "}");
    return 0;
}
