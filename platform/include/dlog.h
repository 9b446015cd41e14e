/** @file
 * The platform log (libdlog).
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** Log buffer that applications write to. */
#define DLOG_BUFFER_APPS 2

/** Priorities, in ascending order of urgency. */
#define DLOG_PRIORITY_INFO 4
#define DLOG_PRIORITY_ERROR 6

/**
 * Writes one message to the platform log.
 *
 * @param buffer    log buffer, such as #DLOG_BUFFER_APPS
 * @param priority  urgency, such as #DLOG_PRIORITY_ERROR
 * @param tag       name by which a reader can filter the log
 * @param format    printf format of the message
 * @return the number of bytes written, or a negative value on failure
 */
int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif
