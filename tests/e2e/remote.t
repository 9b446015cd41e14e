  $ . "$TESTDIR/helpers"
  $ start_remote() { # PROTOCOL [PORT]
  >     mkdir -p $WORK/remote; : >$WORK/remote.log
  >     rclone serve $1 $WORK/remote --addr 127.0.0.1:${2-0} --user me --pass right --dir-cache-time 0s >$WORK/remote.log 2>&1 &
  >     echo $! >$WORK/remote.pid; disown
  >     until port=$(grep -o '127.0.0.1:[0-9]*' $WORK/remote.log | cut -d : -f 2 | grep .); do sleep 0.02; done
  > }
  $ start_remote webdav 2>/dev/null
  $ touch $RCLONE_CONFIG
  $ for remote in "dav $port right" "wrong $port wrong" "away 1 right"; do
  >     read -r name to password <<<$remote
  >     rclone config create --obscure $name webdav url http://127.0.0.1:$to vendor other user me pass $password
  > done >created
  $ rclone config create --obscure safe crypt remote dav:safe password secret >>created
  $ export IME_BACKUP_CLOUD_STORE='rclone:dav:a "desk" * $x/--b'
  $ folder="$WORK/remote/${IME_BACKUP_CLOUD_STORE#rclone:dav:}"

A remote store behaves like a folder.

  $ ime-backupctl settings set default_keyboard kbd downloaded_lang en_US,ko_KR
  $ printf '%s\n' list show 'import /dev/null' | try_each
  3 ime-backupctl: the cloud store rclone:dav:a "desk" * $x/--b does not exist; "ime-backupctl backup" makes it
  4 ime-backupctl: there is no backup yet in rclone:dav:a "desk" * $x/--b
  3 ime-backupctl: the cloud store rclone:dav:a "desk" * $x/--b does not exist; "ime-backupctl backup" makes it
  $ ime-backupctl backup
  backup 1  DAY TIME
  $ ime-backupctl backup --if-changed
  backup 1 holds the same settings; nothing was stored
  $ ime-backupctl settings set auto_space off
  $ ime-backupctl diff
  setting     backup 1  device
  auto_space  true      false
  [1]
  $ ime-backupctl restore 1 | tail -n 1
  backup 1  restored, except handwriting
  $ ime-backupctl show 1 | head -n 2
  default_keyboard  kbd
  selected_lang     en_US,ko_KR
  $ ime-backupctl export 1 file; cmp file "$folder/backup-000001.json"
  backup 1  written to file
  $ ime-backupctl import file
  backup 2  imported
  $ sed s/kbd/KBD/ file >"$folder/backup-000003.json"; truncate -s 17M "$folder/backup-000004.json"
  $ ime-backupctl verify
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  2   DAY TIME  AGE  kbd       en_US,ko_KR
  3   damaged: it has been changed since it was written, or is cut short
  4   damaged: it is larger than 16777216 bytes
  4 backups, 2 damaged, 0 unreadable
  [1]
  $ printf '%s\n' 'show 3' 'show 4' 'show 5' 'restore 3' | try_each
  5 ime-backupctl: backup 3 is damaged: it has been changed since it was written, or is cut short
  5 ime-backupctl: backup 4 is damaged: it is larger than 16777216 bytes
  4 ime-backupctl: there is no backup 5
  5 ime-backupctl: backup 3 is refused: it has been changed since it was written, or is cut short
  $ ime-backupctl status | grep cloud
  cloud store      fine    rclone:dav:a "desk" * $x/--b, 4 backups
  $ ime-backupctl prune --keep 1
  kept                           by
  2     DAY TIME  newest
  4                              newest
  backup 1  deleted
  backup 3  deleted

