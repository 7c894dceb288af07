#!/bin/bash
# Prints the position of gripper 9 and requests another one, if the gripper is active.
#
#   move.sh HOST POSITION
#
# It does not wait for the end of the movement. grip.sh does.
set -euo pipefail
exec 3<>"/dev/tcp/$1/63352"

# The reply to a GET is a line. "?" is the value of a gripper that is not found.
printf 'GET STA\nGET POS\n' >&3
read -r -t 5 -u 3 _ status
read -r -t 5 -u 3 _ position
echo "from $position"
if [[ $status != 3 ]]; then
    echo 'the gripper is not active' >&2
    exit 1
fi

# The reply to a SET has three characters and no line ending.
printf 'SET POS %s SPE 255 FOR 100 GTO 1\n' "$2" >&3
read -r -t 5 -N 3 -u 3 reply
echo "to $2: $reply"
[[ $reply == ack ]]
