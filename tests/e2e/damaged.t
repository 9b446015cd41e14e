  $ . "$TESTDIR/helpers"
  $ cloud=$IME_BACKUP_HOST_DIR/cloud
  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ cp $cloud/backup-000001.json whole

Files that are damaged or are no backups: the list names each, a restore refuses it, and nothing changes.

  $ head -c -20 whole >$cloud/backup-000002.json
  $ sed s/kbd/KBD/ whole >$cloud/backup-000003.json
  $ sed s/'"version":1'/'"version":2'/ whole >$cloud/backup-000004.json
  $ truncate -s 0 $cloud/backup-000005.json
  $ truncate -s 17M $cloud/backup-000006.json
  $ mkfifo $cloud/backup-000007.json
  $ ln -s nowhere $cloud/backup-000008.json
  $ put_backup 9 "$(python3 -c 'print("{\"a\":" + "[\"]\"," * 300000 + "1" + "]" * 300000 + "}")')"
  $ put_backup 10 '{"key":"0","date":"1","value":"'"$(python3 -c 'print("[\\\"]\\\"," * 300000)')"'"}'
  $ ime-backupctl list
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  2   damaged: it is cut short
  3   damaged: it has been changed since it was written, or is cut short
  4   damaged: it is damaged, or was written by a later version of the backup service
  5   damaged: it is no record file
  6   damaged: it is larger than 16777216 bytes
  7   damaged: can't use WORK/state/cloud/backup-000007.json: it is no regular file
  8   can't be read: can't open WORK/state/cloud/backup-000008.json: No such file or directory
  9   damaged: record "" holds no snapshot
  10  damaged: it holds a record that parsers read in different ways
  $ for number in {2..10}; do echo "restore $number" | try_each; done | grep -v '^5.*is refused'
  3 ime-backupctl: backup 8 can't be read: can't open WORK/state/cloud/backup-000008.json: No such file or directory
  1 ime-backupctl: not restored: record ""
  $ echo 'show 3' | try_each
  5 ime-backupctl: backup 3 is damaged: it has been changed since it was written, or is cut short
  $ ime-backupctl settings | grep -o '^default_keyboard *kbd'
  default_keyboard                  kbd
  $ rm $cloud/backup-00000[2-9].json $cloud/backup-000010.json

Files with impossible numbers are named; the next backup gets the next number.

  $ cp whole $cloud/backup-9223372036854775807.json
  $ touch $cloud/backup-0000002.json $cloud/backup-000002.json.new $cloud/backup-x.json
  $ ime-backupctl list
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  ime-backupctl: backup-0000002.json is left out: no backup has this number
  ime-backupctl: backup-9223372036854775807.json is left out: no backup has this number
  $ ime-backupctl backup
  backup 2  DAY TIME
  $ printf 'restore %s\n' 9223372036854775807 | try_each
  4 ime-backupctl: there is no backup 9223372036854775807
  $ rm $cloud/backup-0000002.json $cloud/backup-922*

A keyboard's identifier may look like nested JSON, and is restored.

  $ ime-backupctl settings set default_keyboard "$(printf '[%.0s' {1..1010})"
  $ ime-backupctl backup
  backup 3  DAY TIME
  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl restore | tail -n 1
  backup 3  restored, except handwriting
  $ ime-backupctl settings | head -n 1 | grep -o '\[*' | wc -c
  1011
  $ ime-backupctl settings set default_keyboard kbd; ime-backupctl delete 3 >deleted

Text from a backup can't control a terminal or forge a line of the log: colours, line breaks and control
characters in UTF-8 are escaped. Only a pipe gets the text unchanged.

  $ evil='\u001b[2J\nbackup 9\u009b31m\u202e\u0007'
  $ put_backup 4 "$(record "$evil" "$evil" "$evil")"
  $ put_backup 5 "$(record '\u001b]0;' 1 '{"default_keyboard":"k\\u001b[2J"}')"
  $ ime-backupctl list | tail -n 2
  4   damaged: record "\x1b[2J\x0abackup 9\u009b31m\u202e\x07" holds no snapshot
  5   1970-01-01 00:00:00 UTC  AGE  k\x1b[2J  (not set)
  $ ime-backupctl show --json | cat -v
  {"default_keyboard":"k\u001b[2J"}
  $ script -qec 'ime-backupctl show --json; ime-backupctl list' /dev/null </dev/null | tidy
  {"default_keyboard":"k\\u001b[2J"}\r (esc)
  \x1b[1mid  time                     age      keyboard  languages\x1b[0m\r (esc)
  1   DAY TIME  AGE  kbd       en_US,ko_KR\r (esc)
  2   DAY TIME  AGE  kbd       en_US,ko_KR\r (esc)
  4   \x1b[33mdamaged: record "\\x1b[2J\\x0abackup 9\\u009b31m\\u202e\\x07" holds no snapshot\x1b[0m\r (esc)
  5   1970-01-01 00:00:00 UTC  AGE  k\\x1b[2J  (not set)\r (esc)
  $ sqlite3 $IME_BACKUP_HOST_DIR/settings.db "INSERT OR REPLACE INTO settings
  >     VALUES ('db/ise/engine/lpm/selected_lang', 'string', 'a' || char(27) || '[2Jb')"
  $ restore 4 | head -n 1; restore 5 | head -n 3
  record \x1b[2J\x0abackup 9\u009b31m\u202e\x07  failed
  setting           before     after
  default_keyboard  kbd        kbd        it could not be written
  selected_lang     a\x1b[2Jb  a\x1b[2Jb  not in the backup
  $ grep -F 2J $IME_BACKUP_HOST_DIR/service.log | tidy
  TIME I IME_BACKUP PID: ime_backup_service.cpp: __restore_record_cb(LINE) > * Info * value: [\x1b[2J\x0abackup 9\u009b31m\u202e\x07]
  liborvanta-cloud-svc: restore failed: not restored: record "\x1b[2J\x0abackup 9\u009b31m\u202e\x07"
  TIME I IME_BACKUP PID: ime_backup_service.cpp: __restore_record_cb(LINE) > * Info * value: [{"default_keyboard":"k\u001b[2J"}]
  $ LC_ALL=C grep -c $'[\x01-\x09\x0b-\x1f\x7f]\|\xc2[\x80-\x9f]\|\xe2\x80[\xaa-\xae]' $IME_BACKUP_HOST_DIR/service.log
  0
  [1]