A number is never reused. Other files are not overwritten, deleted or listed as backups.

  $ ime-backupctl delete 4 2; ls "$folder"; ime-backupctl import file
  backup 2  deleted
  backup 4  deleted
  backup-000004.json.gone
  backup 5  imported
  $ touch "$folder"/{backup-01.json,backup-99999999999999999999.json,backup-1.json.xyz.new,other.gone}
  $ mkdir "$folder/backup-000006.json"; touch -d '3 days ago' "$folder/backup-000007.json.0123456789abcdef.new"
  $ ime-backupctl import file; ime-backupctl delete 8; ls "$folder"; ime-backupctl list
  backup 8  imported
  backup 8  deleted
  backup-000005.json
  backup-000006.json
  backup-000008.json.gone
  backup-01.json
  backup-1.json.xyz.new
  backup-99999999999999999999.json
  other.gone
  id  time  age  keyboard  languages
  5   DAY TIME  AGE  kbd       en_US,ko_KR
  ime-backupctl: backup-01.json is ignored: its number is not valid
  ime-backupctl: backup-99999999999999999999.json is ignored: its number is not valid
  $ rm -r "$folder"/*{01,9}.json "$folder"/backup-000006.json "$folder"/*.{new,gone}

Commands that need no store don't run rclone. Commands that read all backups run it once.

  $ for i in 6 7 8 9; do cp file "$folder/backup-00000$i.json"; done
  $ rclone=$(which rclone); mkdir bin
  $ rclone_does() { printf '#!/bin/bash\necho $* >>%q; %s\nexec %s "$@"' $PWD/runs "$1" $rclone >bin/rclone; chmod +x bin/rclone; : >runs; }
  $ rclone_does
  $ for command in settings info undo 'complete restore --' list verify 'prune --keep 3 --dry-run' status 'diff 6'; do
  >     PATH=$PWD/bin:$PATH ime-backupctl -q $command >said; echo "$command: $(wc -l <runs)"; : >runs
  > done
  settings: 0
  info: 0
  undo: 0
  complete restore --: 0
  list: 2
  verify: 2
  prune --keep 3 --dry-run: 2
  status: 5
  diff 6: 2
  $ IME_BACKUP_CLOUD_STORE= ime-backupctl complete -- --store = rclone : dav : 'a "desk" * $x/--b' show ''
  latest
  5
  6
  7
  8
  9

A listing decides whether rclone succeeded, not rclone's exit status.

  $ for lie in 'head -c 9 | $rclone rcat "${@: -1}"; exit' '$rclone "$@"; exit 1'; do
  >     [[ $lie == head* ]] && step=rcat || step=moveto
  >     rclone_does "rclone=$rclone; [[ \$* != *\ $step\ * ]] || { $lie; }"; PATH=$PWD/bin:$PATH ime-backupctl import file
  > done
  ime-backupctl: the cloud store rclone:dav:a "desk" * $x/--b does not return what was stored in it
  backup 10  imported
  $ ls "$folder" | tail -n 2
  backup-000009.json
  backup-000010.json

  $ lie_and() { PATH=$PWD/bin:$PATH ime-backupctl "$@"; }
  $ rclone_does '[[ $* != *cat*/backup-000006.json && $* != *\ copy\ * ]] || { echo 503 Service Unavailable >&2; exit 1; }'
  $ lie_and prune --keep 1
  kept                           by
  6                              unreadable
  10    DAY TIME  newest
  backup 5  deleted
  backup 7  deleted
  backup 8  deleted
  backup 9  deleted
  ime-backupctl: backup 6 can't be read: 503 Service Unavailable; unreadable backups are kept
  [1]
  $ rclone_does '[[ $* != *\ delete\ * ]] || exit 0'; lie_and delete 6 --json | paste -s
  ime-backupctl: deleted, but still listed in rclone:dav:a "desk" * $x/--b: backup 6
  {\t  "deleted": [],\t  "kept": [\t    6,\t    10\t  ]\t} (esc)
  $ rclone_does '[[ $* != *\ delete\ * ]] || : >gone; [[ $* != *lsf* || ! -e gone ]] || exit 3'; lie_and delete 6 --json | paste -s
  ime-backupctl: can't tell which backups were deleted: rclone:dav:a "desk" * $x/--b has disappeared
  {\t  "deleted": [],\t  "kept": []\t} (esc)
  $ rclone_does '[[ $* != *rcat* ]] || { echo 403 Forbidden >&2; exit 1; }'; lie_and status | grep ^cloud
  cloud store      NOT FINE  the cloud store rclone:dav:a "desk" * $x/--b can't be used: 403 Forbidden. Mend the fault and try again, or set IME_BACKUP_CLOUD_STORE to another place

