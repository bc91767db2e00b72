# Helpers for the unattended runs of the real executable and the agent simulator under
# an X display: waiting on log lines, answering the dialogs, comparing trees.
# Sourced by scripts/demo and tests/e2e/*; expects $top (the checkout) to be set.

bin=${KX_BUILD_DIR:-$top/build}
work=$(mktemp -d /tmp/kx-e2e.XXXXXX)
# The journal of unfinished files is the run's own, not the user's.
export XDG_STATE_HOME=$work/state
pids=()
# stop_all: SIGTERM to all; what still runs 5 s later (the file manager takes SIGTERM as a
# request, which it may leave unanswered on a busy machine) gets SIGKILL.
stop_all() {
  local p _ left
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  for _ in $(seq 50); do
    left=0
    for p in "${pids[@]}"; do [ "$(cut -d' ' -f3 "/proc/$p/stat" 2>/dev/null)" = Z ] || ! [ -e "/proc/$p" ] || left=1; done
    [ $left = 0 ] && break
    sleep 0.1
  done
  for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null; done
  wait 2>/dev/null
}
# cleanup [STATUS]: a passing run's scratch goes with it; a failing one's stays, for the
# logs that fail() names. KX_E2E_KEEP=1 keeps it in any case.
cleanup() {
  local status=${1:-$?}
  stop_all
  [ "$status" = 0 ] && [ "${KX_E2E_KEEP:-0}" != 1 ] && rm -rf --one-file-system "$work"
  return "$status"
}
trap cleanup EXIT

say() { printf '%s\n' "${KX_E2E_NAME:-e2e}: $*"; }
fail() { say "FAILED: $*"; say "logs are in $work"; tail -n 20 "$work"/*.log; exit 1; }

# wait_for SECONDS FILE PATTERN [COUNT]: until PATTERN has matched COUNT lines of FILE.
wait_for() {
  local deadline=$((SECONDS + $1)) want=${4:-1} n
  while n=$(grep -c -- "$3" "$2" 2>/dev/null); [ "${n:-0}" -lt "$want" ]; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.1
  done
}

# same_files A B: the same files with the same bytes (empty folders aside).
same_files() {
  diff <(cd "$1" && find . -type f | sort) <(cd "$2" && find . -type f | sort) || return 1
  (cd "$1" && find . -type f -print0) | while IFS= read -r -d '' f; do
    cmp -s "$1/$f" "$2/$f" || { echo "differs: $f"; exit 1; }
  done
}

# start_host: the host application stand-in, so the companion does not end itself.
start_host() {
  mkdir -p "$work/bin"
  cp "$(command -v sleep)" "$work/bin/kx-host"
  "$work/bin/kx-host" 3600 & pids+=($!)
}

# start_agent ARGS...: the simulator, commands through $work/agent.in; sets $port.
start_agent() {
  mkfifo "$work/agent.in"
  "$bin/tools/agent-sim/kx-agent-sim" "$@" < "$work/agent.in" > "$work/agent.log" 2>&1 & pids+=($!)
  exec {agent_in}> "$work/agent.in"
  wait_for 10 "$work/agent.log" "listening on" || fail "the agent simulator did not start"
  port=$(sed -n 's/.*listening on ws:\/\/127.0.0.1:\([0-9]*\).*/\1/p' "$work/agent.log")
}
agent() { printf '%s\n' "$1" >&"$agent_in"; }

# copy_files PATH...: the paths on the clipboard, as a file manager's copy puts them.
# xclip stays in the foreground as one of ours, so that it is ended before the X server:
# left to itself it would outlive the run and report the server's end as a broken
# connection. Its chatter goes to its own log.
copy_files() {
  printf 'file://%s\r\n' "$@" | xclip -quiet -selection clipboard -t text/uri-list > /dev/null 2>> "$work/xclip.log" &
  pids+=($!)
}

# start_app: the companion, connected to the agent; KX_APP_ARGS are added (window,N).
# Once it has read its arguments, neither ps nor its log shows the token.
start_app() {
  local token=e2e-secret-token app shown
  # shellcheck disable=SC2086
  "$bin/src/app/kx-clipboard" "ip,ws://127.0.0.1" "port,$port" "token,$token" "cid,1" ${KX_APP_ARGS:-} > "$work/app.log" 2>&1 &
  app=$! pids+=($!)
  wait_for 15 "$work/app.log" "send clienType success" || fail "the companion did not connect"
  shown=$(tr -s '\0' ' ' < "/proc/$app/cmdline")
  case $shown in
    *"$token"*) fail "ps shows the token: $shown" ;;
    "$bin/src/app/kx-clipboard ip, port, token, cid,"*) ;;
    *) fail "ps shows neither the program nor the keys: $shown" ;;
  esac
  ! grep -qF -- "$token" "$work/app.log" || fail "the log shows the token: $(grep -F -- "$token" "$work/app.log")"
}

# focus_window TITLE-REGEX: the first visible window of that title, focused; its id.
# find_window NAME: the id of a visible window whose name matches, within a minute. A search
# ends in an X error when a window closes while it is being looked at (the chooser
# going away), so it is asked again rather than trusted to wait.
find_window() {
  local id _
  for _ in $(seq 300); do # a minute: a file manager starting on a busy machine is slow
    id=$(xdotool search --onlyvisible --name "$1" 2> /dev/null | head -1)
    [ -n "$id" ] && echo "$id" && return 0
    sleep 0.2
  done
  return 1
}

focus_window() {
  local id
  id=$(find_window "$1") || return 1
  xdotool windowfocus --sync "$id"
  echo "$id"
}

# paste_into DIR: Ctrl+V and the folder typed into the chooser.
paste_into() {
  xdotool key ctrl+v
  focus_window "^Paste [0-9]" > /dev/null || fail "the folder chooser did not open"
  xdotool type --delay 5 "$1"
  xdotool key Return
}

# keep_both_if_asked: when names of the paste are taken, the question answered with its
# default, Keep both; nothing when the paste starts, or ends, without asking.
keep_both_if_asked() {
  wait_for 20 "$work/app.log" "of the pasted names are taken in\|^Progress: \|所有文件粘贴成功\|eror:" || return 0
  grep -q "of the pasted names are taken in" "$work/app.log" || return 0
  focus_window "Names already taken" > /dev/null && xdotool key Return
}

# open_file_manager DIR: pcmanfm-qt on DIR, with a session bus of its own (without one it
# ends at once, showing nothing); its window's id in $fm_window. Not to be called in a
# subshell: the bus and the file manager must be in this shell's pids to be ended.
open_file_manager() {
  dbus-daemon --session --nofork --address="unix:path=$work/bus" > "$work/dbus.log" 2>&1 & pids+=($!)
  for _ in $(seq 50); do [ -S "$work/bus" ] && break; sleep 0.1; done
  DBUS_SESSION_BUS_ADDRESS=unix:path=$work/bus pcmanfm-qt --new-window "$1" > "$work/pcmanfm.log" 2>&1 & pids+=($!)
  fm_window=$(find_window "^$(basename "$1")$")
}

# click_stop: Stop in the progress window, bottom right wherever the rest of the window
# puts it; keys never press it.
click_stop() {
  local window WINDOW X Y WIDTH HEIGHT SCREEN
  window=$(find_window "Receiving files") || return 1
  eval "$(xdotool getwindowgeometry --shell "$window")"
  xdotool mousemove --window "$window" $((WIDTH - 50)) $((HEIGHT - 22)) click 1
}

# confirm_alert: the end-of-paste alert, answered.
confirm_alert() {
  focus_window "^KXClipboard$" > /dev/null && xdotool key Return
}
