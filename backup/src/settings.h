#pragma once

/// The nine settings: their members in the snapshot and, for eight of them, the keys under which the device
/// keeps them. The active keyboard is the input-method control's to tell.

inline constexpr char MEMBER_DEFAULT_KEYBOARD[] = "default_keyboard";
inline constexpr char MEMBER_SELECTED_LANG[] = "selected_lang";
inline constexpr char MEMBER_LANG_ID[] = "lang_id";
inline constexpr char MEMBER_HANDWRITING[] = "handwriting";
inline constexpr char MEMBER_PREDICTION[] = "prediction";
inline constexpr char MEMBER_AUTO_SPACE[] = "auto_space";
inline constexpr char MEMBER_AUTO_CAPITALIZE[] = "auto_capitalize";
inline constexpr char MEMBER_AUTO_PUNCTUATION[] = "auto_punctuation";
inline constexpr char MEMBER_KEY_TAP_SOUND[] = "key_tap_sound";
inline constexpr char MEMBER_KEY_TAP_VIB[] = "key_tap_vib";

/// Keys of the settings store. A language list is one string in which each identifier is followed by the
/// delimiter.
inline constexpr char VCONFKEY_ISE_HANDWRITING_VAL[] = "db/ise/hand_write";
inline constexpr char VCONFKEY_ISE_PREDICTION_VAL[] = "db/ise/engine/prediction_val";
inline constexpr char VCONFKEY_ISE_LPM_SELECTED_LANG[] = "db/ise/engine/lpm/selected_lang";
inline constexpr char VCONFKEY_ISE_LPM_DOWNLOADED_LANG[] = "db/ise/engine/lpm/downloaded_lang";
inline constexpr char VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG[] =
    "db/ise/engine/lpm/downloaded_with_handwriting_lang";
inline constexpr char LANGUAGE_DELIMITER = '#';
inline constexpr char DEFAULT_SELECTED_LANG[] = "en_US#ko_KR#";

/// Keys of the input-method configuration: integers, but for the punctuation, which is a boolean.
inline constexpr char CONFIG_AUTO_SPACING[] = "keyloom/auto_spacing_val";
inline constexpr char CONFIG_AUTO_CAPITALIZATION[] = "keyloom/auto_capitalization_val";
inline constexpr char CONFIG_AUTO_PUNCTUATE[] = "keyloom/auto_punctuate_val";
inline constexpr char CONFIG_KEY_SOUNDS[] = "keyloom/key_sounds_val";
inline constexpr char CONFIG_KEY_VIBRATION[] = "keyloom/key_vibration_val";

/// The module through which the input-method configuration is reached.
inline constexpr char CONFIG_MODULE[] = "socket";
