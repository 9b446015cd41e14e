#!/bin/sh
# What one would do without the service: a backup and a restore in a script, with the tools that SCIM, SQLite and
# others bring. It reads and writes the same as the floor does, with one process for each thing to do.
# Usage: script.sh backup|restore, with IME_BACKUP_HOST_DIR and IME_BACKUP_CLOUD_STORE set.
set -eu

engine=/DefaultIMEngineFactory/~other
head='{"format":"ime-backup-records","version":1,"sha256":"'

database() { sqlite3 "$IME_BACKUP_HOST_DIR/settings.db" "$1"; }
get() { scim-config-agent -c socket -t "$1" -g "$2"; }
set_value() { scim-config-agent -c socket -t "$1" -s "$2=$3" >/dev/null; }
checksum() { printf %s "$1" | sha256sum | cut -c 1-64; }
# In the order of their numbers, newest last.
find_newest() { for file in "$IME_BACKUP_CLOUD_STORE"/backup-*.json; do :; done; }

backup() {
    keyboard=$(get string $engine)
    stored=$(database "SELECT value FROM settings WHERE key = 'db/ise/engine/lpm/selected_lang';
        SELECT value FROM settings WHERE key = 'db/ise/hand_write';
        SELECT value FROM settings WHERE key = 'db/ise/engine/prediction_val'")
    space=$(get int keyloom/auto_spacing_val)
    capitalize=$(get int keyloom/auto_capitalization_val)
    punctuation=$(get bool keyloom/auto_punctuate_val)
    sound=$(get int keyloom/key_sounds_val)
    vib=$(get int keyloom/key_vibration_val)
    records=$(jq -nc --arg keyboard "$keyboard" --arg stored "$stored" --arg date "$(date +%s%3N)" \
        --argjson space "$space" --argjson capitalize "$capitalize" --argjson punctuation "$punctuation" \
        --argjson sound "$sound" --argjson vib "$vib" '
        ($stored / "\n") as [$languages, $handwriting, $prediction] |
        {
            default_keyboard: $keyboard,
            selected_lang: ($languages | rtrimstr("#") / "#" | sort | map({lang_id: .})),
            handwriting: ($handwriting == "1"),
            prediction: ($prediction == "1"),
            auto_space: ($space != 0),
            auto_capitalize: ($capitalize != 0),
            auto_punctuation: $punctuation,
            key_tap_sound: ($sound != 0),
            key_tap_vib: ($vib != 0)
        } | [{key: "0", date: $date, value: tojson}]')
    find_newest
    number=$(basename "$file" .json)
    number=${number#backup-}
    number=${number#"${number%%[!0]*}"} # else it would be octal
    [ "$number" = '*' ] && number=0
    file=$(printf '%s/backup-%06d.json' "$IME_BACKUP_CLOUD_STORE" $((number + 1)))
    printf '%s%s","records":%s}' "$head" "$(checksum "$records")" "$records" >"$file.new"
    sync "$file.new"
    mv "$file.new" "$file"
    sync "$IME_BACKUP_CLOUD_STORE"
}

restore() {
    find_newest
    content=$(cat "$file")
    records=${content#"$head"*'","records":'}
    records=${records%\}}
    [ "$content" = "$head$(checksum "$records")\",\"records\":$records}" ]
    downloaded=$(database "SELECT value FROM settings WHERE key = 'db/ise/engine/lpm/downloaded_lang';
        SELECT value FROM settings WHERE key = 'db/ise/engine/lpm/downloaded_with_handwriting_lang'")
    values=$(printf %s "$records" | jq -r --arg downloaded "$downloaded" '
        ($downloaded / "\n") as [$known, $written] |
        .[-1].value | fromjson | . as $all |
        [.selected_lang[].lang_id | . as $one | select($known | contains($one))] as $selected |
        ($selected | any(. as $one | $written | contains($one))) as $handwriting |
        .default_keyboard, ($selected | map(. + "#") | add),
        ([(.handwriting and $handwriting), .prediction, .auto_space, .auto_capitalize, .key_tap_sound, .key_tap_vib]
            | map(if . then 1 else 0 end) | .[]),
        .auto_punctuation')
    { read -r keyboard; read -r languages; read -r handwriting; read -r prediction; read -r space
        read -r capitalize; read -r sound; read -r vib; read -r punctuation; } <<END
$values
END
    set_value string $engine "$keyboard"
    database "PRAGMA synchronous = FULL; BEGIN IMMEDIATE;
        INSERT OR REPLACE INTO settings VALUES ('db/ise/engine/lpm/selected_lang', 'string', '$languages'),
            ('db/ise/hand_write', 'bool', '$handwriting'), ('db/ise/engine/prediction_val', 'bool', '$prediction');
        COMMIT"
    set_value int keyloom/auto_spacing_val "$space"
    set_value int keyloom/auto_capitalization_val "$capitalize"
    set_value bool keyloom/auto_punctuate_val "$punctuation"
    set_value int keyloom/key_sounds_val "$sound"
    set_value int keyloom/key_vibration_val "$vib"
}

"$1"
