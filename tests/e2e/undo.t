  $ . "$TESTDIR/helpers"
  $ store=$IME_BACKUP_HOST_DIR/settings.db
  $ journal=$IME_BACKUP_HOST_DIR/history.jsonl
  $ ime-backupctl undo; ime-backupctl history
  nothing to undo
  the history is empty
  $ ime-backupctl settings set default_keyboard kbd downloaded_lang en_US,ko_KR key_tap_sound off
  $ ime-backupctl backup
  backup 1  DAY TIME

Undo reverts all that a restore changed, unset settings included, even to values that a restore would refuse.
Repeated, it goes further back. An undo can be undone.

  $ ime-backupctl settings set default_keyboard other selected_lang xx_XX
  $ ime-backupctl settings unset key_tap_sound
  $ ime-backupctl settings >before
  $ ime-backupctl restore | tail -n 1
  backup 1  restored, except handwriting
  $ ime-backupctl settings set prediction off key_tap_vib off
  $ ime-backupctl undo
  setting      before  after
  prediction   false   true
  key_tap_vib  false   true
  undid settings set (entry 6)
  $ ime-backupctl settings >restored
  $ ime-backupctl undo --dry-run
  setting           before       after
  default_keyboard  kbd          other
  selected_lang     en_US,ko_KR  xx_XX
  handwriting       false        (not set)
  prediction        true         (not set)
  auto_space        true         (not set)
  auto_capitalize   true         (not set)
  auto_punctuation  true         (not set)
  key_tap_sound     false        (not set)
  key_tap_vib       true         (not set)
  would undo the restore of backup 1 (entry 5)
  $ ime-backupctl settings | diff restored -
  $ ime-backupctl undo | tail -n 1
  undid the restore of backup 1 (entry 5)
  $ ime-backupctl settings | diff before -
  $ ime-backupctl undo
  setting        before     after
  key_tap_sound  (not set)  false
  undid settings unset (entry 4)
  $ ime-backupctl history
  entry  time  what                 result  changed
  1      DAY TIME  settings set         done    default_keyboard, key_tap_sound, downloaded_lang
  2      DAY TIME  backup 1             done    selected_lang
  3      DAY TIME  settings set         done    default_keyboard, selected_lang
  4      DAY TIME  settings unset       undone  key_tap_sound
  5      DAY TIME  restore of backup 1  undone  default_keyboard, selected_lang, handwriting, prediction, auto_space, auto_capitalize, auto_punctuation, key_tap_sound, key_tap_vib
  6      DAY TIME  settings set         undone  prediction, key_tap_vib
  7      DAY TIME  undo of entry 6      done    prediction, key_tap_vib
  8      DAY TIME  undo of entry 5      done    default_keyboard, selected_lang, handwriting, prediction, auto_space, auto_capitalize, auto_punctuation, key_tap_sound, key_tap_vib
  9      DAY TIME  undo of entry 4      done    key_tap_sound
  $ ime-backupctl undo 7 | tail -n 1
  undid the undo of entry 6 (entry 7)
  $ printf 'undo %s\n' 99 x 5 1 | try_each
  4 ime-backupctl: there is no entry 99 in the history
  4 ime-backupctl: there is no entry x in the history
  1 ime-backupctl: entry 5 (restore of backup 1) is undone already; "ime-backupctl undo 8" takes the undo back
  0 

Undo also brings back values that are not valid for their setting. A number stays that number.

  $ stop_scim
  $ sed -i '/keyloom/d' $SCIM_HOME/.scim/config
  $ printf 'keyloom/%s\n' 'auto_spacing_val = 7' 'auto_punctuate_val = maybe' $'key_sounds_val = a\tb' $'key_vibration_val = a\xffb' >>$SCIM_HOME/.scim/config
  $ start_scim
  $ sqlite3 $store "INSERT OR REPLACE INTO settings VALUES ('db/ise/hand_write', 'string', 'often')"
  $ ime-backupctl settings >before; grep -E 'often|maybe' before
  handwriting                       often
  auto_punctuation                  maybe
  $ restore | grep -E 'often|maybe|backup'
  handwriting       often      false  no restored language can be written by hand
  auto_punctuation  maybe      true
  backup 1  restored, except selected_lang, handwriting
  $ ime-backupctl undo >undone
  $ ime-backupctl settings | diff before -
  $ grep -a keyloom $SCIM_HOME/.scim/config | cat -v
  keyloom/auto_punctuate_val = maybe
  keyloom/auto_spacing_val = 7
  keyloom/key_sounds_val = a\tb (esc)
  keyloom/key_vibration_val = aM-^?b

