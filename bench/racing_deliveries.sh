#!/usr/bin/env bash
# Racing deliveries: many dispatchers started at once on one session bus, and
# a wave of them started just as the first is ending, each with three URLs
# (two work URLs, one for the non-work browser). Counts, from what the
# stand-in browsers record, the URLs lost, opened twice and opened in the
# wrong browser, and how many dispatchers started up and how many handled
# their delivery themselves after the running one did not take it.
#
#   bench/racing_deliveries.sh [--dispatchers N] [--rounds N] [DISPATCHER]
#
# DISPATCHER defaults to build/default/corvane-dispatcher, which scripts/bench.sh
# builds; the stand-in browser of the tests is taken from the same build.
# It asserts nothing.
#
# Measured on the 2-core test machine (10 rounds each): 200 at once, 0 lost,
# 0 opened twice, 0 misrouted, one start-up per round (with other work on the
# machine, once 89 senders heard nothing for 5 s from the busy first one and
# handled their own deliveries: still 0 lost and 0 opened twice); 50 as the
# first ends, 0 lost, 0 opened twice, 0 misrouted, 1 to 4 start-ups and 0 to
# 2 deliveries handled by their sender per round. Before the first one wrote
# out its acknowledgements on ending, one such round opened 73 URLs twice.
set -euo pipefail
cd "$(dirname "$0")/.."

count=200
rounds=10
while (($#)); do
  case $1 in
    --dispatchers) count=$2; shift 2 ;;
    --rounds) rounds=$2; shift 2 ;;
    *) break ;;
  esac
done
dispatcher=$(realpath "${1:-build/default/corvane-dispatcher}")
browser=$(realpath "$(dirname "$dispatcher")/tests/corvane_recorder_browser")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One round in a fresh home on a fresh bus: DELAY "" starts COUNT at once;
# a number starts COUNT that many seconds after the first one's delivery.
round() {
  local delay=$1 home=$work/home log
  rm -rf "$home"
  mkdir -p "$home"/config/Halvard/Corvane/logs "$home"/data/applications "$home"/records "$home"/bin
  ln -s "$browser" "$home/bin/work-browser"
  ln -s "$browser" "$home/bin/other-browser"
  printf '[Desktop Entry]\nType=Application\nName=W\nExec="%s" %%u\n' "$home/bin/work-browser" \
    >"$home/data/applications/com.velora.velorabrowser.desktop"
  printf '{"kel_prefs":{"policy":{"browser_urls":[{"patterns":["*.corp.test/*"]}]}},"browser":{"browserPathForNonWorkLinks":"file://%s/bin/other-browser"}}' \
    "$home" >"$home/config/Halvard/Corvane/Local State"
  log=$home/config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log
  HOME=$home XDG_CONFIG_HOME=$home/config XDG_DATA_HOME=$home/data XDG_DATA_DIRS=$home/data \
    CORVANE_RECORDER_DIR=$home/records D=$dispatcher L=$log N=$count T=$delay \
    dbus-run-session -- bash -c '
      if [[ -n $T ]]; then
        $D https://first.corp.test/ 2>/dev/null &
        until grep -qs "received urls" "$L"; do sleep 0.005; done
        sleep "$T"
      fi
      for i in $(seq 1 "$N"); do
        $D "https://a$i.corp.test/x" "https://news$i.example/y" "https://b$i.corp.test/z" 2>/dev/null &
      done
      wait' 2>/dev/null
  local expected=$((3 * count + (${#delay} ? 1 : 0)))
  for record in "$home"/records/*.rec; do
    tr '\0' '\n' <"$record" | awk 'NR == 2 { name = $0 } /^arg$/ { getline; print name, $0 }'
  done | awk -v expected="$expected" -v banners="$(grep -c Initialized "$log")" \
    -v fallbacks="$(grep -c 'did not take' "$log" || true)" '
      { seen[$2]++; if (($2 ~ /corp\.test/) != ($1 == "work-browser")) wrong++ }
      END { for (url in seen) { distinct++; twice += seen[url] - 1 }
            printf "lost %d  opened twice %d  misrouted %d  start-ups %d  handled by their sender %d\n",
                   expected - distinct, twice, wrong, banners, fallbacks }'
}

echo "== $count dispatchers at once"
for ((r = 0; r < rounds; r++)); do round ""; done
echo "== 50 dispatchers as the first ends (1.90 to 2.05 s after its delivery)"
count=50
for ((r = 0; r < rounds; r++)); do round "$(awk -v r=$r 'BEGIN { printf "%.3f", 1.90 + (r % 4) * 0.05 }')"; done
