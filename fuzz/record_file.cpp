// Any content of a record file is read or refused. Records that are read stay the same when they are written
// and read again.

#include "record_file.h"

#include <glib.h>

#include "errors.h"
#include "fuzz.h"

static void check(const std::string &content)
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
    check(text);
    // Random texts rarely have a valid checksum, so also try one with a checksum added.
    g_autofree gchar *checksum = g_compute_checksum_for_data(G_CHECKSUM_SHA256, data, size);
    check(R"({"format":"ime-backup-records","version":1,"sha256":")" + std::string(checksum) +
          R"(","records":)" + text + "}");
    return 0;
}