A command that changes nothing, fails or never begins does not block the undo of earlier changes.

  $ ime-backupctl restore | tail -n 1
  backup 1  restored, except selected_lang, handwriting
  $ ime-backupctl settings >restored
  $ echo restore 9 | try_each
  4 ime-backupctl: there is no backup 9
  $ ime-backupctl restore | tail -n 1
  backup 1  restored, except selected_lang, handwriting
  $ ime-backupctl backup | tidy
  backup 2  DAY TIME
  $ ime-backupctl backup --if-changed
  backup 2 holds the same settings; nothing was stored
  $ ime-backupctl settings set key_tap_vib off
  $ ime-backupctl undo
  setting      before  after
  key_tap_vib  false   true
  undid settings set (entry 19)
  $ ime-backupctl undo | tail -n 1
  undid the restore of backup 1 (entry 14)
  $ ime-backupctl settings | diff before -

Status and history report an interrupted restore. Undo reverts only the settings that the restore was to change.

  $ ime-backupctl restore >/dev/null
  $ sed -i '$d' $journal
  $ ime-backupctl settings unset auto_capitalize
  $ ime-backupctl status | grep last
  last exchange    failed  restore of backup 2 was interrupted. Revert its changes with: ime-backupctl undo 22
  $ ime-backupctl history | tail -n 2 | cut -c 1-80
  22     DAY TIME  restore of backup 2  interrupted  default_keyboard, handwriting
  23     DAY TIME  settings unset       done         auto_capitalize
  $ ime-backupctl undo | tail -n 1
  undid settings unset (entry 23)
  $ ime-backupctl undo | tail -n 1
  undid the restore of backup 2 (entry 22)
  $ ime-backupctl settings | diff before -
  $ ime-backupctl status | grep last
  last exchange    fine      restore of backup 2 was undone

An entry that can't be read, or has unknown names, is kept, and blocks only its own undo.

  $ ime-backupctl restore >/dev/null
  $ cp $journal kept
  $ sed -i '$s/"entry"/"entri"/' $journal
  $ echo undo | try_each
  1 ime-backupctl: entry 26 of the history can't be read: it is damaged; name the entry that is to be undone
  $ ime-backupctl history 2>&1 | tail -n 1
  26     DAY TIME  restore              unreadable  it is damaged
  $ ime-backupctl settings set key_tap_vib off
  $ ime-backupctl undo | tail -n 1
  undid settings set (entry 27)
  $ printf 'undo %s\n' '' 30 | try_each
  1 ime-backupctl: entry 26 of the history can't be read: it is damaged; name the entry that is to be undone
  4 ime-backupctl: there is no entry 30 in the history
  $ cp kept $journal
  $ line() { printf '%s,"sum":"%s"}\n' "$1" "$(printf %s "$1" | sha256sum | cut -c 1-16)"; }
  $ line '{"entry":30,"time":1,"what":"settings set","before":{"emoji":true},"planned":{"emoji":false}' >>$journal
  $ printf 'undo %s\n' '' 30 | try_each
  1 ime-backupctl: entry 30 of the history can't be read: it names a setting that this version does not know: emoji; name the entry that is to be undone
  1 ime-backupctl: entry 30 of the history can't be read: it names a setting that this version does not know: emoji
  $ ime-backupctl history | tail -n 1
  30     1970-01-01 00:00:00 UTC  settings set         unreadable  it names a setting that this version does not know: emoji
  $ cp kept $journal

A place that can't be written: nothing is changed, and undo can be repeated. Commands that change the device wait for
each other.

  $ stop_scim
  $ printf '%s\n' undo 'undo --dry-run' 'settings set key_tap_vib on' | try_each
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  $ start_scim
  $ ime-backupctl settings set key_tap_sound off
  $ mv $journal kept; mkdir $journal
  $ printf '%s\n' restore 'restore --dry-run' 'settings set key_tap_vib on' history | try_each
  0 
  0 
  0 can't note the result in the history: can't open WORK/state/history.jsonl: Is a directory
  3 ime-backupctl: can't use WORK/state/history.jsonl: it is not a regular file
  $ rmdir $journal; mv kept $journal
  $ ime-backupctl undo | head -n 1
  setting           before  after
  $ (flock 9; printf -- '--timeout 0.5 %s\n' undo restore 'settings set key_tap_vib on' 'settings unset key_tap_vib' backup | try_each; ime-backupctl status | grep last) 9>$IME_BACKUP_HOST_DIR/exchange.lock
  124 ime-backupctl: another exchange did not finish in time
  124 ime-backupctl: another exchange did not finish in time
  124 ime-backupctl: another exchange did not finish in time
  124 ime-backupctl: another exchange did not finish in time
  124 ime-backupctl: another exchange did not finish in time
  last exchange    fine      running now
