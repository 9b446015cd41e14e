  $ . "$TESTDIR/helpers"
  $ untimed() { sed -E 's/  [0-9]+ µs$//; s/1[0-9]{12}/DATE/; s/"us":[0-9]+/"us":N/; s/ > .u001b[^*]*/ > /; s/.u001b.*"$/"/; s/\([0-9]+\) >/(LINE) >/' | tidy; }
  $ ime-backupctl settings set default_keyboard kbd

Each call stands below the callback that made it; the outcome goes to standard error.

  $ command ime-backupctl trace info 2>errors | untimed | sed "s#$BUILD#BUILD#"
  service_app_main(["BUILD/libexec/ime-backup-service", "http://orvanta.com/appcontrol/operation/orvanta_cloud/get_backup_info"], null) {
    callback create(null) = true
    callback app_control(app_control#1, null) {
      orvanta_cloud_initialize() = 0
      app_control_get_operation(app_control#1, &"http://orvanta.com/appcontrol/operation/orvanta_cloud/get_backup_info") = 0
      app_control_create(&app_control#2) = 0
      orvanta_cloud_backup_record_set_preparation_cb(callback, null) = 0
      orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(callback, null) = 0
      orvanta_cloud_backup_record_set_completed_cb(callback, null) = 0
      app_control_reply_to_launch_request(app_control#2, app_control#1, 0) = 0
      app_control_destroy(app_control#2) = 0
    }
    callback preparation() {
      log 4 "IME_BACKUP" "ime_backup_service.cpp: __backup_prepare_cb(LINE) > * Info * ==== __backup_prepare_cb ===="
      orvanta_cloud_backup_record_send_preparation_completed_response(1) = 0
    }
    callback sending_keys_and_dates() {
      log 4 "IME_BACKUP" "ime_backup_service.cpp: __backup_get_keys_dates_cb(LINE) > * Info * ==== __backup_get_keys_dates_cb ===="
      orvanta_cloud_list_create(&list#1) = 0
      orvanta_cloud_record_create(&record#1) = 0
      orvanta_cloud_record_set_key(record#1, "0") = 0
      orvanta_cloud_record_set_date(record#1, "DATE") = 0
      orvanta_cloud_list_add(list#1, record#1) = 0
      orvanta_cloud_backup_record_send_keys_and_dates(list#1, 1) = 0
      orvanta_cloud_list_destroy(list#1) = 0
    }
    callback completed(1) {
      service_app_exit()
    }
    callback terminate(null) {
      orvanta_cloud_deinitialize() = 0
    }
  } = 0
  $ tidy <errors
  record 0  DAY TIME

A call that is made to fail does not reach the library. The trace shows how the service goes on.

  $ command ime-backupctl trace backup --fail vconf_get_str --fail 'isf_control_get_active_ime#1=-3' 2>errors | untimed | grep -E 'made to fail|failed'
      isf_control_get_active_ime(&) = -3  made to fail
      log 6 "IME_BACKUP" "ime_backup_service.cpp: __backup_record_cb(LINE) > * Critical * _ime_backup_get_json_value() failed"
      log 6 "IME_BACKUP" "ime_backup_service.cpp: __backup_completed_cb(LINE) > * Critical * __backup_completed_cb() failed."
  $ tidy <errors | head -n 1
  ime-backupctl: record "0" has no value: the settings could not be read
  $ command ime-backupctl trace backup --fail scim::ConfigModule::create_config --json 2>errors | grep 'made_to_fail":true' | untimed
  {"event":"call","depth":2,"callback":false,"function":"scim::ConfigModule::create_config","arguments":{"module":"module#1"},"written":[],"result":null,"made_to_fail":true,"us":N,"thread":null}
  $ tidy <errors | head -n 1
  ime-backupctl: record "0" has no value: the settings could not be read
  $ command ime-backupctl trace backup --fail orvanta_cloud_backup_record_set_backup_cb=0 2>&1 >/dev/null | head -n 1
  ime-backupctl: the service asked for another exchange: info
  $ ime-backupctl list
  ime-backupctl: there is no backup yet: WORK/state/cloud is made by the first one

Scripts get one object per line, with the manual's members and unchanged texts.

  $ ime-backupctl settings set default_keyboard 'k"\é😀'
  $ command ime-backupctl trace backup --json 2>/dev/null >lines; python3 - >members <<'END'
  > import json
  > lines = [json.loads(line) for line in open("lines")]
  > print(*sorted({member for line in lines for member in line}), sep="\n")
  > keyboards = [line["arguments"]["identifier"] for line in lines if line.get("function", "").startswith("isf_")]
  > assert keyboards == ['k"\\é😀'], keyboards
  > END
  $ grep -c . members
  13
  $ while read -r member; do man -l $BUILD/share/man/man1/ime-backupctl.1 | grep -qw -- "$member" || echo $member; done <members

The trace distinguishes callbacks and calls on other threads, and shows what a failing call has set nevertheless.

  $ threads() { THREADS=1 LD_PRELOAD=$BUILD/tests/libliar.so:$BUILD/tests/libforeign-vconf.so command ime-backupctl trace backup "$@" 2>/dev/null; }
  $ threads >lines
  $ grep thread lines | sed -E 's/[0-9]+ µs  //; s/[0-9]+$/N/; s/#[0-9]+/#N/; s/".*IME.*"/MESSAGE/' | sort | uniq -c
        1     log 4 MESSAGE  on thread N
        1     orvanta_cloud_backup_record_send_preparation_completed_response(1) = 0  on thread N
        1   callback preparation() {  on thread N
      200   vconf_get_bool("no key", &0 (written)) = -1  on thread N
      200   vconf_keylist_free(keylist#N) = 0  on thread N
      200   vconf_keylist_new() = keylist#N  on thread N
        1   }  on thread N
  $ grep -o '= keylist#.* ' lines | sort | uniq -d
  $ threads --json | python3 -c '
  > import json, sys
  > lines = [json.loads(line) for line in sys.stdin]
  > print(sorted({(line["function"], *line["arguments"].values()) for line in lines if line.get("written") == ["value"]}))
  > print(len({line["thread"] for line in lines}), len({line["thread"] for line in lines if line["depth"] == 2}))'
  [('vconf_get_bool', 'db/ise/engine/prediction_val', 0), ('vconf_get_bool', 'no key', 0)]
  4 2

A trace from another machine can be compared, without times, handles, threads and line numbers.

  $ ime-backupctl settings set default_keyboard kbd selected_lang ko_KR
  $ trace() { command ime-backupctl trace "$@" 2>errors; }
  $ trace backup >lines
  $ sed -E '1s/\[.*\]/["other"]/; 1i\can not open(display)' lines | sed -E 's/([0-9]+ µs|made to fail)$/7 µs  on thread 7/
  >     s/#[0-9]+/#77/g; s/"1[0-9]{12}"/"7"/; s/\([0-9]+\) >/(7) >/; s/$/\r/' >elsewhere
  $ trace --compare elsewhere
  the same 50 calls
  $ sed '/hand_write/d; s/= "ko_KR#"/= "en_US#"/; s/completed(1)/completed(0)/' elsewhere | tee other | trace backup --compare -
  --- -
  +++ here
   service_app_main([...], null) {
  ...
     callback backup(list) {
  ...
       vconf_get(keylist, "db/ise/engine/lpm/selected_lang", 0) = 0
       vconf_keylist_lookup(keylist, "db/ise/engine/lpm/selected_lang", &keynode) = 0
  -    vconf_keynode_get_str(keynode) = "en_US#"
  +    vconf_keynode_get_str(keynode) = "ko_KR#"
       vconf_keylist_free(keylist) = 0
  +    vconf_get_bool("db/ise/hand_write", &) = -1
       log 6 "IME_BACKUP" "ime_backup_service_json_writer.cpp: _ime_backup_get_json_value(LINE) > \u001b[0;31m* Critical * Failed to get VCONFKEY_ISE_HANDWRITING_VAL\u001b[0;m"
       vconf_get_bool("db/ise/engine/prediction_val", &) = -1
  ...
       orvanta_cloud_list_destroy(list) = 0
     }
  -  callback completed(0) {
  +  callback completed(1) {
       service_app_exit()
     }
  [1]
  $ trace --compare other --json | python3 -c '
  > import json, sys
  > document = json.load(sys.stdin)
  > print(document["succeeded"], document["calls"], *document["differences"][2:], sep="\n")'
  True
  50
  {'callback': 'backup', 'from': None, 'to': 'vconf_get_bool("db/ise/hand_write", &) = -1'}
  {'callback': None, 'from': 'callback completed(0) {', 'to': None}
  {'callback': None, 'from': None, 'to': 'callback completed(1) {'}
  $ for exchange in info restore; do trace $exchange >other; trace --compare other; done
  the same 25 calls
  the same 45 calls
  $ trace backup --json >json; cat lines lines >twice; head -n 3 lines >cut
  $ try_each <<'END'
  > trace --compare nowhere
  > trace --compare json
  > trace --compare twice
  > trace --compare cut
  > trace restore --compare lines
  > trace --compare lines --service false
  > trace --compare lines --fail orvanta_cloud_record_set_value
  > END
  3 ime-backupctl: nowhere can't be compared: No such file or directory
  2 ime-backupctl: json holds no trace in text
  2 ime-backupctl: twice holds the traces of several exchanges
  2 ime-backupctl: cut does not tell its exchange: name backup, restore or info
  2 ime-backupctl: lines is the trace of another exchange: backup
  3 ime-backupctl: the service gave no result of an exchange (exit status 1); nothing on the device had been changed by then
  3 ime-backupctl: record "0" has no value: the settings could not be read

If nobody reads the trace, the exchange still finishes.

  $ (sleep 0.2; command ime-backupctl trace backup; echo $? >status) 2>errors | head -n 0; cat status; tidy <errors
  1
  backup 9  DAY TIME
  ime-backupctl: can't write to standard output: some of it is lost
  $ ime-backupctl -q trace info