Variables with flags for the user's own calls of rclone are ignored. Variables that a remote may need reach rclone, also
from the service.

  $ rclone_does 'env >>seen'
  $ ( export DBUS_SESSION_BUS_ADDRESS=unix:path=/none RCLONE_BUFFER_SIZE=1M RCLONE_WEBDAV_USER=me
  >   export RCLONE_{EXCLUDE,FILTER,INCLUDE}=x RCLONE_{MIN,MAX}_AGE=1s RCLONE_MAX_DEPTH=1 RCLONE_FORMAT=ps RCLONE_DUMP=headers
  >   export RCLONE_FILES_ONLY=true RCLONE_HEAD=1 RCLONE_DRY_RUN=true RCLONE_LOG_FILE=$PWD/log RCLONE_BACKUP_DIR=dav:x RCLONE_RC=true
  >   lie_and list | cut -c 1-3; LD_PRELOAD=libutil.so.1 lie_and -q trace backup )
  id 
  10 
  $ ls . "$folder" | grep 'log\|000011'; grep -E '^(DBUS_SESSION_BUS_ADDRESS|LD_PRELOAD|RCLONE_.*|IME_BACKUP_TRACE.*)=' seen | grep -v 'TIMEOUT\|RETRIES\|_CONFIG' | sort -u
  backup-000011.json
  DBUS_SESSION_BUS_ADDRESS=unix:path=/none
  LD_PRELOAD=libutil.so.1
  RCLONE_BUFFER_SIZE=1M
  RCLONE_WEBDAV_USER=me

A remote that can't be used: rclone's reason is shown, and nothing is lost.

  $ for store in wrong:x away:x none:x none /a:b; do
  >     printf -- "--store rclone:$store %s\n" list backup | try_each
  > done | sed 's#127.0.0.1:[0-9]*#HOST#'
  1 ime-backupctl: the cloud store rclone:wrong:x can't be used: Failed to create file system for "wrong:x": read metadata failed: Unauthorized: 401 Unauthorized
  1 ime-backupctl: the cloud store rclone:wrong:x can't be used: Failed to create file system for "wrong:x": read metadata failed: Unauthorized: 401 Unauthorized
  1 ime-backupctl: the cloud store rclone:away:x can't be used: Failed to create file system for "away:x": read metadata failed: Propfind "http://HOST/x": dial tcp 127.0.0.1:1: connect: connection refused
  1 ime-backupctl: the cloud store rclone:away:x can't be used: Failed to create file system for "away:x": read metadata failed: Propfind "http://HOST/x": dial tcp 127.0.0.1:1: connect: connection refused
  1 ime-backupctl: the cloud store rclone:none:x can't be used: Failed to create file system for "none:x": didn't find section in config file
  1 ime-backupctl: the cloud store rclone:none:x can't be used: Failed to create file system for "none:x": didn't find section in config file
  3 ime-backupctl: the cloud store rclone:none can't be used: it must be a folder's path, or rclone:REMOTE:PATH
  3 ime-backupctl: the cloud store rclone:none can't be used: it must be a folder's path, or rclone:REMOTE:PATH
  3 ime-backupctl: the cloud store rclone:/a:b can't be used: it must be a folder's path, or rclone:REMOTE:PATH
  3 ime-backupctl: the cloud store rclone:/a:b can't be used: it must be a folder's path, or rclone:REMOTE:PATH
  $ mkdir path; ln -s $(which ime-backupctl) path; PATH=$PWD/path command ime-backupctl list
  ime-backupctl: a remote store needs the program rclone: apt-get install rclone
  [3]
  $ ime-backupctl --store rclone:away:x status | grep cloud | cut -c 1-80
  cloud store      NOT FINE  the cloud store rclone:away:x can't be used: Failed t
  last exchange    failed    backup on DAY TIME: the cloud store rclone:/a:b can't

A remote that hangs: every command ends in time, and on a signal.

  $ signal_daemon remote STOP
  $ printf -- '--timeout %s\n' '4 list' '4 backup' '4 restore 1' '0.5 status' | try_each | sed 's/:.*\(timeout\|deadline\).*/: ... timeout/'
  1 ime-backupctl: ... timeout
  1 ime-backupctl: ... timeout
  1 ime-backupctl: ... timeout
  3 
  $ rclone_does 'trap "" TERM INT'
  $ for command in 'import file' 'backup'; do
  >     : >runs; PATH=$PWD/bin:$PATH command ime-backupctl $command 2>errors &
  >     until [[ -s runs ]]; do sleep 0.01; done; kill $!; wait $!; echo "$? $(head -n 1 errors)"
  > done
  130 ime-backupctl: interrupted; the remote store may have carried out the request
  130 ime-backupctl: interrupted; "ime-backupctl list" shows whether the backup was stored
  $ signal_daemon remote CONT

