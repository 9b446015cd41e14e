  $ . "$TESTDIR/helpers"
  $ cloud=$IME_BACKUP_HOST_DIR/cloud

A missing store is not an empty one. Only a backup creates it.

  $ ime-backupctl list
  ime-backupctl: no backups yet: the first one makes WORK/state/cloud
  $ IME_BACKUP_CLOUD_STORE=$PWD/store try_each <<'END'
  > list
  > verify
  > prune --keep 1
  > show
  > delete 1
  > import /dev/null
  > END
  3 ime-backupctl: the cloud store HERE/store does not exist; "ime-backupctl backup" makes it
  3 ime-backupctl: the cloud store HERE/store does not exist; "ime-backupctl backup" makes it
  3 ime-backupctl: the cloud store HERE/store does not exist; "ime-backupctl backup" makes it
  4 ime-backupctl: there is no backup yet in HERE/store
  4 ime-backupctl: there is no backup yet in HERE/store
  3 ime-backupctl: the cloud store HERE/store does not exist; "ime-backupctl backup" makes it
  $ ls -d store $cloud 2>/dev/null
  [2]

--if-changed stores nothing if the newest backup holds the same settings. Any difference is stored.

  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl backup --if-changed
  backup 1  DAY TIME
  $ ime-backupctl backup --if-changed
  backup 1 holds the same settings; nothing was stored
  $ ime-backupctl settings set selected_lang ko_KR,en_US
  $ ime-backupctl diff; ime-backupctl backup --if-changed --json
  backup 1 and the device hold the same settings
  {
    "succeeded": true,
    "reason": "",
    "backup": 1,
    "stored": false
  }
  $ ime-backupctl settings set auto_space off
  $ ime-backupctl diff
  setting     backup 1  device
  auto_space  true      false
  [1]
  $ ime-backupctl backup --if-changed
  backup 2  DAY TIME
  $ sed -i s/kbd/KBD/ $cloud/backup-000002.json
  $ ime-backupctl backup --if-changed
  backup 3  DAY TIME

Compares two backups, a backup with the device, and backups that can't be read.

  $ ime-backupctl diff 1 3
  setting     backup 1  backup 3
  auto_space  true      false
  [1]
  $ ime-backupctl diff 3
  backup 3 and the device hold the same settings
  $ printf 'diff %s\n' '1 3' 2 '1 9' | try_each
  1 
  5 ime-backupctl: backup 2 is damaged: it has been changed since it was written, or is cut short
  4 ime-backupctl: there is no backup 9
  $ ime-backupctl settings unset default_keyboard; echo diff | try_each
  3 ime-backupctl: no input method is active
  $ ime-backupctl settings set default_keyboard kbd

Checks the backups of the store.

  $ put_backup 4 "$(record a 1 '[]')"
  $ ime-backupctl verify
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  2   damaged: it has been changed since it was written, or is cut short
  3   DAY TIME  AGE  kbd       en_US,ko_KR
  4   damaged: record "a" holds no snapshot
  4 backups, 2 damaged, 0 unreadable
  [1]
  $ ime-backupctl verify 1 3 | tail -n 1
  2 backups, 0 damaged, 0 unreadable
  $ echo verify 9 | try_each
  4 ime-backupctl: there is no backup 9

Deletes all named backups or none. A number is never reused.

  $ ime-backupctl backup
  backup 5  DAY TIME
  $ echo delete 1 9 | try_each
  4 ime-backupctl: there is no backup 9
  $ ime-backupctl delete 5 1 5
  backup 1  deleted
  backup 5  deleted
  $ ime-backupctl backup
  backup 6  DAY TIME
  $ ime-backupctl delete 2 3 4 6
  backup 2  deleted
  backup 3  deleted
  backup 4  deleted
  backup 6  deleted
  $ ime-backupctl list; ime-backupctl backup
  backup 7  DAY TIME

