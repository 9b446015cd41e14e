/** @file
 * The operations by which the cloud backup client asks an application to take part in an exchange. In a
 * request, more text may follow the operation.
 */
#pragma once

#define OPERATION_BACKUP "http://orvanta.com/appcontrol/operation/orvanta_cloud/backup"
#define OPERATION_RESTORE "http://orvanta.com/appcontrol/operation/orvanta_cloud/restore"
#define OPERATION_GET_BACKUP_INFO "http://orvanta.com/appcontrol/operation/orvanta_cloud/get_backup_info"
