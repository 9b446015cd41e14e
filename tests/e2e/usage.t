  $ . "$TESTDIR/helpers"

Wrong usage is reported before the service is started.

  $ ime-backupctl 2>&1 >/dev/null | head -n 2
  Backs up and restores the settings of the on-screen keyboard.
  
  $ try_each <<'END'
  > backdown
  > backup 1
  > --verbos backup
  > restore ''
  > settings set prediction
  > settings set prediction perhaps
  > settings set predictio on
  > settings set selected_lang $'\xff'
  > settings set selected_lang 'en_US ko_KR'
  > settings set selected_lang en_US#
  > settings set prediction on key_tap_vib
  > settings unset
  > settings gt prediction
  > list --josn
  > restroe
  > RESTORE --josn
  > remove 1
  > prune --kep 3
  > help restroe
  > prune
  > prune --keep x
  > prune --keep 1 --keep-within 1y
  > diff 1 2 3
  > delete
  > settings set default_keyboard ''
  > settings set default_keyboard $'a\nb'
  > --service '' info
  > trace
  > trace backup --fail vconf_get_bol
  > trace info --fail vconf_get#0
  > trace info --fail vconf_get=0x1
  > settings set
  > export 1
  > info --timeout
  > list --store --json
  > list --json=1
  > prune --keep 1 --keep=2
  > list --timeot=5
  > list -qx
  > list -- --json
  > END
  2 ime-backupctl: unknown command "backdown"
  2 ime-backupctl: unexpected argument "1"
  2 ime-backupctl: unknown option "--verbos"; did you mean --verbose?
  2 ime-backupctl: ID: must not be empty
  2 ime-backupctl: prediction requires a value
  2 ime-backupctl: "perhaps" is neither true nor false
  2 ime-backupctl: unknown setting "predictio"; did you mean prediction?
  2 ime-backupctl: the value is not UTF-8 text
  2 ime-backupctl: "en_US ko_KR" is not a language such as en_US; separate languages with commas
  2 ime-backupctl: "en_US#" is not a language such as en_US; separate languages with commas
  2 ime-backupctl: key_tap_vib requires a value
  2 ime-backupctl: NAME is required
  2 ime-backupctl: unknown command "gt"; did you mean get?
  2 ime-backupctl: unknown option "--josn"; did you mean --json?
  2 ime-backupctl: unknown command "restroe"; did you mean restore?
  2 ime-backupctl: unknown command "RESTORE"; did you mean restore?
  2 ime-backupctl: unknown command "remove"; did you mean delete?
  2 ime-backupctl: unknown option "--kep"; did you mean --keep?
  2 ime-backupctl: unknown command "restroe"; did you mean restore?
  2 ime-backupctl: no rule is given: use one of --keep, --keep-within, --keep-daily, --keep-weekly, --keep-monthly
  2 ime-backupctl: --keep: not a number of backups: x
  2 ime-backupctl: --keep-within: not an age such as 12h or 30d (m, h, d or w): 1y
  2 ime-backupctl: diff takes at most two backups
  2 ime-backupctl: ID is required
  2 ime-backupctl: default_keyboard: no input method can have this identifier
  2 ime-backupctl: an identifier can't contain control characters
  2 ime-backupctl: --service: must not be empty
  2 ime-backupctl: trace requires an exchange: backup, restore or info
  2 ime-backupctl: --fail: unknown function "vconf_get_bol"; did you mean vconf_get_bool?
  2 ime-backupctl: --fail: not FUNCTION, FUNCTION#N, FUNCTION=CODE or FUNCTION#N=CODE: vconf_get#0
  2 ime-backupctl: --fail: not FUNCTION, FUNCTION#N, FUNCTION=CODE or FUNCTION#N=CODE: vconf_get=0x1
  2 ime-backupctl: NAME VALUE is required
  2 ime-backupctl: FILE is required
  2 ime-backupctl: --timeout requires a value
  2 ime-backupctl: --store requires a value
  2 ime-backupctl: --json takes no value
  2 ime-backupctl: --keep is given twice
  2 ime-backupctl: unknown option "--timeot"; did you mean --timeout?
  2 ime-backupctl: unknown option "-qx"
  2 ime-backupctl: unexpected argument "--json"
  $ for seconds in 0 0.09 -1 +5 1e3 0x10 NaN inf 86401 '' ' 5' 5s 0.0001; do
  >     echo "--timeout '$seconds' info" | try_each
  > done | sort -u | sed 's/: [^:]*$//' | uniq -c
       13 2 ime-backupctl: --timeout: not between 0.1 and 86400 seconds
  $ test -e $IME_BACKUP_HOST_DIR
  [1]
  $ ime-backupctl -qv info --timeout=5.5 2>/dev/null
  $ ime-backupctl info --timeout 5.5
  record 0  DAY TIME
  $ try_each <<'END'
  > --service /nonexistent info
  > --service false info
  > restore
  > END
  3 ime-backupctl: can't start the service /nonexistent: No such file or directory
  1 ime-backupctl: the service ended without a result (exit status 1); no setting was changed
  4 ime-backupctl: there is no backup yet in WORK/state/cloud
  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ for id in 0 -1 x '[1,2]' 18446744073709551617; do echo "show $id" | try_each; done
  4 ime-backupctl: there is no backup 0
  4 ime-backupctl: there is no backup -1
  4 ime-backupctl: there is no backup x
  4 ime-backupctl: there is no backup [1,2]
  4 ime-backupctl: there is no backup 18446744073709551617

