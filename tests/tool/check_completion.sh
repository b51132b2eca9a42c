#!/bin/sh
# Completion in bash offers the segments of the device that the line or the environment names, and nothing where there is none.
#   check_completion.sh DEVICE SCRIPT COMMAND    the completion script; velmora-mm
# shellcheck disable=SC2016 # names of fixed segments begin with $
set -eu
device=$1
script=$2
tool=$3
$tool start --again --device "$device" >"/dev/null"
$tool create PAGE --bytes 1M --device "$device" >/dev/null
$tool create UEV --type fixed --device "$device" >/dev/null

# What is offered behind a line, on one line.
offered() { # LINE
    VELMORA_MM_DEVICE=$environment bash -c '
        . "$1"
        COMP_LINE=$2 COMP_POINT=${#2}
        read -ra COMP_WORDS <<<"${2//:/ : }"
        case $2 in *" ") COMP_WORDS+=("") ;; esac
        COMP_WORDS[0]=$3
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        cd /var/empty 2>/dev/null || cd /proc/self/task
        _velmora_mm
        echo "${COMPREPLY[*]}"' bash "$script" "$1" "$tool"
}
expect() { # OFFER LINE
    offer=$(offered "$2" 2>&1)
    [ "$offer" = "$1" ] || {
        echo "behind '$2' stands '$offer', not '$1'" >&2
        exit 1
    }
}
environment=$device
expect 'PAGE' 'velmora-mm owners P'
expect '$UEV PAGE heap' 'velmora-mm alloc '
expect 'PAGE' 'velmora-mm alloc --owner 7 P'
expect '' 'velmora-mm alloc PAGE P'
expect 'FIL' 'velmora-mm clear F'
expect 'owners' 'velmora-mm ow'
expect '--runs' 'velmora-mm owners --r'
environment=unix:/nowhere
expect '' 'velmora-mm owners P'
expect 'PAGE' "velmora-mm owners --device $device P"
expect 'PAGE' "velmora-mm owners --device=$device P"
