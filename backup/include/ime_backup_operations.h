/** @file
 * What the cloud backup client can ask the service for: the operations' identifiers in a request. A request
 * may carry more text behind one.
 */
#pragma once

inline constexpr char OPERATION_BACKUP[] = "http://orvanta.com/appcontrol/operation/orvanta_cloud/backup";
inline constexpr char OPERATION_RESTORE[] = "http://orvanta.com/appcontrol/operation/orvanta_cloud/restore";
inline constexpr char OPERATION_GET_BACKUP_INFO[] =
    "http://orvanta.com/appcontrol/operation/orvanta_cloud/get_backup_info";
