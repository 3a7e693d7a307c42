# Shared helpers of the fault drills (sourced, not run). A drill calls
# `drill_begin NAME "$@"` first: outside a private session it re-runs itself
# inside one (scripts/pw-session), then it has
#   $BUILD    the build folder (the drill's $1)
#   $LOGS     its own log folder under the build folder (details go there)
# and prints its one summary line with `drill_pass` / `drill_fail`.
#
# SORVA runs headless with its own configuration, state and temporary
# folders (those of the session), so its log is the drill's $LOGS/sorva.log.

# The system's tools first: a version manager's python3 shim on PATH can take
# seconds to start on a loaded machine, longer than a watcher may take to see
# sound.
[ -x /usr/bin/python3 ] && export PATH="/usr/bin:$PATH"

drill_begin() {
  DRILL=$1
  shift
  BUILD=${1:?the build folder is the first argument}
  SORVA=${SORVA:-$BUILD/sorva}
  SORVA_SOURCE=${SORVA_SOURCE:?SORVA_SOURCE names the source tree}
  export SORVA SORVA_SOURCE
  if [ -z "${PW_SESSION_ROOT:-}" ]; then
    exec "$SORVA_SOURCE/scripts/pw-session" ${DRILL_SESSION_OPTIONS:-} -- "$0" "$@"
  fi
  LOGS=$BUILD/drill-logs/$DRILL
  rm -rf "$LOGS"
  mkdir -p "$LOGS"
  exec 2>>"$LOGS/drill.log"
  SORVA_PID=
  PLAYER_PIDS=()
  trap drill_cleanup EXIT
}

