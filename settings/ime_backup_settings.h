/** @file
 * The table of the keyboard's settings: each setting's member in a snapshot, and where and how the device
 * stores it. The service and the tools around it all iterate over this table.
 */
#pragma once

#include <span>

/// Where the device stores a setting.
enum class SettingPlace {
    input_method_control, ///< as the active input method, which has no key
    settings_store,       ///< vconf
    configuration,        ///< of the input-method framework
};

/// How the device stores a setting. In a snapshot, both kinds of switches are booleans.
enum class SettingForm {
    identifier,     ///< a text
    languages,      ///< a text with #LANGUAGE_DELIMITER after each identifier; in a snapshot an array
    boolean_switch, ///< a boolean
    integer_switch, ///< an integer, off when it is 0
};

struct SettingRow {
    const char *member; ///< its name in a snapshot
    SettingPlace place;
    SettingForm form;
    const char *key;
    const char *symbol; ///< the platform's name of the key, if log messages use it
};

inline constexpr char LANGUAGE_DELIMITER = '#';

/// Keys of language lists in the settings store. A restore selects only downloaded languages.
inline constexpr char VCONFKEY_ISE_LPM_SELECTED_LANG[] = "db/ise/engine/lpm/selected_lang";
inline constexpr char VCONFKEY_ISE_LPM_DOWNLOADED_LANG[] = "db/ise/engine/lpm/downloaded_lang";
inline constexpr char VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG[] =
    "db/ise/engine/lpm/downloaded_with_handwriting_lang";

inline constexpr char MEMBER_HANDWRITING[] = "handwriting";
/// Member of each element of a snapshot's language array.
inline constexpr char MEMBER_LANG_ID[] = "lang_id";

inline constexpr char DEFAULT_SELECTED_LANG[] = "en_US#ko_KR#";

/// All settings: first the settings in a snapshot, then the lists of downloaded languages. The settings in a
/// snapshot are in the order of its members. The service reads and writes them in this order.
inline constexpr SettingRow ALL_SETTINGS[] = {
    {"default_keyboard", SettingPlace::input_method_control, SettingForm::identifier, "", ""},
    {"selected_lang", SettingPlace::settings_store, SettingForm::languages, VCONFKEY_ISE_LPM_SELECTED_LANG,
     "VCONFKEY_ISE_LPM_SELECTED_LANG"},
    {MEMBER_HANDWRITING, SettingPlace::settings_store, SettingForm::boolean_switch, "db/ise/hand_write",
     "VCONFKEY_ISE_HANDWRITING_VAL"},
    {"prediction", SettingPlace::settings_store, SettingForm::boolean_switch, "db/ise/engine/prediction_val",
     "VCONFKEY_ISE_PREDICTION_VAL"},
    {"auto_space", SettingPlace::configuration, SettingForm::integer_switch, "keyloom/auto_spacing_val", ""},
    {"auto_capitalize", SettingPlace::configuration, SettingForm::integer_switch,
     "keyloom/auto_capitalization_val", ""},
    {"auto_punctuation", SettingPlace::configuration, SettingForm::boolean_switch,
     "keyloom/auto_punctuate_val", ""},
    {"key_tap_sound", SettingPlace::configuration, SettingForm::integer_switch, "keyloom/key_sounds_val", ""},
    {"key_tap_vib", SettingPlace::configuration, SettingForm::integer_switch, "keyloom/key_vibration_val",
     ""},
    {"downloaded_lang", SettingPlace::settings_store, SettingForm::languages,
     VCONFKEY_ISE_LPM_DOWNLOADED_LANG, "VCONFKEY_ISE_LPM_DOWNLOADED_LANG"},
    {"downloaded_with_handwriting_lang", SettingPlace::settings_store, SettingForm::languages,
     VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG, "VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG"},
};

/// The lists of downloaded languages. They are not in a snapshot, but limit the languages that a restore can
/// select.
inline constexpr auto DOWNLOADED_LISTS = std::span(ALL_SETTINGS).last<2>();

/// The settings in a snapshot.
inline constexpr auto SETTINGS =
    std::span(ALL_SETTINGS).first<std::size(ALL_SETTINGS) - DOWNLOADED_LISTS.size()>();
