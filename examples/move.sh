#!/bin/bash
# Says where gripper 9 is and moves it: move.sh HOST POSITION. It has to be active.
set -euo pipefail
exec 3<>"/dev/tcp/$1/63352"

# A GET is answered with a line.
printf 'GET POS\n' >&3
read -r -t 5 -u 3 _ position
echo "from $position"

# A SET is answered with three characters and no line ending.
printf 'SET POS %s SPE 255 FOR 100 GTO 1\n' "$2" >&3
read -r -t 5 -N 3 -u 3 reply
echo "to $2: $reply"
[[ $position != '?' && $reply == ack ]]
