  $ . "$TESTDIR/helpers"
  $ ime-backupctl settings set default_keyboard kbd selected_lang de_DE,fr_FR downloaded_lang de_DE,en_US handwriting on prediction off key_tap_sound off
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ ime-backupctl settings set prediction on selected_lang en_US && ime-backupctl backup
  backup 2  DAY TIME
  $ ime-backupctl settings set key_tap_vib off && ime-backupctl backup
  backup 3  DAY TIME

The log of changes. An unreadable backup does not hide the changes before and after it.

  $ ime-backupctl log
  id  time                     setting        from         to
  1   DAY TIME  the first
  2   DAY TIME  selected_lang  de_DE,fr_FR  en_US
  2   DAY TIME  prediction     false        true
  3   DAY TIME  key_tap_vib    true         false
  $ put_backup 4 "$(record 0 1 'no JSON')"; ime-backupctl settings set prediction off && ime-backupctl backup
  backup 5  DAY TIME
  $ ime-backupctl log prediction latest
  ime-backupctl: unknown setting "latest"; the settings are default_keyboard, selected_lang, handwriting, prediction, auto_space, auto_capitalize, auto_punctuation, key_tap_sound, key_tap_vib, downloaded_lang, downloaded_with_handwriting_lang
  [2]
  $ ime-backupctl log prediction
  id  time                     setting     from   to
  2   DAY TIME  prediction  false  true
  4   damaged: record "0" holds no snapshot
  5   DAY TIME  prediction  true   false
  $ ime-backupctl log --json selected_lang | grep -v time | tr -d ' \n'
  [{"id":2,"changes":[{"name":"selected_lang","from":["de_DE","fr_FR"],"to":["en_US"]}],"reason":""},{"id":4,"changes":[],"reason":"damaged:record\"0\"holdsnosnapshot"}] (no-eol)

A restore of chosen settings, without the service. The other settings stay exactly as they are, set or not.

  $ ime-backupctl settings >before
  $ restore 1 --only prediction,selected_lang
  setting        before  after
  selected_lang  en_US   de_DE  fr_FR is not downloaded
  prediction     false   false
  backup 1  restored, except selected_lang
  $ ime-backupctl settings | diff before - | grep -c '^> '
  1
  $ restore 1 --except selected_lang,handwriting --json | sed -n '/"name"/,/}/p' | tr -d ' \n'
  "name":"default_keyboard","before":"kbd","wanted":"kbd","after":"kbd","why":""},"name":"prediction","before":false,"wanted":false,"after":false,"why":""},"name":"auto_space","before":null,"wanted":true,"after":true,"why":""},"name":"auto_capitalize","before":null,"wanted":true,"after":true,"why":""},"name":"auto_punctuation","before":null,"wanted":true,"after":true,"why":""},"name":"key_tap_sound","before":false,"wanted":false,"after":false,"why":""},"name":"key_tap_vib","before":false,"wanted":true,"after":true,"why":""} (no-eol)
  $ ime-backupctl undo && ime-backupctl undo
  setting           before  after
  auto_space        true    (not set)
  auto_capitalize   true    (not set)
  auto_punctuation  true    (not set)
  key_tap_vib       true    false
  undid the restore of backup 1 (entry 10)
  setting        before  after
  selected_lang  de_DE   en_US
  undid the restore of backup 1 (entry 9)
  $ ime-backupctl settings | diff before -
  $ restore 2 --only selected_lang --strict
  setting        before  after
  selected_lang  en_US   en_US
  backup 2  restored
  $ printf '%s\n' '--only predicton' '--only downloaded_lang' '--only prediction --except prediction' '9 --only prediction' '4 --only prediction' | sed 's/^/restore /' | try_each
  2 ime-backupctl: unknown setting "predicton"; did you mean prediction?
  2 ime-backupctl: downloaded_lang is not part of a backup
  2 ime-backupctl: --only and --except can't be combined
  4 ime-backupctl: there is no backup 9
  1 ime-backupctl: not restored: record "0"
  $ ime-backupctl history | tail -n 4
  11     DAY TIME  undo of entry 10     done    auto_space, auto_capitalize, auto_punctuation, key_tap_vib
  12     DAY TIME  undo of entry 9      done    selected_lang
  13     DAY TIME  restore of backup 2  done
  14     DAY TIME  restore of backup 4  failed  not restored: record "0"
  $ change_store() { sqlite3 $IME_BACKUP_HOST_DIR/settings.db "$1"; }
  $ change_store "CREATE TRIGGER full BEFORE INSERT ON settings BEGIN SELECT RAISE(ABORT, 'full'); END"
  $ ime-backupctl restore 2 --only prediction; change_store 'DROP TRIGGER full'
  setting     before  after
  prediction  false   false  should be true
  ime-backupctl: the settings store WORK/state/settings.db can't be used: full

