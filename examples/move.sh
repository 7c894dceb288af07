#!/bin/bash
# Prints the position of gripper 9 and moves this gripper, which must be active.
#
#   move.sh HOST POSITION
set -euo pipefail
exec 3<>"/dev/tcp/$1/63352"

# The reply to a GET is a line.
printf 'GET POS\n' >&3
read -r -t 5 -u 3 _ position
echo "from $position"

# The reply to a SET has three characters and no line ending.
printf 'SET POS %s SPE 255 FOR 100 GTO 1\n' "$2" >&3
read -r -t 5 -N 3 -u 3 reply
echo "to $2: $reply"
[[ $position != '?' && $reply == ack ]]