Help and versions. Each command's help is at most 80 columns wide and has an example that works.

  $ commands() { command ime-backupctl complete -- "$@" '' | grep -v '^[0-9]*$'; }
  $ each_help() { echo --help; commands | sed 's/$/ --help/'; for c in settings trace; do commands $c | sed "s/.*/$c & --help/"; done; }
  $ each_help | wc -l
  27
  $ each_help | xargs -L 1 ime-backupctl >help; grep -E '.{81}|[A-Z]+:[A-Z]|^$' help | sort -u
  
  $ grep -c '^Example: ime-backupctl ' help
  27
  $ ime-backupctl help settings set
  Change settings.
  
  Usage: ime-backupctl settings set [OPTION]... NAME VALUE...
  
  A switch takes true or false (also on or off, yes or no, 1 or 0), a list takes
  languages separated by commas, and default_keyboard takes an input method's
  identifier.
  
  Arguments:
    NAME VALUE              A setting, and its new value
  
  Options of all commands:
    --json                  Write one JSON document, for scripts
    -q, --quiet             Write nothing but errors
    -v, --verbose           Show the service's log as it runs
    --timeout SECONDS       How long to wait for the service, or for a remote
                            store (default: 30)
    --store LOCATION        Where the backups are: a folder, or a remote place
                            such as rclone:s3:desk (default: cloud in the state
                            folder)
    --service PROGRAM       The service's program
    -h, --help              Show help
    --version               Show the version
  
  Example: ime-backupctl settings set selected_lang en_US,ko_KR key_tap_sound off
  $ ime-backupctl help | head -n 12
  Backs up and restores the settings of the on-screen keyboard.
  
  Usage: ime-backupctl [OPTION]... COMMAND [ARGUMENT]...
  
  Backups:
    backup                  Make a backup
    restore                 Restore a backup (default: the newest)
    undo                    Revert a restore or a change of settings
    list                    List the backups, newest last
    show                    Show the settings in a backup (default: the newest)
    diff                    Compare a backup with the device or another backup
    log                     Show what each backup changed
  $ for text in IME_BACKUP_CLOUD_STORE downloaded_lang '^  124'; do ime-backupctl --help | grep -c -- "$text"; done
  1
  1
  1
  $ ime-backupctl --version
  0.1.0
  $ service=$BUILD/libexec/ime-backup-service
  $ $service --version
  0.1.0
  $ $service --help
  Usage: ime-backup-service [OPERATION]
  Takes part in a backup or a restore of the on-screen keyboard's settings.
  OPERATION is a URI such as
  http://orvanta.com/appcontrol/operation/orvanta_cloud/backup
  (or .../restore, .../get_backup_info). If an instance already runs on the
  session bus, it gets the operation. Without a known operation, the service
  waits until SIGTERM. The cloud backup client starts the service: on a
  workstation, ime-backupctl.
  $ $service --hel
  ime-backup-service: unknown option "--hel"; see --help
  [2]