A dump and its load, with unset settings.

  $ ime-backupctl settings dump >dump; ime-backupctl settings --json | diff dump -
  $ ime-backupctl settings >before
  $ ime-backupctl settings set auto_space off selected_lang fr_FR && ime-backupctl settings unset prediction
  $ ime-backupctl settings load dump && ime-backupctl settings | diff before -
  $ ime-backupctl settings load --json <dump | grep succeeded
    "succeeded": true,
  $ for text in '{"prediction": 7}' '{"predict": true}' '{"selected_lang": "en_US"}' '{"selected_lang": [1]}' '[]' '{' '{"default_keyboard": ""}'; do
  >     echo "$text" | ime-backupctl settings load
  > done
  ime-backupctl: - can't be loaded: prediction: the value has another type
  ime-backupctl: - can't be loaded: predict: unknown setting "predict"; did you mean prediction?
  ime-backupctl: - can't be loaded: selected_lang: the value has another type
  ime-backupctl: - can't be loaded: selected_lang: the value has another type
  ime-backupctl: - can't be loaded: not a JSON object
  ime-backupctl: - can't be loaded: not JSON
  ime-backupctl: default_keyboard: no input method can have this identifier
  [2]
  $ ime-backupctl settings | diff before -
  $ echo '{"auto_punctuation": "never"}' | ime-backupctl settings load; ime-backupctl status | head -n 1; ime-backupctl undo | tail -n 1
  SCIM daemon      NOT FINE  the configuration holds a value of another type under keyloom/auto_punctuate_val. Set it again with: ime-backupctl settings set auto_punctuation VALUE
  undid settings load (entry 20)

Retention by days, weeks and months.

  $ export IME_BACKUP_HOST_DIR=$PWD/old
  $ for day in 01-01 01-02 01-30 02-01 02-02 02-02 02-07 02-08 02-09; do
  >     put_backup $((++number)) "$(record 0 $(date -d "2026-$day 12:00" +%s000) '{"default_keyboard":"kbd"}')"
  > done
  $ put_backup 10 "$(record 0 '' '{"default_keyboard":"kbd"}')"
  $ put_backup 11 "$(record 0 $(date -d "2026-02-01 13:00" +%s000) '{"default_keyboard":"kbd"}')"
  $ command ime-backupctl prune --keep-daily 2 --keep-weekly 3 --keep-monthly 2 --dry-run
  kept                           by
  3     2026-01-30 12:00:00 UTC  monthly
  8     2026-02-08 12:00:00 UTC  daily, weekly
  9     2026-02-09 12:00:00 UTC  daily, weekly, monthly
  10                             no date
  11    2026-02-01 13:00:00 UTC  weekly
  backup 1  would be deleted
  backup 2  would be deleted
  backup 4  would be deleted
  backup 5  would be deleted
  backup 6  would be deleted
  backup 7  would be deleted
  $ command ime-backupctl prune --keep-daily 3 | head -n 6
  kept                           by
  7     2026-02-07 12:00:00 UTC  daily
  8     2026-02-08 12:00:00 UTC  daily
  9     2026-02-09 12:00:00 UTC  daily
  10                             no date
  11    2026-02-01 13:00:00 UTC  newest
  $ command ime-backupctl prune --keep-monthly 1 -q; ime-backupctl list | cut -c 1-24
  id  time  age  keyboard 
  9   DAY TIME  AGE  kbd  
  10                      
  11  DAY TIME  AGE  kbd  

Completion in zsh and fish: values, and files as an option's value.

  $ cat >zsh <<'END'
  > compadd() { print -l -- "${(P)@[-1][@]}"; }
  > compset() { }
  > _files() { print files; }
  > try() { words=("$@"); CURRENT=$#; source $SOURCE/ctl/ime-backupctl.zsh; }
  > try ime-backupctl settings set prediction ''; try ime-backupctl list --store=/; try ime-backupctl trace info --fail=scim::ConfigBase::f
  > END
  $ zsh -f zsh
  true
  false
  files
  --fail=scim::ConfigBase::flush
  $ fish -c 'source $SOURCE/ctl/ime-backupctl.fish
  >   for line in "settings set prediction " "list --store=/et" "trace info --fail scim::ConfigBase::f" "show "
  >       complete -C "ime-backupctl $line"
  >   end'
  true
  false
  --store=/etc/
  scim::ConfigBase::flush
  latest
  9
  10
  11
