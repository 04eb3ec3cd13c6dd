# bash completion for almanor: its commands and options, the values of --schedule and --count,
# and the ids of the events.

# "ID<tab>NAME" per event, from `almanor events list --json`. In JSON a quote inside a string is
# always escaped, so `{"id":"` starts an object and never comes from a name.
_almanor_events() {
    "${1:-almanor}" events list --json 2>/dev/null |
        grep -oE '\{"id":"[0-9A-F-]+","name":"([^"\\]|\\.)*"' |
        sed -E 's/\\\\/\x1f/g; s/\\([nrt]|u[0-9a-f]{4})/ /g; s/\\"/"/g; s/\x1f/\\/g' |
        sed -E 's/^\{"id":"([^"]*)","name":"(.*)"$/\1\t\2/'
}

_almanor() {
    local cur=${COMP_WORDS[COMP_CWORD]} option="" words="" options="" ids="" files="" word i
    local -a typed=()
    # The option whose value is being typed: "--count fr", or "--count=fr" (bash splits at "=").
    if [[ $cur == "=" ]]; then
        cur="" option=${COMP_WORDS[COMP_CWORD - 1]}
    elif ((COMP_CWORD > 2)) && [[ ${COMP_WORDS[COMP_CWORD - 1]} == "=" ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    elif ((COMP_CWORD > 1)); then
        option=${COMP_WORDS[COMP_CWORD - 1]}
    fi
    case $option in
    --schedule) words="none weekly monthly annually" ;;
    --count) words="standard exclude-weekends friday-before monday-after" ;;
    --date | --name | --alias | --user | --password-command) return 0 ;;
    *) option="" ;;
    esac
    if [[ -n $option ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
        return 0
    fi

    # The commands and arguments typed so far, without the options and their values.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
        --schedule | --count | --date | --name | --alias | --user | --password-command)
            ((i++))
            [[ ${COMP_WORDS[i]} == "=" ]] && ((i++))
            ;;
        -*) ;;
        *) typed+=("$word") ;;
        esac
    done
    case "${typed[*]}" in
    "") words="events select status cloud sync" options="--version" ;;
    events) words="list add edit delete export import" ;;
    "events list" | status | "cloud status") options="--json" ;;
    "events add"*) options="--date --alias --schedule --count" ;;
    "events edit"*)
        options="--name --alias --date --schedule --count"
        [[ ${typed[*]} == "events edit" ]] && ids=1
        ;;
    "events delete") ids=1 ;;
    "events export" | "events import") files=1 ;;
    select) words="next random rotate" ids=1 ;;
    cloud) words="login logout status" ;;
    "cloud login"*) options="--user --password-command" ;;
    esac
    if [[ -n $files && $cur != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
    fi
    if [[ $cur == -* || (-z $words && -z $ids) ]]; then
        words="$options --help"
    elif [[ -n $ids ]]; then
        words+=" $(_almanor_events "${COMP_WORDS[0]}" | cut -f1)"
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
}

complete -F _almanor almanor
