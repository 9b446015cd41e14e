  $ . "$TESTDIR/helpers"
  $ prepare() {
  >     ime-backupctl settings set default_keyboard kbd selected_lang de_DE,fr_FR downloaded_lang de_DE \
  >         downloaded_with_handwriting_lang de_DE handwriting on prediction off auto_space on auto_capitalize off \
  >         auto_punctuation on key_tap_sound off
  >     ime-backupctl settings unset key_tap_vib
  > }
  $ prepare; ime-backupctl settings >before

The host platform keeps all promises, and the device is unchanged afterwards.

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

Unset keys are not written, since the store can't unset them again. --read-only writes nothing.

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

Each broken promise is detected, and its library is named.

  $ broken() { env BROKEN="$1" LD_PRELOAD=$BUILD/tests/libbroken-platform.so ime-backup-check "${@:2}"; }
  $ broken vconf:output --only 'vconf: vconf_get*missing'
  TAP version 14
  1..2
  not ok 1 - vconf: vconf_get_bool() returns -1 for a missing key, and leaves its output untouched
    ---
    call: "vconf_get_bool(key, &value)"
    expected: "the output: 42"
    got: "the output: 0"
    means: "The service would back up an unset switch as off, although an unset switch is on."
    ...
  ok 2 - vconf: vconf_get_str() returns null for a missing key
  [1]
  $ broken dlog:long --only 'long and unusual' | sed '/^#/s/.*[0-9]: /# ... /'
  TAP version 14
  1..1
  not ok 1 - dlog: __dlog_print() prints long and unusual texts
    ---
    call: "__dlog_print(DLOG_BUFFER_APPS, DLOG_PRIORITY_INFO, \"IME_BACKUP\", \"%s\", text.c_str())"
    expected: "a return"
    got: "killed by SIGABRT"
    means: "The service would crash on a text in a backup."
    ...
  # ... "
  # ... %s %n"
  # ... \\xff\\x0a\\x0d\\x1b[0m"
  $ grep -o 'breaks("[^"]*' $SOURCE/tests/e2e/broken_platform.cpp | cut -d '"' -f 2 | sort -u | grep -v :hang >promises
  $ wc -l <promises
  68
  $ while read -r promise; do
  >     prepare; broken $promise --only "${promise%:*}: " >results && echo "$promise is not detected"
  >     grep '^not ok' results | grep -v " - ${promise%:*}: "
  > done <promises
  [1]
  $ broken scim:flush | sed -n 's/^not ok [0-9]* - //p'
  scim: every process can read an integer that was written and flushed
  scim: every process can read a boolean that was written and flushed
  scim: reload() returns true, and keeps flushed values

A value that can't be put back is named. A check that hangs is ended. An interrupted check puts values back.

  $ prepare; ime-backupctl settings | diff before -
  $ broken vconf:unstored --only 'vconf: a boolean replaces'
  TAP version 14
  1..1
  # vconf: not put back: "db/ise/engine/lpm/selected_lang" should be "\"de_DE#fr_FR#\"" but is "0"
  not ok 1 - vconf: a boolean replaces a text, and a text replaces a boolean
    ---
    call: "vconf_get_bool(key, &value)"
    expected: "-1"
    got: "0"
    means: "The service would read a switch from a text, or languages from a switch."
    ...
  [1]
  $ ime-backupctl settings get selected_lang
  false
  $ prepare
  $ broken vconf:hang --only 'vconf: a boolean replaces' | grep got; ime-backupctl settings | diff before -
    got: "no return in 10 seconds"
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

Wrong usage.

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