Prunes, but never the newest good backup nor the good backup with the latest date.

  $ for day in 1 30; do
  >     put_backup $((40 - day)) "$(record 0 $(($(date +%s -d "$day days ago") * 1000)) '{"default_keyboard":"kbd"}')"
  > done
  $ put_backup 40 "$(record 0 1 'no JSON')"
  $ ime-backupctl prune --keep 1 --keep-within 2d --dry-run
  kept                           by
  7     DAY TIME  within
  39    DAY TIME  within
  40    1970-01-01 00:00:00 UTC  newest
  backup 10  would be deleted
  $ ime-backupctl prune --keep 0 --dry-run --json | grep -v time | tr -d ' \n'
  {"rules":[{"id":7,"kept_by":["latestdate"]},{"id":39,"kept_by":["newest"]}],"deleted":[10,40],"kept":[7,39]} (no-eol)
  $ ime-backupctl prune --keep 1 --keep-within 12h
  kept                           by
  7     DAY TIME  within
  39    DAY TIME  newest
  40    1970-01-01 00:00:00 UTC  newest
  backup 10  deleted
  $ ime-backupctl list | cut -c 1-3
  id 
  7  
  39 
  40 
  $ ime-backupctl prune --keep 0
  kept                           by
  7     DAY TIME  latest date
  39    DAY TIME  newest
  backup 40  deleted

An unreadable backup may be good, so it is kept. The others are pruned as if it did not exist.

  $ put_backup 37 "$(record 0 1 '{}')"; ln -s nowhere $cloud/backup-000038.json; cp $cloud/backup-000039.json whole
  $ ln -s nowhere $cloud/backup-000040.json; put_backup 36 "$(record 0 1 'no JSON')"
  $ ime-backupctl prune --keep 0 --keep-within 1d --dry-run --json 2>/dev/null | grep -v time | tr -d ' \n'
  {"rules":[{"id":7,"kept_by":["within"]},{"id":38,"kept_by":["unreadable"]},{"id":39,"kept_by":["newest"]},{"id":40,"kept_by":["unreadable"]}],"deleted":[36,37],"kept":[7,38,39,40]} (no-eol)
  $ ime-backupctl prune --keep 0
  kept                           by
  7     DAY TIME  latest date
  38                             unreadable
  39    DAY TIME  newest
  40                             unreadable
  backup 36  deleted
  backup 37  deleted
  ime-backupctl: backup 38 can't be read: can't open WORK/state/cloud/backup-000038.json: No such file or directory; backup 40 can't be read: can't open WORK/state/cloud/backup-000040.json: No such file or directory; unreadable backups are kept
  [1]
  $ printf '%s\n' verify 'verify 39' restore 'show 38' | try_each
  3 
  0 
  3 ime-backupctl: backup 40 can't be read: can't open WORK/state/cloud/backup-000040.json: No such file or directory
  3 ime-backupctl: backup 38 can't be read: can't open WORK/state/cloud/backup-000038.json: No such file or directory
  $ rm $cloud/backup-0000{38,40}.json; put_backup 40 "$(record 0 1 'no JSON')"; ime-backupctl delete 7
  backup 7  deleted