Interrupted uploads, on either side, leave no backup and remove nothing.

  $ python3 -c 'print("{\"default_keyboard\":\"" + "k" * 1000000 + "\"}")' >large
  $ upload() {
  >     before=$(ls "$folder"); RCLONE_BWLIMIT=400k command ime-backupctl import large >said 2>errors &
  >     while [[ $(ls "$folder") == "$before" ]] && kill -0 $!; do sleep 0.02; done
  > }
  $ RCLONE_BWLIMIT=100k ime-backupctl --timeout 1 import large 2>&1 | tail -n 1
  ime-backupctl: rclone did not finish in time
  $ upload; stop_daemon remote; wait $!; echo "$? $(tail -n 1 errors | cut -c 1-70)"; start_remote webdav $port
  1 ime-backupctl: the cloud store rclone:dav:a "desk" * $x/--b can't be u
  $ upload; { kill -KILL $!; wait $!; } 2>/dev/null
  [137]
  $ upload; kill $!; wait $!; echo "$? $(tail -n 1 errors)"
  130 ime-backupctl: interrupted; the remote store may have carried out the request
  $ ime-backupctl list | cut -c 1-3 | paste -s
  id \t10 \t11  (esc)

Two devices share a path by mistake: each reported backup is there under its number.

  $ for device in 1 2; do
  >     printf '{"default_keyboard":"%s"}\n' $device >device-$device
  >     echo "device-$device $(command ime-backupctl import device-$device 2>errors.$device)" >said.$device &
  > done; wait; grep -v 'is missing$' errors.*
  [1]
  $ cat said.[12] | while read -r name backup number imported; do
  >     ime-backupctl show $number --json | cmp - $name && echo $name $imported
  > done
  device-1 imported
  device-2 imported

Of two uploads under one number, one gives way. Files that come and go beside a backup do not hide it.

  $ export rclone other=$WORK/remote/other; mkdir $other
  $ rclone_does 'there=$(ls $other/*.ffffffffffffffff.new); [[ $* != *\ lsf\ * || ! $there ]] || { $rclone "$@"; rm $there; exit; }
  >   [[ $* != *\ rcat\ * ]] || touch $other/$(basename "${@: -1}" | cut -d . -f 1,2).ffffffffffffffff.new'
  $ lie_and import --store rclone:dav:other file
  backup 1  imported
  $ rclone_does '[[ $* != *\ cat\ * ]] || { while kill -0 $$; do : >$other/a; rm $other/a; done & for _ in {1..6}; do $rclone "$@" >read; [[ -s read ]] || break; done; cat read; exit; }'
  $ lie_and import --store rclone:dav:other file
  backup 2  imported

An encrypted remote. A backup that can't be decrypted does not hide the others.

  $ export IME_BACKUP_CLOUD_STORE=rclone:safe:desk
  $ ime-backupctl backup; rclone copyto safe:desk/backup-000001.json safe:desk/backup-000002.json
  backup 1  DAY TIME
  $ grep -rl kbd $WORK/remote/safe; ls $WORK/remote/safe | grep desk
  [1]
  $ truncate -s 100 $WORK/remote/safe/$(rclone cryptdecode --reverse safe: desk/backup-000002.json | cut -f 2 | tr -d ' ')
  $ ime-backupctl verify
  id  time  age  keyboard  languages
  1   DAY TIME  AGE  kbd       en_US,ko_KR
  2   can't be read: Failed to cat: unexpected EOF
  2 backups, 0 damaged, 1 unreadable
  [3]

A remote by SFTP.

  $ stop_daemon remote; start_remote sftp
  $ rclone config create --obscure box sftp host 127.0.0.1 port $port user me pass right >created
  $ export IME_BACKUP_CLOUD_STORE=rclone:box:desk
  $ ime-backupctl backup; ime-backupctl restore 1 | tail -n 1; ime-backupctl delete 1; ls $WORK/remote/desk
  backup 1  DAY TIME
  backup 1  restored, except handwriting
  backup 1  deleted
  backup-000001.json.gone
  $ ls -d $TMPDIR/{ime-backup-*,rclone-*} 2>/dev/null
  [2]
