# The scripts' throttle drops progress only: the first line of it comes, what else is printed always comes,
# and the status of the command in front is kept. Argument: scripts/common.sh
set -euo pipefail
source "$1"

printed=$(for i in 1 2 3; do printf '[%d/9, x\nwarning %d\nStart %d\n' $i $i $i; done; printf 'no newline') 
got=$(throttle '^\[[0-9]+/' '^Start' <<<"$printed")
expected=$'[1/9, x\nwarning 1\nwarning 2\nwarning 3\nno newline'
[ "$got" = "$expected" ] || { printf 'got:\n%s\n' "$got"; exit 1; }

if (echo '[1/2, x'; exit 7) | throttle '^\[' '^$' >/dev/null; then
    echo "a failure in front of the pipe was lost"
    exit 1
fi
