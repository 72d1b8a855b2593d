#!/bin/sh
# The list reports as a shell would make them: socat_jq.sh srv|dev PATH
printf '\0\0\0\0\0\0\0\0' | socat -t 1000 - "UNIX-CONNECT:$2" | tail -c +9 |
    jq -r -f "${0%/*}/$1.jq"
