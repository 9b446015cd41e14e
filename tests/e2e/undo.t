  $ . "$TESTDIR/helpers"
  $ store=$IME_BACKUP_HOST_DIR/settings.db
  $ ime-backupctl undo
  there is nothing to undo
  $ ime-backupctl settings set default_keyboard kbd downloaded_lang en_US,ko_KR key_tap_sound off
  $ ime-backupctl backup
  backup 1  DAY TIME

What a restore changed is as it was, what was not set included, and what no restore would let through. Once.

  $ ime-backupctl settings set default_keyboard other selected_lang xx_XX
  $ ime-backupctl settings unset key_tap_sound
  $ ime-backupctl settings >before
  $ ime-backupctl restore | tail -n 1
  backup 1  restored, but for handwriting
  $ ime-backupctl settings set prediction off key_tap_vib off
  $ ime-backupctl undo
  setting           before       after
  default_keyboard  kbd          other
  selected_lang     en_US,ko_KR  xx_XX
  handwriting       false        (not set)
  prediction        false        (not set)
  auto_space        true         (not set)
  auto_capitalize   true         (not set)
  auto_punctuation  true         (not set)
  key_tap_sound     false        (not set)
  key_tap_vib       false        (not set)
  what the restore of backup 1 changed is as it was
  $ ime-backupctl settings | diff before -
  $ ime-backupctl undo
  there is nothing to undo

So is what is no value of its setting; a number comes back as the number that it was.

  $ stop_scim
  $ sed -i '/keyloom/d' $SCIM_HOME/.scim/config
  $ printf 'keyloom/%s\n' 'auto_spacing_val = 7' 'auto_punctuate_val = maybe' $'key_sounds_val = a\tb' $'key_vibration_val = a\xffb' >>$SCIM_HOME/.scim/config
  $ start_scim
  $ sqlite3 $store "INSERT OR REPLACE INTO settings VALUES ('db/ise/hand_write', 'string', 'often')"
  $ ime-backupctl settings >before; grep -E 'often|maybe' before
  handwriting                       often
  auto_punctuation                  maybe
  $ restore | grep -E 'often|maybe|backup'
  handwriting       often      false        no restored language can be written by hand
  auto_punctuation  maybe      true
  backup 1  restored, but for handwriting
  $ ime-backupctl undo >undone
  $ ime-backupctl settings | diff before -
  $ grep -a keyloom $SCIM_HOME/.scim/config | cat -v
  keyloom/auto_punctuate_val = maybe
  keyloom/auto_spacing_val = 7
  keyloom/key_sounds_val = a\tb (esc)
  keyloom/key_vibration_val = aM-^?b

A restore that changes nothing leaves nothing to undo; one that never began to leaves what there was.

  $ ime-backupctl restore | tail -n 1
  backup 1  restored, but for handwriting
  $ ime-backupctl settings >restored
  $ echo restore 9 | try_each
  4 ime-backupctl: there is no backup 9
  $ cp $IME_BACKUP_HOST_DIR/last-restore.json kept
  $ ime-backupctl restore | tail -n 1
  backup 1  restored, but for handwriting
  $ ime-backupctl undo
  there is nothing to undo
  $ ime-backupctl settings | diff restored -

One that was killed in the middle: status tells of it, and what it had begun is put back, with what SCIM's daemon
lost when it was killed too; also by an undo whose first run was killed before the daemon wrote its file.

  $ head -n 4 kept >$IME_BACKUP_HOST_DIR/last-restore.json
  $ ime-backupctl settings unset key_tap_sound
  $ ime-backupctl status | grep last
  last exchange    NOT FINE  the restore of backup 1 was interrupted. Put back what it changed with: ime-backupctl undo; or restore again
  $ ime-backupctl undo
  setting           before       after
  default_keyboard  kbd          other
  selected_lang     en_US,ko_KR  xx_XX
  key_tap_sound     (not set)    a\x09b
  what the restore of backup 1 changed is as it was
  $ ime-backupctl status | grep last
  last exchange    fine  restore of backup 1 succeeded
  $ head -n 4 kept >$IME_BACKUP_HOST_DIR/last-restore.json
  $ sed -i 's/~other = other/~other = kbd/' $SCIM_HOME/.scim/config
  $ ime-backupctl undo
  what the restore of backup 1 changed is as it was
  $ grep other $SCIM_HOME/.scim/config
  /DefaultIMEngineFactory/~other = other

An account that can't be read, and a place that can't be written: nothing is changed, and it can be tried again.

  $ sed 's/"key"/"kay"/; s/:/;/g' kept >$IME_BACKUP_HOST_DIR/last-restore.json
  $ echo undo | try_each
  1 ime-backupctl: what the last restore changed can't be read from WORK/state/last-restore.json: it is no report, or damaged; move it away once you have looked at it
  $ cp kept $IME_BACKUP_HOST_DIR/last-restore.json
  $ stop_scim
  $ echo undo | try_each
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  $ start_scim
  $ ime-backupctl undo | head -n 1
  setting           before  after
  $ IME_BACKUP_HOST_DIR=$PWD/new ime-backupctl undo
  there is nothing to undo
  $ cp kept $IME_BACKUP_HOST_DIR/last-restore.json
  $ (flock 9; echo '--timeout 0.2 undo' | try_each; ime-backupctl status | grep last) 9>$IME_BACKUP_HOST_DIR/exchange.lock
  124 ime-backupctl: another exchange did not finish in time
  last exchange    fine  one is under way
