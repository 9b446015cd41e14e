#!/bin/sh
# A backup and a restore without the service: with the command-line tools of SCIM, SQLite and others, one value at a
# time. restore_at_once uses as few processes as possible with these tools.
#
# Usage: script.sh backup|restore|restore_at_once, with IME_BACKUP_HOST_DIR and IME_BACKUP_CLOUD_STORE set.
set -eu

ENGINE=/DefaultIMEngineFactory/~other
HEAD='{"format":"ime-backup-records","version":1,"sha256":"'
LANGUAGES=db/ise/engine/lpm/selected_lang
DOWNLOADED=db/ise/engine/lpm/downloaded_lang
WITH_HANDWRITING=db/ise/engine/lpm/downloaded_with_handwriting_lang

database() { sqlite3 "$IME_BACKUP_HOST_DIR/settings.db" "$1"; }
get_stored() { database "SELECT value FROM settings WHERE key = '$1'"; }
store() { database "INSERT OR REPLACE INTO settings VALUES ('$2', '$1', '$3')"; }
get() { scim-config-agent -c socket -t "$1" -g "$2"; }
put() { scim-config-agent -c socket -t "$1" -s "$2=$3" >/dev/null; }
checksum() { printf %s "$1" | sha256sum | cut -c 1-64; }
find_newest() { for file in "$IME_BACKUP_CLOUD_STORE"/backup-*.json; do :; done; }

backup() {
    keyboard=$(get string $ENGINE)
    languages=$(get_stored $LANGUAGES)
    handwriting=$(get_stored db/ise/hand_write)
    prediction=$(get_stored db/ise/engine/prediction_val)
    space=$(get int keyloom/auto_spacing_val)
    capitalize=$(get int keyloom/auto_capitalization_val)
    punctuation=$(get bool keyloom/auto_punctuate_val)
    sound=$(get int keyloom/key_sounds_val)
    vib=$(get int keyloom/key_vibration_val)
    records=$(jq -nc --arg keyboard "$keyboard" --arg languages "$languages" --arg date "$(date +%s%3N)" \
        --argjson handwriting "$handwriting" --argjson prediction "$prediction" --argjson space "$space" \
        --argjson capitalize "$capitalize" --argjson punctuation "$punctuation" --argjson sound "$sound" \
        --argjson vib "$vib" '{
            default_keyboard: $keyboard,
            selected_lang: ($languages | rtrimstr("#") / "#" | sort | map({lang_id: .})),
            handwriting: ($handwriting != 0),
            prediction: ($prediction != 0),
            auto_space: ($space != 0),
            auto_capitalize: ($capitalize != 0),
            auto_punctuation: $punctuation,
            key_tap_sound: ($sound != 0),
            key_tap_vib: ($vib != 0)
        } | [{key: "0", date: $date, value: tojson}]')
    find_newest
    number=$(basename "$file" .json)
    number=${number#backup-}
    number=${number#"${number%%[!0]*}"} # leading zeros would make it octal
    [ "$number" = '*' ] && number=0
    file=$(printf '%s/backup-%06d.json' "$IME_BACKUP_CLOUD_STORE" $((number + 1)))
    printf '%s%s","records":%s}' "$HEAD" "$(checksum "$records")" "$records" >"$file.new"
    sync "$file.new"
    mv "$file.new" "$file"
    sync "$IME_BACKUP_CLOUD_STORE"
}

read_records() {
    find_newest
    content=$(cat "$file")
    records=${content#"$HEAD"*'","records":'}
    records=${records%\}}
    [ "$content" = "$HEAD$(checksum "$records")\",\"records\":$records}" ]
}

member() { printf %s "$snapshot" | jq -r "$1"; }
number() { if [ "$(member "$1")" = true ]; then echo 1; else echo 0; fi; }

restore() {
    read_records
    snapshot=$(printf %s "$records" | jq -r '.[-1].value')
    downloaded=$(get_stored $DOWNLOADED)
    with_handwriting=$(get_stored $WITH_HANDWRITING)
    languages=
    handwriting=0
    for language in $(member '.selected_lang[].lang_id'); do
        case $downloaded in
        *"$language"*) languages=$languages$language# ;;
        *) continue ;;
        esac
        case $with_handwriting in
        *"$language"*) handwriting=$(number .handwriting) ;;
        esac
    done
    put string $ENGINE "$(member .default_keyboard)"
    store string $LANGUAGES "$languages"
    store bool db/ise/hand_write "$handwriting"
    store bool db/ise/engine/prediction_val "$(number .prediction)"
    put int keyloom/auto_spacing_val "$(number .auto_space)"
    put int keyloom/auto_capitalization_val "$(number .auto_capitalize)"
    put bool keyloom/auto_punctuate_val "$(member .auto_punctuation)"
    put int keyloom/key_sounds_val "$(number .key_tap_sound)"
    put int keyloom/key_vibration_val "$(number .key_tap_vib)"
}

restore_at_once() {
    read_records
    downloaded=$(database "SELECT value FROM settings WHERE key IN ('$DOWNLOADED', '$WITH_HANDWRITING') ORDER BY key")
    values=$(printf %s "$records" | jq -r --arg downloaded "$downloaded" '
        ($downloaded / "\n") as [$known, $written] | .[-1].value | fromjson |
        [.selected_lang[].lang_id | . as $one | select($known | contains($one))] as $selected |
        ($selected | any(. as $one | $written | contains($one))) as $handwriting |
        .default_keyboard, ($selected | map(. + "#") | add),
        (.handwriting and $handwriting, .prediction, .auto_space, .auto_capitalize, .key_tap_sound, .key_tap_vib
            | if . then 1 else 0 end),
        .auto_punctuation')
    # shellcheck disable=SC2086 # each value is one word
    set -- $values
    put string $ENGINE "$1"
    database "BEGIN; INSERT OR REPLACE INTO settings VALUES ('$LANGUAGES', 'string', '$2'),
        ('db/ise/hand_write', 'bool', '$3'), ('db/ise/engine/prediction_val', 'bool', '$4'); COMMIT"
    put int keyloom/auto_spacing_val "$5"
    put int keyloom/auto_capitalization_val "$6"
    put int keyloom/key_sounds_val "$7"
    put int keyloom/key_vibration_val "$8"
    put bool keyloom/auto_punctuate_val "$9"
}

"$1"
