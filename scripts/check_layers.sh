#!/usr/bin/env bash
# Fails when a folder includes one above it. Layers from the bottom: the wire base (core),
# the log, the media readers, the per-app layer (client below transfer, transfer below
# catalogue and delete, which stand side by side) and the server. The app side sees only
# the wire base.
set -euo pipefail
cd "$(dirname "$0")/.."
declare -A rank=([core]=0 [log]=1 [media]=2 [client]=3 [transfer]=4 [catalogue]=5 [delete]=5
                 [server]=6)
status=0
while IFS=: read -r file _ line; do
    from=${file#src/}; from=${from%%/*}
    to=$(sed -E 's/.*#include "([a-z_]+)\/.*/\1/' <<<"$line")
    if [ "${file%%/*}" = app ]; then
        ok=0; [ "$to" = core ] || [ "$to" = app ] && ok=1
    elif [ -z "${rank[$to]:-}" ] || [ -z "${rank[$from]:-}" ]; then
        ok=0
    elif [ "$to" = "$from" ] || [ "${rank[$to]}" -lt "${rank[$from]}" ]; then
        ok=1
    else
        ok=0
    fi
    if [ $ok -eq 0 ]; then
        echo "layering: $file includes $to/: only lower layers may be included"; status=1
    fi
done < <(grep -rnE '^#include "[a-z_]+/' src app)
[ $status -eq 0 ] && echo "layering: every include points down"
exit $status
