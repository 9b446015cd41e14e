  $ . "$TESTDIR/helpers"
  $ service=$BUILD/libexec/ime-backup-service
  $ operation=http://orvanta.com/appcontrol/operation/orvanta_cloud
  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl settings set prediction off
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ cp -r $IME_BACKUP_HOST_DIR whole
  $ all_commands() { printf '%s\n' backup restore settings "settings set prediction on"; }

A daemon that does not answer within SCIM_SOCKET_TIMEOUT milliseconds, then a daemon that isn't running.

  $ export SCIM_SOCKET_TIMEOUT=300
  $ signal_scim STOP
  $ ime-backupctl backup
  ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) does not answer
  Start a SCIM daemon with: SCIM_LAUNCHER -d -c simple -e none -f socket
  [3]
  $ all_commands | try_each
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) does not answer
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) does not answer
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) does not answer
  0 
  $ signal_scim CONT; unset SCIM_SOCKET_TIMEOUT
  $ stop_scim
  $ all_commands | try_each
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) isn't running
  0 
  $ echo info | try_each
  0 
  $ $service $operation/backup 2>&1 | tidy | tail -n 4
  TIME I IME_BACKUP PID: ime_backup_service.cpp: __backup_prepare_cb(LINE) > * Info * ==== __backup_prepare_cb ====
  TIME I IME_BACKUP PID: ime_backup_service.cpp: __backup_get_keys_dates_cb(LINE) > * Info * ==== __backup_get_keys_dates_cb ====
  liborvanta-cloud-svc: backup failed: the SCIM daemon (at local:WORK/scim/socket) isn't running
  TIME E IME_BACKUP PID: ime_backup_service.cpp: __backup_completed_cb(LINE) > * Critical * __backup_completed_cb() failed.
  $ ime-backupctl list
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  $ start_scim

A settings store that is damaged, of another kind or of a later version: no defaults are backed up, and nothing
is restored.

  $ store=$IME_BACKUP_HOST_DIR/settings.db
  $ try() {
  >     command ime-backupctl backup 2>&1 | tidy | head -n 1 | sed 's/.*used: //'
  >     all_commands | try_each | cut -c 1 | paste -sd ' '
  >     rm -rf $store*
  >     cp whole/settings.db* $IME_BACKUP_HOST_DIR
  > }
  $ change() { sqlite3 $store "$1"; try; }
  $ change 'DROP TABLE settings'
  no such table: settings
  3 3 3 3
  $ change "INSERT OR REPLACE INTO settings VALUES ('db/ise/hand_write', 'bool', 'maybe')"
  it is damaged
  3 3 3 0
  $ maybe="INSERT OR REPLACE INTO settings VALUES ('db/ise/hand_write', 'string', 'maybe')"
  $ sqlite3 $store "$maybe"; ime-backupctl status | grep '^settings store'; change "$maybe"
  settings store   NOT FINE  the settings store holds a value of another type under db/ise/hand_write. Set it again with: ime-backupctl settings set handwriting VALUE
  ime-backupctl: the settings store holds a value of another type under db/ise/hand_write
  3 0 0 0
  $ change 'DROP TABLE settings; CREATE TABLE settings (name, text)'
  no such column: type
  3 3 3 3
  $ change 'PRAGMA user_version = 2'
  it was made by a later version
  3 3 3 3
  $ sqlite3 $store 'PRAGMA wal_checkpoint(TRUNCATE)' >checkpoint
  > dd if=/dev/urandom of=$store bs=4096 seek=1 count=1 conv=notrunc status=none; try
  database disk image is malformed
  3 3 3 3
  $ rm -f $store-*; truncate -s 0 $store; try
  it is not a settings store
  3 3 3 3
  $ rm $store*; sqlite3 $store 'CREATE TABLE songs (title)'; try
  it is not a settings store
  3 3 3 3
  $ rm $store*; mkfifo $store; try
  it is not a regular file
  3 3 3 3
  $ ime-backupctl list | tail -n 1
  1   DAY TIME  AGE  kbd       en_US,ko_KR

