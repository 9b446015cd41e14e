  $ . "$TESTDIR/helpers"
  $ flat() { tr -d ' \n' | sed -E 's/\},/},\n/g; s/20[-0-9]+T[0-9:.]+Z/TIME/g; s/:[0-9]{13}/:DATE/g'; echo; }

Each command gives scripts one JSON document.

  $ ime-backupctl settings set default_keyboard kbd downloaded_lang en_US,ko_KR handwriting on --json | flat
  {"succeeded":true,"reason":"","settings":[{"name":"default_keyboard","before":null,"after":"kbd"},
  {"name":"downloaded_lang","before":null,"after":["en_US","ko_KR"]},
  {"name":"handwriting","before":null,"after":true}]}
  $ ime-backupctl settings --json | flat
  {"default_keyboard":"kbd","selected_lang":null,"handwriting":true,"prediction":null,"auto_space":null,"auto_capitalize":null,"auto_punctuation":null,"key_tap_sound":null,"key_tap_vib":null,"downloaded_lang":["en_US","ko_KR"],"downloaded_with_handwriting_lang":null}
  $ ime-backupctl settings get downloaded_lang --json | flat
  {"downloaded_lang":["en_US","ko_KR"]}
  $ ime-backupctl info --json | flat
  {"succeeded":true,"reason":"","records":[{"key":"0","date":DATE}]}
  $ ime-backupctl backup --json | flat
  {"succeeded":true,"reason":"","backup":1,"stored":true}
  $ put_backup 2 "$(record a 1 '{"default_keyboard":7,"selected_lang":[{"lang_id":"ko_KR"},{"lang_id":"xx_XX"}],"auto_space":1}')"
  $ ime-backupctl restore --dry-run --json | flat | tee dry_run
  {"succeeded":true,"reason":"","backup":2,"dry_run":true,"records":[{"key":"0","failed":false}],"settings":[{"name":"default_keyboard","before":"kbd","wanted":null,"after":"kbd","why":"notinthebackup"},
  {"name":"selected_lang","before":["en_US","ko_KR"],"wanted":["ko_KR","xx_XX"],"after":["ko_KR"],"why":"xx_XXisnotdownloaded"},
  {"name":"handwriting","before":true,"wanted":null,"after":false,"why":"notinthebackup:switchedoff"},
  {"name":"prediction","before":null,"wanted":null,"after":false,"why":"notinthebackup:switchedoff"},
  {"name":"auto_space","before":null,"wanted":true,"after":true,"why":""},
  {"name":"auto_capitalize","before":null,"wanted":null,"after":false,"why":"notinthebackup:switchedoff"},
  {"name":"auto_punctuation","before":null,"wanted":null,"after":false,"why":"notinthebackup:switchedoff"},
  {"name":"key_tap_sound","before":null,"wanted":null,"after":false,"why":"notinthebackup:switchedoff"},
  {"name":"key_tap_vib","before":null,"wanted":null,"after":false,"why":"notinthebackup:switchedoff"}]}
  $ ime-backupctl restore --json | flat | diff dry_run - | grep -c '^>'
  1
  $ ime-backupctl diff 1 2 --json | flat
  {"from":1,"to":2,"differences":[{"name":"default_keyboard","from":"kbd","to":null},
  {"name":"selected_lang","from":["en_US","ko_KR"],"to":["ko_KR","xx_XX"]},
  {"name":"handwriting","from":true,"to":null},
  {"name":"prediction","from":true,"to":null},
  {"name":"auto_capitalize","from":true,"to":null},
  {"name":"auto_punctuation","from":true,"to":null},
  {"name":"key_tap_sound","from":true,"to":null},
  {"name":"key_tap_vib","from":true,"to":null}]}
  $ ime-backupctl undo --json | flat | tail -n 2
  {"name":"key_tap_sound","before":false,"after":null},
  {"name":"key_tap_vib","before":false,"after":null}]}
  $ put_backup 3 "$(record a 1 'no JSON')"
  $ ime-backupctl list --json | flat
  [{"id":1,"time":"TIME","size":431,"usable":true,"default_keyboard":"kbd","languages":2,"reason":""},
  {"id":2,"time":"1970-01-01T00:00:00.001Z","size":274,"usable":true,"default_keyboard":null,"languages":2,"reason":""},
  {"id":3,"time":null,"size":172,"usable":false,"default_keyboard":null,"languages":null,"reason":"record\"a\"holdsnosnapshot"}]
  $ ime-backupctl restore --json 2>/dev/null | flat | head -n 2
  {"succeeded":false,"reason":"notrestored:record\"a\"","backup":3,"dry_run":false,"records":[{"key":"a","failed":true}],"settings":[{"name":"default_keyboard","before":"kbd","wanted":null,"after":"kbd","why":"norecordwasapplied"},
  {"name":"selected_lang","before":["en_US","ko_KR"],"wanted":null,"after":["en_US","ko_KR"],"why":"norecordwasapplied"},
  $ ime-backupctl show 2 --json
  {"default_keyboard":7,"selected_lang":[{"lang_id":"ko_KR"},{"lang_id":"xx_XX"}],"auto_space":1}
  $ ime-backupctl export 1 file --json | flat
  {"succeeded":true,"reason":"","backup":1}
  $ ime-backupctl help undo --json | flat | cut -c 1-40
  {"help":"Putbackwhatarestore,orachangeof
  $ ime-backupctl delete 2 --json | flat
  {"deleted":[2],"kept":[1,3]}
  $ ime-backupctl status --json | flat | tidy
  [{"what":"scim","fine":true,"found":"theSCIMdaemonanswers(SCIM_SOCKET_ADDRESS,local:WORK/scim/socket)","do":""},
  {"what":"keyboard","fine":true,"found":"kbd","do":""},
  {"what":"settings_store","fine":true,"found":"inWORK/state","do":""},
  {"what":"exchange","fine":true,"found":"inWORK/state","do":""},
  {"what":"cloud_store","fine":true,"found":"WORK/state/cloud,2backups","do":""},
  {"what":"last_exchange","fine":false,"found":"restoreofbackup3onDAYTIME:notrestored:record\"a\"","do":"SeeWORK/state/service.log"}]

A failure is in the document and on standard error; without a result, there is no document.

  $ for command in 'restore 9' 'import nowhere' 'settings unset mood' 'show 9' '--timeout 0.1 --service sleep info' 'restore 1 --strict'; do
  >     ime-backupctl $command --json | flat; echo "[${PIPESTATUS[0]}]"
  > done
  ime-backupctl: there is no backup 9
  "ime-backupctl list" shows those there are, "ime-backupctl backup" makes one.
  {"succeeded":false,"reason":"thereisnobackup9","backup":null,"dry_run":false,"records":[],"settings":[]}
  [4]
  ime-backupctl: nowhere can't be imported: No such file or directory
  {"succeeded":false,"reason":"nowherecan'tbeimported:Nosuchfileordirectory","backup":null,"stored":false}
  [1]
  ime-backupctl: there is no setting "mood"; there are default_keyboard, selected_lang, handwriting, prediction, auto_space, auto_capitalize, auto_punctuation, key_tap_sound, key_tap_vib, downloaded_lang, downloaded_with_handwriting_lang
  
  [2]
  ime-backupctl: there is no backup 9
  "ime-backupctl list" shows those there are, "ime-backupctl backup" makes one.
  
  [4]
  ime-backupctl: the service gave no result of an exchange (exit status 1); nothing on the device had been changed by then
    sleep: invalid time interval 'http://orvanta.com/appcontrol/operation/orvanta_cloud/get_backup_info'
    Try 'sleep --help' for more information.
  The service's log is WORK/state/service.log
  {"succeeded":false,"reason":"theservicegavenoresultofanexchange(exitstatus1);nothingonthedevicehadbeenchangedbythen","records":[]}
  [1]
  {"succeeded":true,"reason":"","backup":1,"dry_run":false,"records":[{"key":"0","failed":false}],"settings":[{"name":"default_keyboard","before":"kbd","wanted":"kbd","after":"kbd","why":""},
  {"name":"selected_lang","before":["en_US","ko_KR"],"wanted":["en_US","ko_KR"],"after":["en_US","ko_KR"],"why":""},
  {"name":"handwriting","before":true,"wanted":true,"after":false,"why":"norestoredlanguagecanbewrittenbyhand"},
  {"name":"prediction","before":null,"wanted":true,"after":true,"why":""},
  {"name":"auto_space","before":null,"wanted":true,"after":true,"why":""},
  {"name":"auto_capitalize","before":null,"wanted":true,"after":true,"why":""},
  {"name":"auto_punctuation","before":null,"wanted":true,"after":true,"why":""},
  {"name":"key_tap_sound","before":null,"wanted":true,"after":true,"why":""},
  {"name":"key_tap_vib","before":null,"wanted":true,"after":true,"why":""}]}
  [1]
  $ stop_scim
  $ for command in backup 'restore 1' undo settings diff status; do
  >     ime-backupctl $command --json 2>/dev/null | flat | tidy | head -n 2; echo "[${PIPESTATUS[0]}]"
  > done
  {"succeeded":false,"reason":"theSCIMdaemon(atlocal:WORK/scim/socket)isn'trunning","backup":null,"stored":false}
  [3]
  {"succeeded":false,"reason":"theSCIMdaemon(atlocal:WORK/scim/socket)isn'trunning","backup":1,"dry_run":false,"records":[],"settings":[]}
  [3]
  {"succeeded":false,"reason":"theSCIMdaemon(atlocal:WORK/scim/socket)isn'trunning","entry":8,"dry_run":false,"settings":[]}
  [3]
  
  [3]
  
  [5]
  [{"what":"scim","fine":false,"found":"theSCIMdaemon(atlocal:WORK/scim/socket)isn'trunning","do":"ASCIMdaemonisstartedwith:SCIM_LAUNCHER-d-csimple-enone-fsocket"},
  {"what":"keyboard","fine":false,"found":"notknownwithouttheSCIMdaemon","do":"StarttheSCIMdaemon"},
  [3]
  $ start_scim

Only errors are printed.

  $ for command in backup 'restore 1' undo list 'verify 1' 'show 1' 'diff 1' settings 'settings get prediction' info status 'export 1 file' \
  >     'import file' 'prune --keep 9' 'delete 1' 'list --json' 'restore 99'; do
  >     ime-backupctl -q $command
  > done
  ime-backupctl: there is no backup 99
  "ime-backupctl list" shows those there are, "ime-backupctl backup" makes one.
  [4]

On a terminal a table fits, with remarks below the lines that they are too long for; colour is for a terminal alone.

  $ ime-backupctl settings set default_keyboard 0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0 selected_lang de_DE,ko_KR downloaded_lang ko_KR handwriting on
  $ ime-backupctl backup
  backup 6  DAY TIME
  $ on_terminal() { script -qec "stty cols 80; ime-backupctl $*" /dev/null </dev/null | tr -d '\r' | tidy; }
  $ on_terminal restore
  \x1b[1msetting           before                          after\x1b[0m (esc)
  default_keyboard  0f1e2d3c-4b5a-69c8-87d6-a5b4c\xe2\x80\xa6  0f1e2d3c-4b5a-69c8-87d6-a5b4c\xe2\x80\xa6 (esc)
  selected_lang     de_DE,ko_KR                     ko_KR
      \x1b[33mde_DE is not downloaded\x1b[0m (esc)
  handwriting       true                            false
      \x1b[33mno restored language can be written by hand\x1b[0m (esc)
  prediction        (not set)                       true
  auto_space        (not set)                       true
  auto_capitalize   (not set)                       true
  auto_punctuation  (not set)                       true
  key_tap_sound     (not set)                       true
  key_tap_vib       (not set)                       true
  backup 6  restored, except selected_lang, handwriting
  $ NO_COLOR=1 on_terminal status | tail -n 4
  settings store   fine  in WORK/state
  exchange files   fine  in WORK/state
  cloud store      fine  WORK/state/cloud, 4 backups
  last exchange    fine  restore of backup 6 succeeded
  $ for command in list verify settings\ --long diff 'restore --dry-run' status; do NO_COLOR=1 on_terminal $command; done | LC_ALL=C.UTF-8 grep -E '.{81}'
  [1]

Commands that only read create nothing, and report problems.

  $ export IME_BACKUP_HOST_DIR=$PWD/fresh
  $ for command in status settings 'settings get prediction' list verify show 'diff 1' 'delete 1' 'prune --keep 1'; do
  >     command ime-backupctl $command >/dev/null 2>&1; test -e fresh && ls -R fresh
  > done
  [1]
  $ mkdir -p fresh/exchange.lock; ln -s nowhere fresh/cloud; ime-backupctl status | tail -n 3
  exchange files   NOT FINE  can't open HERE/fresh/exchange.lock: Is a directory. Move away what is in the way, or set IME_BACKUP_HOST_DIR to another folder
  cloud store      NOT FINE  can't write in HERE/fresh/cloud. Set IME_BACKUP_CLOUD_STORE to a place that you can write in
  last exchange    NOT FINE  can't open HERE/fresh/exchange.lock: Is a directory. Move it away
  $ rmdir fresh/exchange.lock; ime-backupctl status | tail -n 1
  last exchange    fine      none yet
