  $ . "$TESTDIR/helpers"

A new device has no active input method. It can't be backed up, and nothing is stored.

  $ ime-backupctl backup
  ime-backupctl: no input method is active
  Choose one with: ime-backupctl settings set default_keyboard IDENTIFIER
  [3]
  $ ime-backupctl list
  ime-backupctl: no backups yet: the first one makes WORK/state/cloud

Sets every setting, with each way to write a value.

  $ xargs ime-backupctl settings set <<END
  > default_keyboard                 0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0
  > selected_lang                    en_US,ko_KR
  > downloaded_lang                  de_DE,en_US,fr_FR,ko_KR
  > downloaded_with_handwriting_lang ko_KR
  > handwriting                      true
  > prediction                       off
  > auto_space                       yes
  > auto_capitalize                  0
  > auto_punctuation                 false
  > key_tap_sound                    1
  > key_tap_vib                      no
  > END
  $ ime-backupctl settings >before
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ ime-backupctl list
  id  time  age  keyboard                              languages
  1   DAY TIME  AGE  0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0  en_US,ko_KR
  $ ime-backupctl show --json
  {"default_keyboard":"0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0","selected_lang":[{"lang_id":"en_US"},{"lang_id":"ko_KR"}],"handwriting":true,"prediction":false,"auto_space":true,"auto_capitalize":false,"auto_punctuation":false,"key_tap_sound":true,"key_tap_vib":false}

Changes every setting and restores the backup. The settings survive a restart of the daemon.

  $ xargs ime-backupctl settings set <<END
  > default_keyboard another\ keyboard
  > selected_lang    fr_FR
  > handwriting      off
  > prediction       on
  > auto_space       off
  > auto_capitalize  on
  > auto_punctuation on
  > key_tap_sound    off
  > key_tap_vib      on
  > END
  $ ime-backupctl backup
  backup 2  DAY TIME
  $ stop_scim; start_scim
  $ restore 1
  setting           before            after
  default_keyboard  another keyboard  0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0
  selected_lang     fr_FR             en_US,ko_KR
  handwriting       false             true
  prediction        true              false
  auto_space        false             true
  auto_capitalize   true              false
  auto_punctuation  true              false
  key_tap_sound     false             true
  key_tap_vib       true              false
  backup 1  restored
  $ ime-backupctl settings | diff before -
  $ restore | grep another
  default_keyboard  0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0  another keyboard
  $ ime-backupctl show 2 --json
  {"default_keyboard":"another keyboard","selected_lang":[{"lang_id":"fr_FR"}],"handwriting":false,"prediction":true,"auto_space":false,"auto_capitalize":true,"auto_punctuation":true,"key_tap_sound":false,"key_tap_vib":true}

Values that this device can't take over are named with the reason: a language that is not downloaded,
handwriting without support, and a setting that is not in the backup. A switch may be stored as a number.

  $ put_backup 3 "$(record 0 1000000000000 '{"default_keyboard":"kbd3","selected_lang":[{"lang_id":"ja_JP"},{"lang_id":"fr_FR"}],"handwriting":true,"auto_space":true,"auto_punctuation":1,"key_tap_sound":"true"}')"
  $ restore 3
  setting           before            after
  default_keyboard  another keyboard  kbd3
  selected_lang     fr_FR             fr_FR  ja_JP is not downloaded
  handwriting       false             false  no restored language can be written by hand
  prediction        true              false  not in the backup: switched off
  auto_space        false             true
  auto_capitalize   true              false  not in the backup: switched off
  auto_punctuation  true              true
  key_tap_sound     false             false  not in the backup: switched off
  key_tap_vib       true              false  not in the backup: switched off
  backup 3  restored, except selected_lang, handwriting, prediction, auto_capitalize, key_tap_sound, key_tap_vib
  $ for languages in '' '{"lang_id":"FR#fr"}' '{"lang_id":"ja_JP"},{"lang_id":"zh_CN"}'; do
  >     put_backup 4 "$(record 0 1 '{"selected_lang":['"$languages"']}')"
  >     restore | grep ^selected_lang
  > done
  selected_lang     fr_FR   fr_FR  the backup selects no language
  selected_lang     fr_FR   fr_FR  FR#fr is not downloaded
  selected_lang     fr_FR   fr_FR  ja_JP, zh_CN are not downloaded
  $ ime-backupctl settings set downloaded_lang ja_JP
  $ restore | grep ^selected_lang
  selected_lang     fr_FR   ja_JP  zh_CN is not downloaded

A backup of several records: the valid records are applied in order.

  $ put_backup 6 "$(record a 1 '{"default_keyboard":"kbd6a","prediction":true}')" "$(record b 2 'no JSON')" \
  >     '{"key":"c","date":"3","value":null}' "$(record d 4 '{"default_keyboard":"kbd6d"}')"
  $ restore 2>&1 | grep -v 'not in the backup'
  record 0  applied
  record b  failed
  record c  failed
  record 3  applied
  setting           before  after
  default_keyboard  kbd3    kbd6d
  ime-backupctl: not restored: record "b", "c"
  $ put_backup 7 "$(record 0 1 'no JSON')"
  $ restore
  record 0  failed
  ime-backupctl: not restored: record "0"
  [1]
  $ put_backup 8
  $ echo restore | try_each
  1 ime-backupctl: backup 8 holds no record
  $ ime-backupctl list
  id  time  age  keyboard                              languages
  1   DAY TIME  AGE  0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0  en_US,ko_KR
  2   DAY TIME  AGE  another keyboard                      fr_FR
  3   2001-09-09 01:46:40 UTC  AGE  kbd3                                  ja_JP,fr_FR
  4   1970-01-01 00:00:00 UTC  AGE  (not set)                             ja_JP,zh_CN
  6   damaged: record "b" holds no snapshot
  7   damaged: record "0" holds no snapshot
  8   damaged: it holds no record

The device refuses a keyboard, and takes the other settings.

  $ put_backup 9 "$(record 0 1 '{"default_keyboard":" kbd","prediction":true}')"
  $ restore 2>&1 | grep -v 'not in the backup'
  setting           before  after
  default_keyboard  kbd6d   kbd6d  it could not be written
  prediction        false   true
  ime-backupctl: not restored: default_keyboard; no input method can have this identifier