A store that another program locks for too long can be backed up, but not restored to.

  $ coproc sqlite3 $store
  $ echo "BEGIN EXCLUSIVE; SELECT 'locked';" >&${COPROC[1]}; read -r <&${COPROC[0]}; echo $REPLY
  locked
  $ printf '%s\n' backup '--timeout 1 restore' '--timeout 1 settings set prediction on' | try_each
  0 
  124 ime-backupctl: another process that holds the settings store did not finish in time
  124 ime-backupctl: another process that holds the settings store did not finish in time
  $ eval "exec ${COPROC[1]}>&-"; wait

State that can't be used, and state in another place.

  $ echo >file
  $ IME_BACKUP_HOST_DIR=file/state try_each <<<backup
  3 ime-backupctl: can't make the folder HERE/file/state: Not a directory
  $ IME_BACKUP_HOST_DIR=/proc/state/root try_each <<<info
  3 ime-backupctl: can't make the folder /proc/state/root: No such file or directory
  $ (mkdir gone; cd gone; rmdir ../gone; IME_BACKUP_HOST_DIR=state try_each <<<backup)
  3 ime-backupctl: can't make the path state absolute: No such file or directory
  $ (mkdir gone; cd gone; rmdir ../gone; IME_BACKUP_CLOUD_STORE=store try_each <<<list)
  3 ime-backupctl: can't make the path store absolute: No such file or directory
  $ IME_BACKUP_CLOUD_STORE=/proc/store try_each <<<backup
  3 ime-backupctl: can't make the folder /proc/store: No such file or directory
  $ IME_BACKUP_CLOUD_STORE=file try_each <<<list
  3 ime-backupctl: can't list the folder HERE/file: Not a directory
  $ IME_BACKUP_CLOUD_STORE=file://$PWD/store try_each <<<backup
  3 ime-backupctl: the cloud store file://HERE/store can't be used: it must be a folder's path, or rclone:REMOTE:PATH
  $ for name in service.log exchange.lock cloud/.lock; do
  >     mv $IME_BACKUP_HOST_DIR/$name kept; mkfifo $IME_BACKUP_HOST_DIR/$name
  >     echo backup | try_each
  >     mv kept $IME_BACKUP_HOST_DIR/$name
  > done
  3 ime-backupctl: can't use WORK/state/service.log: it is not a regular file
  3 ime-backupctl: can't use WORK/state/exchange.lock: it is not a regular file
  3 ime-backupctl: can't use WORK/state/cloud/.lock: it is not a regular file; move it away, and a new one is made
  $ IME_BACKUP_CLOUD_STORE='a store' ime-backupctl backup
  backup 1  DAY TIME
  $ IME_BACKUP_CLOUD_STORE="$PWD/a store" ime-backupctl list
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  $ IME_BACKUP_HOST_DIR= XDG_STATE_HOME=$PWD/xdg ime-backupctl info
  record 0  DAY TIME
  $ IME_BACKUP_HOST_DIR= ime-backupctl info
  record 0  DAY TIME
  $ ls -d xdg/ime-backup/exchange.lock ~/.local/state/ime-backup/exchange.lock | tidy
  WORK/.local/state/ime-backup/exchange.lock
  xdg/ime-backup/exchange.lock

Several commands at once, and a full disk (here, a limit on the size of files). Each change is made whole or not at
all.

  $ for i in {1..5}; do command ime-backupctl backup >made$i & done; wait; cut -c 1-8 made? | sort | paste -sd ,
  backup 3,backup 4,backup 5,backup 6,backup 7
  $ ime-backupctl settings set selected_lang $(printf 'xx_%s,' {1..5000})
  $ (trap '' XFSZ; ulimit -f 97; try_each <<<backup)
  1 ime-backupctl: can't write WORK/state/opt/usr/apps/com.orvanta.ime-backup-service/shared/trusted/backup.dat: File too large
  $ try_each <<<backup; ime-backupctl list | cut -c 1-8 | tail -n 2
  0 
  7   DAY 
  8   DAY 

