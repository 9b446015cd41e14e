  $ . "$TESTDIR/helpers"
  $ prepare() {
  >     ime-backupctl settings set default_keyboard kbd selected_lang de_DE,fr_FR downloaded_lang de_DE \
  >         downloaded_with_handwriting_lang de_DE handwriting on prediction off auto_space on auto_capitalize off \
  >         auto_punctuation on key_tap_sound off
  >     ime-backupctl settings unset key_tap_vib
  > }
  $ prepare; ime-backupctl settings >before

The host platform keeps all promises, and the check leaves the device unchanged.

  $ ime-backup-check >results
  $ head -n 3 results
  TAP version 14
  1..54
  ok 1 - dlog: __dlog_print() prints at each priority
  $ grep -v '^ok [0-9]* - [a-z-]*: [^#]*$' results
  TAP version 14
  1..54
  $ diff <(sed -n 's/^ok [0-9]* - //p' results) <(ime-backup-check --list)
  $ prove $(which ime-backup-check) | tail -n 1
  Result: PASS
  $ ime-backupctl settings | diff before -
  $ find $IME_BACKUP_HOST_DIR/opt -type f
  $ ime-backupctl status | grep exchange
  exchange files   fine  in WORK/state
  last exchange    fine  info succeeded

The check doesn't write settings that are not set, since the store can't unset them. --read-only writes nothing.

  $ IME_BACKUP_HOST_DIR=$WORK/empty ime-backup-check | grep -c '# SKIP too few'
  11
  $ IME_BACKUP_HOST_DIR=$WORK/empty ime-backupctl settings | grep -A 2 selected
  selected_lang                     (not set)
  handwriting                       (not set)
  prediction                        (not set)
  $ cp -r $IME_BACKUP_HOST_DIR copy
  $ ime-backup-check --read-only >results; wc -l <results
  36
  $ diff -r $IME_BACKUP_HOST_DIR copy

A platform that breaks a promise fails the check, which names the library.

  $ broken() { env BROKEN="$1" LD_PRELOAD=$BUILD/tests/libbroken-platform.so ime-backup-check "${@:2}"; }
  $ broken vconf:output --only 'vconf: vconf_get*missing'
  TAP version 14
  1..2
  not ok 1 - vconf: vconf_get_bool() of a missing key gives -1, and leaves its output untouched
    ---
    call: "vconf_get_bool(key, &value)"
    expected: "the output: 42"
    got: "the output: 0"
    means: "It would back up a switch that is not set as off, and it stands for on."
    ...
  ok 2 - vconf: vconf_get_str() of a missing key gives null
  [1]
  $ broken dlog:long --only 'long and odd' | sed '/^#/s/.*[0-9]: /# ... /'
  TAP version 14
  1..1
  not ok 1 - dlog: __dlog_print() prints long and odd texts
    ---
    call: "__dlog_print(DLOG_BUFFER_APPS, DLOG_PRIORITY_INFO, \"IME_BACKUP\", \"%s\", text.c_str())"
    expected: "a return"
    got: "death by SIGABRT"
    means: "It would crash on what a backup holds."
    ...
  # ... "
  # ... %s %n"
  # ... \\xff\\x0a\\x0d\\x1b[0m"
  $ grep -o 'breaks("[^"]*' $SOURCE/tests/e2e/broken_platform.cpp | cut -d '"' -f 2 | sort -u | grep -v :hang >promises
  $ wc -l <promises
  68
  $ while read -r promise; do
  >     prepare; broken $promise --only "${promise%:*}: " >results && echo "$promise is not found out"
  >     grep '^not ok' results | grep -v " - ${promise%:*}: "
  > done <promises
  [1]
  $ broken scim:flush | sed -n 's/^not ok [0-9]* - //p'
  scim: an integer that is written and flushed is read by each process
  scim: a boolean that is written and flushed is read by each process
  scim: reload() gives true, and leaves what was flushed

Values that can't be put back are named. A check that hangs or is interrupted ends.

  $ prepare; ime-backupctl settings | diff before -
  $ broken vconf:unstored --only 'vconf: a boolean replaces'
  TAP version 14
  1..1
  # vconf: not put back: "db/ise/engine/lpm/selected_lang" should be "\"de_DE#fr_FR#\"" and is "0"
  not ok 1 - vconf: a boolean replaces a text, and a text a boolean
    ---
    call: "vconf_get_bool(key, &value)"
    expected: "-1"
    got: "0"
    means: "It would read a switch from a text, or languages from a switch."
    ...
  [1]
  $ ime-backupctl settings get selected_lang
  false
  $ prepare
  $ broken vconf:hang --only 'vconf: a boolean replaces' | grep got; ime-backupctl settings | diff before -
    got: "none in 10 seconds"
  $ for signal in INT TERM HUP; do
  >     env --default-signal=INT BROKEN=vconf:hang LD_PRELOAD=$BUILD/tests/libbroken-platform.so \
  >         ime-backup-check --only 'vconf: a boolean replaces' >results & checks=$!
  >     while ime-backupctl settings | diff -q before - >/dev/null; do sleep 0.02; done
  >     kill -$signal $checks; wait $checks; echo $?; tail -n 1 results
  >     ime-backupctl settings | diff before -
  > done 2>/dev/null
  130
  Bail out! Interrupted by SIGINT
  143
  Bail out! Interrupted by SIGTERM
  129
  Bail out! Interrupted by SIGHUP

Wrong arguments are explained.

  $ for arguments in --list --help --version '--only no-such-check' --only --nothing extra; do
  >     ime-backup-check $arguments >output 2>errors; echo "$? $(wc -l <output) $(head -n 1 errors)"
  > done
  0 54 
  0 14 
  0 1 
  2 0 ime-backup-check: no check matches; "ime-backup-check --list" lists them
  2 0 ime-backup-check: option '--only' requires an argument
  2 0 ime-backup-check: unrecognized option '--nothing'
  2 0 ime-backup-check: unexpected argument "extra"
  $ ime-backup-check >/dev/full
  ime-backup-check: can't write to standard output
  [3]
