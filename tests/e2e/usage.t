  $ . "$TESTDIR/helpers"

What is asked for makes no sense, or can't be used; the service is not launched.

  $ ime-backupctl 2>&1 >/dev/null | head -n 2
  Backs up and restores the settings of the on-screen keyboard.
  Usage: ime-backupctl [OPTIONS] [SUBCOMMAND]
  $ try_each <<'END'
  > backdown
  > backup 1
  > --verbos backup
  > restore ''
  > settings set prediction
  > settings set prediction perhaps
  > settings set predictio on
  > settings set selected_lang $'\xff'
  > settings set default_keyboard ''
  > settings set default_keyboard $'a\nb'
  > --service '' info
  > END
  2 The following argument was not expected: backdown
  2 The following argument was not expected: 1
  2 The following argument was not expected: --verbos
  2 ID: it is empty
  2 VALUE is required
  2 ime-backupctl: "perhaps" is neither true nor false
  2 ime-backupctl: there is no setting "predictio"; there are default_keyboard, selected_lang, handwriting, prediction, auto_space, auto_capitalize, auto_punctuation, key_tap_sound, key_tap_vib, downloaded_lang, downloaded_with_handwriting_lang
  2 ime-backupctl: the value is no UTF-8 text
  2 ime-backupctl: no input method can have this identifier
  2 ime-backupctl: no input method can have this identifier
  2 --service: it is empty
  $ for seconds in 0 0.09 -1 +5 1e3 0x10 NaN inf 86401 '' ' 5' 5s 0.0001; do
  >     echo "--timeout '$seconds' info" | try_each
  > done | sort -u | sed 's/: [^:]*$//' | uniq -c
       13 2 --timeout: not between 0.1 and 86400 seconds
  $ test -e $IME_BACKUP_HOST_DIR
  [1]
  $ ime-backupctl info --timeout 5.5
  record 0  DAY TIME
  $ try_each <<'END'
  > --service /nonexistent info
  > --service false info
  > restore
  > END
  3 ime-backupctl: can't start the service: Failed to execute child process \xe2\x80\x9c/nonexistent\xe2\x80\x9d (No such file or directory) (esc)
  1 ime-backupctl: the service gave no result of an exchange (exit status 1); nothing on the device had been changed by then
  1 ime-backupctl: there is no backup yet in WORK/state/cloud
  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl backup
  backup 1  DAY TIME  431 bytes
  $ for id in 0 -1 x 18446744073709551617; do echo "show $id" | try_each; done
  1 ime-backupctl: there is no backup 0
  1 ime-backupctl: there is no backup -1
  1 ime-backupctl: there is no backup x
  1 ime-backupctl: there is no backup 18446744073709551617

Help and versions.

  $ ime-backupctl --help | grep -A 9 Subcommands
  Subcommands:
    backup                      Make a backup
    restore                     Restore the newest backup, or the one named
    info                        Show the keys and dates of what a backup would hold
    list                        List the backups, newest last
    show                        Show the snapshot in the newest backup, or in the one named
    settings                    Show the settings as they are now, or change one
  
  Exit status: 0 done, 1 failed, 2 wrong usage, 3 the platform isn't there, 130 interrupted.
  
  $ ime-backupctl settings set --help | head -n 2
  Change a setting
  Usage: ime-backupctl settings set [OPTIONS] NAME VALUE
  $ ime-backupctl --version
  0.1.0
  $ service=$BUILD/libexec/ime-backup-service
  $ $service --version
  0.1.0
  $ $service --help
  Usage: ime-backup-service [OPERATION]
  Takes part in a backup or a restore of the on-screen keyboard's settings. OPERATION is a URI such as
  http://orvanta.com/appcontrol/operation/orvanta_cloud/backup (or .../restore, .../get_backup_info).
  With a session bus, it goes to the instance that runs already. Without one that is known, the service
  waits until SIGTERM. The cloud backup client starts it: on a workstation, that is ime-backupctl.
  $ $service --hel
  ime-backup-service: there is no option --hel; see --help
  [2]

Standard output that is full or closed: what could not be said is not said to be done.

  $ ime-backupctl settings set selected_lang $(printf 'xx_%s,' {1..500})
  $ ime-backupctl backup
  backup 2  DAY TIME  12775 bytes
  $ for command in show list settings info --help --version backup restore; do
  >     command ime-backupctl $command 2>&1 >/dev/full | head -c 45; echo " $command: ${PIPESTATUS[0]}"
  > done
  ime-backupctl: can't write to standard output show: 1
  ime-backupctl: can't write to standard output list: 1
  ime-backupctl: can't write to standard output settings: 1
  ime-backupctl: can't write to standard output info: 1
  ime-backupctl: can't write to standard output --help: 1
  ime-backupctl: can't write to standard output --version: 1
  ime-backupctl: can't write to standard output backup: 1
  ime-backupctl: can't write to standard output restore: 1
  $ command ime-backupctl list >&-
  ime-backupctl: can't write to standard output: Bad file descriptor
  [1]
  $ $service --help >/dev/full
  [1]

Nor does a closed descriptor end up in a file of the device's state.

  $ command ime-backupctl settings set prediction on <&- >&- 2>&-; echo $?
  0
  $ command ime-backupctl settings <&- 2>&- >&-; echo $?
  1
  $ command ime-backupctl -v backup <&- 2>&- | tidy
  backup 4  DAY TIME  12776 bytes
  $ command ime-backupctl backup <&- 2>&- >&-; echo $?
  1
  $ $service http://orvanta.com/appcontrol/operation/orvanta_cloud/backup <&- 2>&- >&-; echo $?
  0
  $ ime-backupctl list | tail -n 3
  backup 4  DAY TIME  12776 bytes
  backup 5  DAY TIME  12776 bytes
  backup 6  DAY TIME  12776 bytes
  $ ime-backupctl settings | grep -o '^prediction *[a-z]*'
  prediction        true