drill_cleanup() {
  local pid
  for pid in "${PLAYER_PIDS[@]}"; do
    kill "$pid" 2>/dev/null
  done
  if [ -n "$SORVA_PID" ]; then
    kill -TERM "$SORVA_PID" 2>/dev/null
    wait "$SORVA_PID" 2>/dev/null
  fi
  # Keep the session's daemon logs with the drill's.
  cp "$PW_SESSION_ROOT"/logs/*.log "$LOGS/" 2>/dev/null
}

# The one line on stdout, then the exit status.
drill_pass() { echo "$DRILL: $* PASS"; exit 0; }
drill_fail() {
  echo "$DRILL: $* FAIL"
  echo "FAIL: $*" >&2
  # where everything played at that moment
  links >&2
  exit 1
}

note() { echo "[$(date +%T.%N | cut -c1-12)] $*" >&2; }

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }

# waits up to SECONDS for COMMAND to succeed, polling every 50 ms.
wait_until() {
  local seconds=$1
  shift
  local deadline=$(( $(now_ms) + seconds * 1000 ))
  until "$@"; do
    [ "$(now_ms)" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

# SORVA, headless, switched on at launch; its log (stderr) in $LOGS/sorva.log.
start_sorva() {
  mkdir -p "$PW_SESSION_ROOT/tmp"
  SORVA_AUTOSTART=1 TMPDIR=$PW_SESSION_ROOT/tmp "$SORVA" --headless >>"$LOGS/sorva.log" 2>&1 &
  SORVA_PID=$!
  note "sorva started ($SORVA_PID)"
}
stop_sorva() {
  kill -TERM "$SORVA_PID" 2>/dev/null
  wait "$SORVA_PID" 2>/dev/null
  SORVA_PID=
}
sorva_alive() { [ -n "$SORVA_PID" ] && kill -0 "$SORVA_PID" 2>/dev/null; }

# Log lines of SORVA matching an extended regular expression.
logged() { grep -E -- "$1" "$LOGS/sorva.log" 2>/dev/null; }
logged_count() { grep -c -E -- "$1" "$LOGS/sorva.log" 2>/dev/null; }
# Lines after the first N lines of the log (what happened since a mark).
log_lines() { wc -l <"$LOGS/sorva.log"; }
logged_since() { tail -n "+$(( $1 + 1 ))" "$LOGS/sorva.log" | grep -E -- "$2"; }

# A stereo sine (FILE SECONDS [FREQUENCY]) at 48 kHz, -12 dBFS.
make_tone() {
  sox -n -r 48000 -c 2 -b 16 "$1" synth "$2" sine "${3:-440}" vol 0.25 2>>"$LOGS/drill.log"
}

# A player in the background (its PID in $!) with its own application name.
play() {
  local name=$1
  shift
  pw-play -P "{ application.name = \"$name\" }" "$@" >>"$LOGS/players.log" 2>&1 &
  PLAYER_PIDS+=($!)
}
# A player of exact digital silence, endless.
play_zeros() {
  pw-cat -p --format f32 --rate 48000 --channels 2 -P '{ application.name = "zeros" }' - </dev/zero \
    >>"$LOGS/players.log" 2>&1 &
  PLAYER_PIDS+=($!)
}

# Whether a program's stream (by application name) feeds SORVA's tap / the
# speakers directly.
links() { pw-link -l 2>/dev/null; }
routed_to_tap() {
  local name=$1
  pw-dump 2>/dev/null | NAME=$name python3 -c '
import json, os, sys
text, objs, at = sys.stdin.read(), [], 0
decoder = json.JSONDecoder()
while True:  # pw-dump may print more than one array
    while at < len(text) and text[at].isspace():
        at += 1
    if at >= len(text):
        break
    part, at = decoder.raw_decode(text, at)
    objs += part
nodes = {o["id"]: o.get("info", {}).get("props", {}) for o in objs if o.get("type") == "PipeWire:Interface:Node"}
want = os.environ["NAME"]
for o in objs:
    if o.get("type") != "PipeWire:Interface:Link":
        continue
    i = o.get("info", {})
    src, dst = nodes.get(i.get("output-node-id"), {}), nodes.get(i.get("input-node-id"), {})
    if src.get("application.name") == want and dst.get("node.name") == sys.argv[1]:
        sys.exit(0)
sys.exit(1)
' "${2:-sorva_system_tap}"
}

# The session's daemons: kill them (SIGKILL) or start them again, and wait
# until pw-session has done it.
daemons_generation() { cat "$PW_SESSION_ROOT/daemons" 2>/dev/null || echo 0; }
daemons_request() {
  local signal=$1 before
  before=$(daemons_generation)
  kill "-$signal" "$PW_SESSION_PID"
  wait_until 20 generation_changed "$before"
}
generation_changed() { [ "$(daemons_generation)" != "$1" ]; }
kill_daemons() { daemons_request USR1; }
start_daemons() { daemons_request USR2; }

# Records the monitor of sink NODE (by node.name) and appends to FILE the time
# (ms) each time sound starts there after silence (scripts/drills/first-sound.py).
watch_sink() {
  local node=$1 file=$2
  : >"$file"
  pw-cat --record --format f32 --rate 48000 --channels 2 --latency 10ms --target "$node" \
    -P "{ stream.capture.sink=true node.name=\"watch-$node\" }" - 2>>"$LOGS/players.log" \
    | python3 "$SORVA_SOURCE/scripts/drills/first-sound.py" "$file" &
  PLAYER_PIDS+=($!)
}
# The first time (ms) after T0 at which sound started in FILE, or nothing.
sound_since() { awk -v t0="$2" '$1 >= t0 { print $1 - t0; exit }' "$1"; }
# Switches the default output to the sink named NAME.
set_default_sink() {
  pw-metadata -n default 0 default.configured.audio.sink "{ \"name\": \"$1\" }" Spa:String:JSON >/dev/null
}
# The id of the node named NAME (node.name), or nothing (status 1).
node_id() {
  pw-dump Node 2>/dev/null | NAME=$1 python3 -c '
import json, os, sys
for o in json.load(sys.stdin):
    if o.get("info", {}).get("props", {}).get("node.name") == os.environ["NAME"]:
        print(o["id"]); sys.exit(0)
sys.exit(1)'
}
# The id of the output stream of the program named NAME (application.name).
stream_of() {
  pw-dump Node 2>/dev/null | NAME=$1 python3 -c '
import json, os, sys
for o in json.load(sys.stdin):
    p = o.get("info", {}).get("props", {})
    if p.get("application.name") == os.environ["NAME"] and p.get("media.class") == "Stream/Output/Audio":
        print(o["id"]); sys.exit(0)
sys.exit(1)'
}
# A stream's target keys in the "default" metadata, if any.
targets_of() { pw-metadata -n default "$1" 2>/dev/null | grep -oE "key:'target\.(object|node)' value:'[^']*'"; }
