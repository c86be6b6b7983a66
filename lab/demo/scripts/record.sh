# Sourced by the demo's scripts. A script gets: agent key, record name, time, time difference, parameters. It prints one
# record as JSON: the agent's key, the time, and an array of rows under the record's name.

agent_key=$1 record_name=$2 collect_time=$3

# A text as a JSON string.
quote() { printf '%s' "$1" | sed -e 's/[\\"]/\\&/g' -e 's/[[:cntrl:]]/ /g' -e 's/^/"/' -e 's/$/"/'; }

# Prints the record around rows of tab-separated values read from standard input; the arguments name the columns.
record() {
    printf '{ "AGENTKEY": %s, "DATACOLLECTTIME": "%s", "ERRORMSG": "NO ERROR", %s: [' \
        "$(quote "$agent_key")" "$collect_time" "$(quote "$record_name")"
    separator=''
    while IFS= read -r row; do
        printf '%s {' "$separator"
        comma=''
        for column in "$@"; do
            printf '%s %s: %s' "$comma" "$(quote "$column")" "$(quote "${row%%	*}")"
            case $row in *'	'*) row=${row#*	} ;; *) row='' ;; esac
            comma=','
        done
        printf ' }'
        separator=','
    done
    printf ' ] }\n'
}
