#!/bin/sh
# A script of a plan: prints one record, how many files each local file system can still take.
#
# The agent calls a script with the agent's key, the record's name, the time (seconds since 1970, by the server's clock),
# the difference to the server's clock in seconds, and then the words of "params": here paths on the file systems to look
# at; without them it looks at all. What the script prints becomes the record file as it is: it has to be one JSON object,
# and each text in it has to be quoted as JSON wants it.
agent_key=$1 record_name=$2 collect_time=$3
[ $# -lt 4 ] || shift 4

# A text as a JSON string.
quote() { printf '"%s"' "$(printf '%s' "$1" | sed 's/[\\"]/\\&/g' | tr '[:cntrl:]' ' ')"; }

# Prints a row for each line of standard input but the first, the headings.
rows() {
    read -r _
    separator=''
    while read -r total free mount_point; do
        printf '%s{ "MountPoint": %s, "Inodes": "%s", "Free": "%s" }' \
            "$separator" "$(quote "$mount_point")" "$total" "$free"
        separator=', '
    done
}

# A script that fails prints its record, too, with the reason: else its server would not hear of it.
error='NO ERROR'
systems=$(df --local -x tmpfs -x devtmpfs --output=itotal,iavail,target -- "$@") || error="df ended with exit code $?"

printf '{ "AGENTKEY": %s, "DATACOLLECTTIME": "%s", "ERRORMSG": %s, %s: [ %s ] }\n' \
    "$(quote "$agent_key")" "$collect_time" "$(quote "$error")" "$(quote "$record_name")" \
    "$(printf '%s\n' "$systems" | rows)"