Completion offers commands, options, settings and their values, backups, and files.

  $ . "$SOURCE/ctl/ime-backupctl.bash"
  $ completed() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _ime_backupctl; echo "${COMPREPLY[*]}"; }
  $ while read -r line; do eval "completed ime-backupctl $line"; done <<'END'
  > re
  > restore ''
  > restore --d
  > restore 1 --s
  > --timeout 5 dif
  > diff 1 ''
  > settings ''
  > trace ''
  > trace restore --fail vconf_keyn
  > list --store ''
  > prune --keep ''
  > settings set pre
  > settings set prediction ''
  > settings set prediction true key_tap_s
  > settings unset down
  > export ''
  > export 1 ''
  > help pr
  > nonsense ''
  > END
  restore
  latest 1
  --dry-run
  --strict --store --service
  diff
  latest 1
  get set unset dump load
  backup restore info
  vconf_keynode_get_str
  
  
  prediction
  true false
  key_tap_sound
  downloaded_lang downloaded_with_handwriting_lang
  latest 1
  
  prune
  

The manuals have no faults, and describe each member of the documents.

  $ manual=$BUILD/share/man/man1/ime-backupctl.1 service_manual=$BUILD/share/man/man8/ime-backup-service.8
  $ for page in $BUILD/share/man/man?/*; do
  >     mandoc -T lint -W warning $page; groff -ww -mdoc -Tutf8 -z $page; man --warnings -l $page 2>&1 >/dev/null
  > done
  $ for command in backup 'restore --dry-run' 'undo --dry-run' history list diff info status 'prune --keep 9'; do
  >     ime-backupctl $command --json
  > done | sed -En 's/^ *"([a-z]+)":.*/\1/p' | sort -u | while read -r member; do
  >     grep -qw -- "$member" <(man -l $manual | sed -n '/^JSON/,/^[EF]/p') || echo "$member is not in the manual"
  > done
  $ grep -o 'http[^"]*' $SOURCE/platform/include/orvanta_cloud_operations.h | while read -r operation; do
  >     grep -c -- "$operation\$" $service_manual
  > done
  1
  1
  1

ime-backupctl works with almost no environment, as from a timer or cron. It names the paths that it uses.

  $ XDG_RUNTIME_DIR=$PWD MANPATH=$BUILD/share/man systemd-analyze verify --user $BUILD/lib/systemd/user/*
  $ bare() { env -i ${ASAN_OPTIONS:+ASAN_OPTIONS=$ASAN_OPTIONS LSAN_OPTIONS=$LSAN_OPTIONS} "$@"; }
  $ bare $BUILD/bin/ime-backupctl status | grep -oE 'local:[^)]*|[^ ]*/ime-backup/cloud' |
  >     sed "s#^$(getent passwd $(id -u) | cut -d : -f 6)/#~/#"
  local:/tmp/scim-socket-frontend
  ~/.local/state/ime-backup/cloud
  $ bare HOME=$PWD SCIM_SOCKET_ADDRESS=$SCIM_SOCKET_ADDRESS $BUILD/bin/ime-backupctl backup | cut -c 1-8
  backup 1

Standard output is full or closed: lost output is reported as a failure.

  $ ime-backupctl settings set selected_lang $(printf 'xx_%s,' {1..500})
  $ ime-backupctl backup
  backup 3  DAY TIME
  $ for command in show list settings info --help --version backup restore "show --json"; do
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
  ime-backupctl: can't write to standard output show --json: 1
  $ command ime-backupctl info >&-
  ime-backupctl: can't write to standard output: Bad file descriptor
  [1]
  $ $service --help >/dev/full
  [1]

A closed standard descriptor is not reused for a file of the device's state.

  $ command ime-backupctl settings set prediction on <&- >&- 2>&-; echo $?
  0
  $ command ime-backupctl settings <&- 2>&- >&-; echo $?
  1
  $ command ime-backupctl -v backup <&- 2>&- | tidy
  backup 5  DAY TIME
  $ command ime-backupctl backup <&- 2>&- >&-; echo $?
  1
  $ $service http://orvanta.com/appcontrol/operation/orvanta_cloud/backup <&- 2>&- >&-; echo $?
  0
  $ ime-backupctl list | tail -n 3 | cut -c 1-25
  5   DAY TIME  AGE  kbd   
  6   DAY TIME  AGE  kbd   
  7   DAY TIME  AGE  kbd   
  $ ime-backupctl settings | grep -o '^prediction *[a-z]*'
  prediction                        true