The store is tested before the exchange begins: on a fault, nothing is stored.

  $ try_store() { ime-backupctl --timeout 0.5 status | sed -n 's/^cloud store *//p'; }
  $ ls -A $cloud >before; try_store; ls -A $cloud | diff before -
  fine    WORK/state/cloud, 2 backups
  $ mkdir -p $cloud/backup-000041.json.new/x; try_store; rm -r $cloud/*.new
  NOT FINE  can't write WORK/state/cloud/backup-000041.json: File exists. Mend the fault and try again, or set IME_BACKUP_CLOUD_STORE to another place
  $ flock $cloud/.lock sleep 2 & sleep 0.1; try_store; kill $!
  NOT FINE  the process that holds WORK/state/cloud/.lock did not finish in time. Mend the fault and try again, or set IME_BACKUP_CLOUD_STORE to another place

Exports and imports backups and bare snapshots. An import reports all problems of a snapshot.

  $ ime-backupctl export 39 file
  backup 39  written to file
  $ cmp file $cloud/backup-000039.json; stat -c %a file
  600
  $ ime-backupctl import file
  backup 41  imported
  $ command ime-backupctl export 41 - | ime-backupctl import -
  backup 42  imported
  $ cmp file $cloud/backup-000042.json
  $ ime-backupctl show 42 --json >snapshot; cat snapshot
  {"default_keyboard":"kbd"}
  $ ime-backupctl import <(cat snapshot) 2>&1 | grep -c 'is missing'
  8
  $ ime-backupctl show --json | cmp - snapshot
  $ printf '%s' ' {"handwriting":1,"selected_lang":[{"lang_id":"en_US"},7],"mood":"good"}' >odd
  $ ime-backupctl import odd --json | tr -d ' \n'
  ime-backupctl: default_keyboard is missing
  ime-backupctl: selected_lang has elements that are not languages
  ime-backupctl: handwriting has the wrong type
  ime-backupctl: prediction is missing
  ime-backupctl: auto_space is missing
  ime-backupctl: auto_capitalize is missing
  ime-backupctl: auto_punctuation is missing
  ime-backupctl: key_tap_sound is missing
  ime-backupctl: key_tap_vib is missing
  ime-backupctl: "mood" is not a setting
  {"succeeded":true,"reason":"","backup":44,"stored":true} (no-eol)
  $ ime-backupctl show
  default_keyboard  (not set)
  selected_lang     en_US
  handwriting       true
  prediction        (not set)
  auto_space        (not set)
  auto_capitalize   (not set)
  auto_punctuation  (not set)
  key_tap_sound     (not set)
  key_tap_vib       (not set)
  $ python3 -m json.tool file >pretty; head -c -9 file >cut; printf '{"a":"\xff"}' >latin; echo '{"a":"\377"}' >octal; echo '{"a":1,/**/"b":.5}' >comment; echo '[1]' >array; truncate -s 17M large
  $ printf 'import %s\n' cut pretty latin octal comment array large . nowhere file/file | try_each
  5 ime-backupctl: cut can't be imported: it is cut short
  5 ime-backupctl: pretty can't be imported: it has been changed since it was written, or is cut short
  1 ime-backupctl: latin can't be imported: not UTF-8 text
  5 ime-backupctl: octal can't be imported: not strict JSON: parsers may read it differently
  5 ime-backupctl: comment can't be imported: not strict JSON: parsers may read it differently
  1 ime-backupctl: array can't be imported: neither a backup nor a snapshot: not a JSON object
  1 ime-backupctl: large can't be imported: it is larger than 16777216 bytes
  1 ime-backupctl: . can't be imported: it can't be read: Is a directory
  1 ime-backupctl: nowhere can't be imported: No such file or directory
  1 ime-backupctl: file/file can't be imported: Not a directory
  $ ln -s /proc/self/fd/1 pipe; command ime-backupctl -q export 39 pipe | cmp - file; ls -l pipe | grep -o -- '->.*'; ln -s nowhere link
  -> /proc/self/fd/1
  $ put_backup 98 "$(record 0 1 "{\"default_keyboard\":\"$(printf %09999d)\"}")"; ime-backupctl export 98 /dev/full; rm $cloud/*98.json
  ime-backupctl: can't write /dev/full: No space left on device
  $ printf 'export 39 %s\n' . nowhere/file /dev/full /dev/null link $cloud/x | try_each; ls nowhere 2>/dev/null
  1 ime-backupctl: can't write .: Is a directory
  1 ime-backupctl: can't write nowhere/file: No such file or directory
  1 ime-backupctl: can't write /dev/full: No space left on device
  0 
  1 ime-backupctl: can't write link: it is a dangling link
  1 ime-backupctl: can't write WORK/state/cloud/x: it is in the cloud store
  [2]
  $ echo export 40 file | try_each; cmp file $cloud/backup-000039.json
  5 ime-backupctl: backup 40 is damaged: record "0" holds no snapshot
  $ mkdir $cloud/backup-000099.json; ime-backupctl prune --keep 0 | tail -n 3
  ime-backupctl: can't remove WORK/state/cloud/backup-000099.json: Is a directory
  backup 41  deleted
  backup 42  deleted
  backup 43  deleted

The history prevents the reuse of a number, even if the store's lock is lost.

  $ mkdir lost && export IME_BACKUP_HOST_DIR=$PWD/lost
  $ for i in 1 2 3; do ime-backupctl backup >/dev/null; done
  $ ime-backupctl delete 3 && rm lost/cloud/.lock && ime-backupctl delete 2 && rm lost/cloud/.lock && ime-backupctl backup
  backup 3  deleted
  backup 2  deleted
  backup 4  DAY TIME
