#!/bin/bash
# Grips parts with gripper 9, which has fingers, until Ctrl-C. It keeps a part through a restart of the
# daemon or of itself.
#
#   grip.sh HOST
set -euo pipefail
host=$1
# The exit codes of gripperctl.
refused=1 no_connection=3 timed_out=4 no_gripper=5

ctl() {
    gripperctl --host "$host" --gripper 9 "$@"
}

# Prints one value of the gripper's status, such as 12 for "fault": 12.
value() {
    ctl --json status | tr -d '[:space:]"' | sed -n "s/.*[{,]$1:\([^,}]*\).*/\1/p" | grep .
}

holds_part() {
    [[ $(value object) == object ]]
}

grip() {
    local result
    # A function in a condition continues after an error, so each command ends this function itself.
    # Nothing is sent to an active gripper, so a held part stays.
    ctl activate --wait >/dev/null || return
    holds_part || ctl open --speed 255 --force 100 --wait >/dev/null || return
    # This also restores the force of a held part, which a scan sets to 0.
    ctl close --speed 255 --force 100 --wait >/dev/null || return
    result=$(value object) || return
    if [[ $result != object ]]; then
        echo 'no part'
        return
    fi
    echo "holds a part at $(value position)"
    carry
}

# Here the robot would move. The part may get lost meanwhile.
carry() {
    local result
    for _ in {1..10}; do
        sleep 0.1
        result=$(value object) || return
        if [[ $result != object ]]; then
            echo 'lost the part'
            return
        fi
    done
    ctl open --speed 255 --force 100 --wait >/dev/null
}

recover() {
    local fault
    fault=$(value fault) || fault=0
    if [[ $1 == "$refused" && $fault != 0 ]]; then
        # The activation opens the fingers: the robot should put down its part first.
        echo "fault $fault: activates again"
        ctl activate --again --wait >/dev/null || true
        return
    fi
    case $1 in
    "$refused" | "$no_connection" | "$timed_out" | "$no_gripper")
        echo "waits: gripperctl ended with $1"
        sleep 1
        ;;
    *) exit "$1" ;;
    esac
}

while true; do
    status=0
    grip 2>/dev/null || status=$?
    ((status == 0)) || recover "$status" 2>/dev/null
done
