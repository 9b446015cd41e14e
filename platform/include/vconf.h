/** @file
 * The platform's settings store (libvconf): typed values under slash-separated keys, such as
 * "db/ise/hand_write". A value is a boolean or a NUL-terminated UTF-8 string. A call with a null handle or
 * text fails.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** Option of vconf_get(): fetch the keys, not the directories between them. */
#define VCONF_GET_KEYS 0

/** A list of keys with their values, made by vconf_keylist_new(). */
typedef struct vconf_keylist *vconf_keylist_handle;

/** One key of a list with its value. It belongs to the list and is released with it. */
typedef struct vconf_keynode *vconf_keynode_handle;

/**
 * Reads a boolean.
 *
 * @param[out] value  1 or 0; untouched on failure
 * @return 0, or -1 when the key is missing or not a boolean, or the store can't be read; the service treats
 *         every result except -1 as success
 */
int vconf_get_bool(const char *key, int *value);

/**
 * Stores a boolean, replacing a value of any type. Once the call has returned, the value outlives the
 * process; a power cut may lose only the values of the last seconds. The store knows nothing of an exchange,
 * so it must not wait for the end of an exchange.
 *
 * @param value  0 is false, any other value true
 * @return 0, or -1 when the store refuses the value; the service treats every result except -1 as success
 */
int vconf_set_bool(const char *key, int value);

/**
 * Reads a string.
 *
 * @return a new text for the caller to free(), or null when the key is missing or not a string, or the store
 *         can't be read
 */
char *vconf_get_str(const char *key);

/** @return a new empty list, to be released with vconf_keylist_free(), or null */
vconf_keylist_handle vconf_keylist_new(void);

/**
 * Adds keys with their values from the store to a list. A key that is already in the list gets the store's
 * value, which vconf_set() does not store.
 *
 * @param directory  a directory, for all keys below it, or the full name of one key
 * @param option     #VCONF_GET_KEYS
 * @return 0, or a negative value when there is no such key or the store can't be read; then the list is
 *         unchanged
 */
int vconf_get(vconf_keylist_handle list, const char *directory, int option);

/**
 * Finds a key in a list by its full name.
 *
 * @param[out] node  the key's node; untouched on failure
 * @return 0 or more when found, a negative value otherwise
 */
int vconf_keylist_lookup(vconf_keylist_handle list, const char *key, vconf_keynode_handle *node);

/** @return the node's string, which belongs to the node, or null when the node's value is not a string */
char *vconf_keynode_get_str(vconf_keynode_handle node);

/**
 * Puts a string under a key into a list, for vconf_set() to store. The list copies both texts.
 *
 * @return 0 or more, or a negative value on failure
 */
int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value);

/**
 * Stores the values that vconf_keylist_add_str() put into a list, all or none, as durably as vconf_set_bool()
 * does.
 *
 * @return 0 when all values are stored, any other value when none is
 */
int vconf_set(vconf_keylist_handle list);

/**
 * Releases a list with its nodes and their texts.
 *
 * @return 0, or a negative value when there is no such list
 */
int vconf_keylist_free(vconf_keylist_handle list);

#ifdef __cplusplus
}
#endif
