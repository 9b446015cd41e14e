/** @file
 * The operations with which the cloud backup client asks an application to take part in an exchange. A
 * request may carry more text behind one.
 */
#pragma once

#define OPERATION_BACKUP "http://orvanta.com/appcontrol/operation/orvanta_cloud/backup"
#define OPERATION_RESTORE "http://orvanta.com/appcontrol/operation/orvanta_cloud/restore"
#define OPERATION_GET_BACKUP_INFO "http://orvanta.com/appcontrol/operation/orvanta_cloud/get_backup_info"