The SCIM daemon's disk is full: the daemon reports success and truncates its file. Repeating the command mends it.

  $ stop_scim; (trap '' XFSZ; start_scim)
  $ limit_file() { prlimit --pid $(cat $WORK/scim.pid) --fsize=$1:unlimited; }
  $ ime-backupctl settings set default_keyboard kbd auto_space on key_tap_sound on
  $ ime-backupctl backup
  backup 9  DAY TIME
  $ ime-backupctl settings set default_keyboard other auto_space off
  $ keys() { cut -d = -f 1 $SCIM_HOME/.scim/config; }; keys >keys
  $ limit_file 50; printf '%s\n' 'settings set auto_space on' restore | try_each | sed 's/, [0-9]* other/, MANY other/'
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) did not write all of WORK/scim/.scim/config, which lacks keyloom/auto_spacing_val, MANY other keys; free space on its disk, and do this again before the daemon ends
  3 ime-backupctl: the SCIM daemon (at local:WORK/scim/socket) did not write all of WORK/scim/.scim/config, which lacks /DefaultIMEngineFactory/~other, keyloom/auto_capitalization_val, keyloom/auto_punctuate_val, keyloom/auto_spacing_val, keyloom/key_sounds_val, keyloom/key_vibration_val; free space on its disk, and do this again before the daemon ends
  $ limit_file unlimited; try_each <<<restore; keys | diff keys - | grep -c '<'
  0 
  0
  [1]
  $ limit_file 50; try_each <<<undo | cut -c 1-40; limit_file unlimited; try_each <<<undo; keys | diff keys -
  3 ime-backupctl: the SCIM daemon (at loc
  0 
  $ stop_scim; start_scim; ime-backupctl settings | grep -E 'keyboard|space'
  default_keyboard                  other
  auto_space                        true

A service that never finishes and ignores SIGTERM; then a waiting service whose launcher is killed.

  $ printf '%s\n' '#!/bin/sh' "trap '' TERM" 'echo $$ >pid' 'while :; do sleep 0.05; done' >stubborn
  $ printf '%s\n' '#!/bin/sh' 'echo $$ >pid' "exec $service unknown" >waiting
  $ chmod +x stubborn waiting
  $ is_gone() { for _ in {1..200}; do grep -q '^State:.[^Z]' /proc/$(cat pid)/status 2>/dev/null || return 0; sleep 0.05; done; return 1; }
  $ try_each <<<"--timeout 0.3 --service $PWD/stubborn info"; is_gone
  124 ime-backupctl: the service did not finish in time and was stopped; no setting was changed
  $ rm pid; command ime-backupctl --service $PWD/waiting info & disown; until [[ -s pid ]]; do sleep 0.05; done
  $ kill -KILL $!; is_gone

A request to the session bus starts the service, which makes a backup and ends. Without a request, it ends, too.

  $ export operation bus=com.orvanta.ime-backup-service
  $ call_bus() { gdbus call --session -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.$1 $bus $2; }
  $ ends() { for _ in {1..200}; do call_bus NameHasOwner | grep -q false && return; sleep 0.05; done; return 1; }
  $ export -f call_bus ends
  $ on_bus() { XDG_DATA_DIRS=$BUILD/share dbus-run-session -- bash -c "$1" 2>bus.log; }
  $ on_bus 'gapplication launch $bus $operation/backup && ends'
  $ ime-backupctl list | tail -n 1 | cut -c 1-8
  10  DAY 
  $ on_bus 'call_bus StartServiceByName 0 && call_bus NameHasOwner && ends'
  (uint32 1,)
  (true,)

Only the owner can read the files that are made. A log that has grown too large is renamed.

  $ umask 022; export IME_BACKUP_HOST_DIR=$PWD/new
  $ ime-backupctl settings set default_keyboard kbd
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ truncate -s 2M new/service.log
  $ ime-backupctl restore >restored
  $ $service $operation/backup 2>log
  $ find new -perm /077
  $ ls -A new new/cloud | paste -sd ' '
  new: cloud exchange.lock history.jsonl opt service.log service.log.1 settings.db settings.db.lock  new/cloud: .lock backup-000001.json backup-000002.json
