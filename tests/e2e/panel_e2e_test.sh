#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# The real control panel and voice service on a virtual X display of their own (Xvfb), from a
# private copy of the staged app folder:
#   - the skinned main window as the X server shows it, pixel by pixel against the default
#     skin's bitmaps;
#   - global hot keys pressed with xdotool switch the voice effect slot in the settings and in
#     the service, a second press switches the slot off, NumLock does not matter, and the keys
#     follow a new keyboard layout;
#   - a hot key another program holds, and one the X server keeps for itself (Ctrl+Alt+F3),
#     are logged and stay off while the panel runs on with its other keys;
#   - minimise to the tray: without a tray the window stays on the screen; with one (our own
#     small tray, x11_helper) the window goes away, hot keys still work, and a double-click on
#     the tray icon brings it back (a single click does not); Exit ends the panel.
#
#   panel_e2e_test.sh APP_DIR SOURCE_DIR X11_HELPER
#
# Uses the sound server PULSE_SERVER names (CTest's private one), or starts a private one.
# Exit status 77: a tool is missing, the test was skipped.
set -euo pipefail
if (($# != 3)); then
  echo "usage: panel_e2e_test.sh APP_DIR SOURCE_DIR X11_HELPER" >&2
  exit 2
fi
app_dir=$(cd "$1" && pwd)
source_dir=$(cd "$2" && pwd)
helper=$3

for tool in Xvfb xdotool xwininfo import convert identify od; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is not installed (scripts/install-deps.sh installs it)"
    exit 77
  fi
done
for program in larimo LarimoServer larimoctl; do
  [[ -x "$app_dir/$program" ]] || { echo "FAIL: no $program in $app_dir (build first)" >&2; exit 1; }
done
[[ -x "$helper" ]] || { echo "FAIL: no x11_helper at $helper (build first)" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/larimo-panel-e2e-XXXXXX")
app=$work/app
log=$app/larimocl.log
service_log=$app/larimosrv.log
config=$app/config.ini
namespace="e2e$$"
xvfb_pid=""
panel_pid=""
grab_pid=""
tray_pid=""
own_sound=""
passed=""

service_pids() {
  local exe
  for exe in /proc/[0-9]*/exe; do
    if [[ "$(readlink "$exe" 2>/dev/null)" == "$app/LarimoServer" ]]; then
      exe=${exe#/proc/}
      echo "${exe%/exe}"
    fi
  done
}
stop_pid() {
  [[ -n "$1" ]] || return 0
  kill "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}
cleanup() {
  local pid
  stop_pid "$panel_pid"
  stop_pid "$grab_pid"
  stop_pid "$tray_pid"
  # The voice service the panel started runs detached from the copy; end that process only.
  for pid in $(service_pids); do
    kill "$pid" 2>/dev/null || true
  done
  for _ in $(seq 50); do
    [[ -z "$(service_pids)" ]] && break
    sleep 0.1
  done
  for pid in $(service_pids); do
    kill -KILL "$pid" 2>/dev/null || true
  done
  stop_pid "$xvfb_pid"
  [[ -n "$own_sound" ]] && "$source_dir/scripts/test-soundserver.sh" stop "$own_sound" >/dev/null 2>&1
  if [[ -n "$passed" ]]; then
    rm -rf "$work"
  else
    echo "The test's files stay in $work" >&2
  fi
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  if [[ -f "$log" ]]; then
    echo "--- the panel's log, last records:" >&2
    grep -a -v -E "IPC::|MoIpcCli::" "$log" | tail -n 40 >&2
  fi
  [[ -s "$work/panel.out" ]] && { echo "--- the panel's output:" >&2; tail -n 20 "$work/panel.out" >&2; }
  exit 1
}
# wait_for SECONDS COMMAND...: runs COMMAND every 0.1 s until it succeeds or the time is up.
wait_for() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.1
  done
}
log_count() { grep -a -c -F -- "$1" "$log" || true; }
log_has() { grep -a -q -F -- "$1" "$log"; }
# log_after LINE TEXT: TEXT appears in the panel's log after its first LINE lines.
log_after() { tail -n "+$(($1 + 1))" "$log" | grep -a -q -F -- "$2"; }
service_log_after() { tail -n "+$(($1 + 1))" "$service_log" 2>/dev/null | grep -a -q -F -- "$2"; }
lines() { wc -l <"$1"; }
map_state() { xwininfo -id "$window" 2>/dev/null | sed -n 's/^ *Map State: //p' | grep . || echo "no such window"; }
window_is() { [[ "$(map_state)" == "$1" ]]; }
active_effect() { sed -n 's/^activeEffect=//p' "$config"; }
effect_is() { [[ "$(active_effect)" == "$1" ]]; }

# raw_pixels FILE WIDTH "X,Y X,Y ...": one line "X,Y R,G,B" per point of a raw 8-bit RGB picture.
raw_pixels() {
  od -An -v -tu1 -w3 "$1" | awk -v w="$2" -v points="$3" '
    BEGIN { n = split(points, p, " "); for (i = 1; i <= n; i++) { split(p[i], c, ","); want[c[2] * w + c[1] + 1] = p[i] } }
    (NR in want) { print want[NR], $1 "," $2 "," $3 }' | sort
}
# pixels IMAGE "X,Y X,Y ...": the same for a picture file (the skin's bitmaps).
pixels() {
  convert "$1" -alpha off -depth 8 "rgb:$work/picture.rgb"
  raw_pixels "$work/picture.rgb" "$(identify -format %w "$1")" "$2"
}
press() { xdotool key --delay 40 "$@"; }
ok() { printf 'ok %3ds: %s\n' "$SECONDS" "$*"; }

# --- The display, the sound server, the app folder ------------------------------------------------
if [[ -z "${PULSE_SERVER:-}" ]]; then
  own_sound=$work/sound
  "$source_dir/scripts/test-soundserver.sh" start "$own_sound" >/dev/null
  export PULSE_SERVER="unix:$own_sound/native"
fi
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_RUNTIME_DIR="$work/runtime"
export LARIMO_SERVICE_BACKEND=supervisor LARIMO_OBJECT_NAMESPACE="$namespace" QT_QPA_PLATFORM=xcb
export ASAN_OPTIONS="detect_leaks=0:${ASAN_OPTIONS:-}"
unset DBUS_SESSION_BUS_ADDRESS WAYLAND_DISPLAY LARIMO_HOTKEYS
mkdir -p "$XDG_CONFIG_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

# A black root window, so that what lies outside the window's shape is known.
Xvfb -displayfd 3 -br -screen 0 1024x768x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
xvfb_pid=$!
wait_for 30 test -s "$work/display" || fail "Xvfb did not start: $(cat "$work/xvfb.log")"
export DISPLAY=":$(tr -d '[:space:]' <"$work/display")"
echo "display $DISPLAY, object namespace $namespace"

cp -r "$app_dir" "$app"
rm -f "$log" "$service_log"
sed -i 's/^[Ww]izard=.*/wizard=1/' "$config"
grep -q '^wizard=1' "$config" || printf '[sys]\nwizard=1\n' >>"$config"
# Slot 3's key is one the X server keeps (console switching); FunSound1's key another program
# holds before the panel starts.
cat >>"$config" <<'EOF'

[soundcards]
input=Microphone (Test)
monitor=Speakers

[Shortcuts]
VoiceEffect1=Ctrl+Shift+Y
VoiceEffect2=Ctrl+Shift+F2
VoiceEffect3=Ctrl+Alt+F3
FunSound1=Ctrl+Alt+P
EOF
effect_key=(ctrl+shift+y ctrl+shift+F2)

"$helper" grab p ctrl+alt >"$work/grab.out" 2>&1 &
grab_pid=$!
wait_for 20 grep -q '^grabbed' "$work/grab.out" || fail "the other program could not grab Ctrl+Alt+P: $(cat "$work/grab.out")"

# --- The panel starts, starts the service and connects ---------------------------------------------
xdotool mousemove 1000 10 # off the window, so that no control shows its hover picture
"$app/larimo" >"$work/panel.out" 2>&1 &
panel_pid=$!
window=""
find_window() { window=$(xdotool search --onlyvisible --name '^Larimo$' 2>/dev/null | head -n 1); [[ -n "$window" ]]; }
wait_for 60 find_window || fail "the main window did not appear"
wait_for 30 "$app/larimoctl" status >/dev/null 2>&1 || fail "the voice service the panel started does not answer"
# Hot keys are registered when the window opens and again once the service is connected.
registered() { (($(log_count "CLarimoDlg::RegisterHotKeys:") >= 2)); }
wait_for 30 registered || fail "the panel did not register its hot keys after connecting to the service"
log_has "RegisterHotKeys: 2 of 4 hot keys active (X11)" || fail "not 2 of 4 hot keys active on X11"
ok "the panel runs, connected to the service it started, with 2 of its 4 hot keys"

# --- A key another program holds, a key the X server keeps: logged, not fatal ---------------------
log_has "X11HotKeys: Ctrl+Alt+P is already taken by another program; hot key 4 is off" ||
  fail "the key taken by another program was not logged"
log_has "X11HotKeys: the X server keeps Ctrl+Alt+F3 for switching to console 3; hot key 2 is off" ||
  fail "the key the X server keeps was not logged"
kill -0 "$panel_pid" 2>/dev/null || fail "the panel ended"
ok "logged: Ctrl+Alt+P is taken by another program, Ctrl+Alt+F3 kept by the X server"

# --- (a) The window as the X server shows it --------------------------------------------------------
skin=$app/skins/en/Default.sdf
skin_dir=$app/skins/en/Default
read -r skin_width skin_height < <(sed -n 's/^size=\([0-9]*\),\([0-9]*\).*/\1 \2/p' "$skin" | head -n 1)
eval "$(xdotool getwindowgeometry --shell "$window")"
[[ "$WIDTH" == "$skin_width" && "$HEIGHT" == "$skin_height" ]] ||
  fail "the window is ${WIDTH}x${HEIGHT}, the skin says ${skin_width}x${skin_height}"
# Plain background: a grid of points outside every control of the skin.
controls=$(awk -F'[=,]' '/^\[/ { if (x != "" && w != "") print x, y, w, h; x = y = w = h = ""; next }
  /^position=/ { x = $2; y = $3 } /^size=/ { w = $2; h = $3 }
  END { if (x != "" && w != "") print x, y, w, h }' "$skin")
background_points=$(for ((x = 24; x < skin_width - 20; x += 24)); do
  for ((y = 24; y < skin_height - 20; y += 22)); do echo "$x $y"; done
done | awk -v controls="$controls" '
  BEGIN { n = split(controls, c, "\n")
          for (i = 1; i <= n; i++) { split(c[i], r, " "); x0[i] = r[1] - 3; y0[i] = r[2] - 3; x1[i] = r[1] + r[3] + 3; y1[i] = r[2] + r[4] + 3 } }
  { inside = 0
    for (i = 1; i <= n; i++)
      if ($1 >= x0[i] && $1 < x1[i] && $2 >= y0[i] && $2 < y1[i]) inside = 1
    if (!inside) printf "%d,%d ", $1, $2 }')
(($(wc -w <<<"$background_points") > 150)) || fail "too few background points: $background_points"
skin_background=$(pixels "$skin_dir/background.bmp" "0,0 $background_points")
background_colours=$(grep -v '^0,0 ' <<<"$skin_background")
(($(wc -l <<<"$background_colours") == $(wc -w <<<"$background_points"))) || fail "cannot read the skin's background"
grep -q '^0,0 0,0,0$' <<<"$skin_background" && fail "the skin's corner is black itself"
# The effect slot buttons (52 x 32, at the positions of ERadio1..3): points of the pill around
# the caption, in the "off" or the "on" bitmap.
radio_points="8,16 4,10 44,16 26,4"
radio_off=$(pixels "$skin_dir/effect1_off_up.bmp" "$radio_points")
radio_on=$(pixels "$skin_dir/effect1_on_up.bmp" "$radio_points")
(($(wc -l <<<"$radio_off") == 4 && $(wc -l <<<"$radio_on") == 4)) || fail "cannot read the slot buttons' bitmaps"
[[ "$radio_off" != "$radio_on" ]] || fail "the slot buttons' bitmaps do not differ at $radio_points"
# skin_value SECTION KEY: the first two numbers of KEY in SECTION of the skin ("26 95").
skin_value() {
  awk -F'[=,]' -v section="[$1]" -v key="$2" '$0 == section { found = 1; next } /^\[/ { found = 0 }
    found && $1 == key { print $2, $3; exit }' "$skin"
}
radio_origin() { skin_value "ERadio$1" position; }
# click_control SECTION: a click in the middle of a control of the skin.
click_control() {
  local x y width height
  read -r x y < <(skin_value "$1" position)
  read -r width height < <(skin_value "$1" size)
  xdotool mousemove --window "$window" $((x + width / 2)) $((y + height / 2)) click 1
}
# expected_window ACTIVE_SLOT: what the window must show at its sample points, sorted as
# raw_pixels sorts: the background, the corner the window's shape cuts away (the black root
# window shows there), and the slot buttons with slot ACTIVE_SLOT (1 to 3, 0 for none) on.
expected_window() {
  local slot x y colours
  {
    echo "$background_colours"
    echo "0,0 0,0,0"
    for slot in 1 2 3; do
      read -r x y < <(radio_origin "$slot")
      colours=$radio_off
      ((slot == $1)) && colours=$radio_on
      awk -v dx="$x" -v dy="$y" '{ split($1, c, ","); print c[1] + dx "," c[2] + dy, $2 }' <<<"$colours"
    done
  } | sort
}
window_points=$(expected_window 0 | cut -d' ' -f1 | tr '\n' ' ')
# window_shows_skin ACTIVE_SLOT: the window as the screen shows it matches expected_window;
# otherwise false, with the differences in $mismatch and the picture in window.png.
window_shows_skin() {
  local X Y WIDTH HEIGHT SCREEN WINDOW differences
  eval "$(xdotool getwindowgeometry --shell "$window")"
  import -window root -crop "${WIDTH}x${HEIGHT}+${X}+${Y}" -depth 8 "rgb:$work/window.rgb"
  differences=$(diff <(raw_pixels "$work/window.rgb" "$WIDTH" "$window_points") <(expected_window "$1") |
    grep '^[<>]' || true)
  [[ -z "$differences" ]] && return 0
  mismatch="$(grep -c '^<' <<<"$differences") of $(wc -w <<<"$window_points") points differ from the skin (< shown, > skin):
$(head -n 12 <<<"$differences")"
  convert -size "${WIDTH}x${HEIGHT}" -depth 8 "rgb:$work/window.rgb" "$work/window.png" || true
  return 1
}
# Polled: the controls repaint when the service connects and when a slot changes.
wait_for 20 window_shows_skin 0 || fail "the window: $mismatch"
ok "the window shows the default skin ($(wc -w <<<"$background_points") background points, corner, slot buttons)"

# --- (b) Global hot keys switch the voice effect slot -----------------------------------------------
effect_name() { "$app/larimoctl" status | sed -n "s/^Voice effect: $1 (\(.*\))\$/\1/p"; }
# hot_key_selects KEY SLOT(0-based, -1 off) WHAT
hot_key_selects() {
  local mark service_mark name
  mark=$(lines "$log")
  service_mark=$(lines "$service_log")
  press "$1"
  wait_for 20 effect_is "$2" || fail "$3: the settings say activeEffect=$(active_effect), not $2"
  if (($2 >= 0)); then
    name=$(effect_name $(($2 + 1)))
    [[ -n "$name" ]] || fail "$3: larimoctl does not show slot $(($2 + 1)): $("$app/larimoctl" status)"
    wait_for 20 service_log_after "$service_mark" "AudioPipeline: voice effect \"$name\" loaded" ||
      fail "$3: the service did not load \"$name\""
  else
    "$app/larimoctl" status | grep -q '^Voice effect: off$' || fail "$3: larimoctl does not show the effect off"
    wait_for 20 service_log_after "$service_mark" "MoAudioEffect::UnLoad" || fail "$3: the service kept its effect"
  fi
  log_after "$mark" "CLarimoDlg::OnHotKey(" || fail "$3: the panel did not log the hot key"
  ok "$3"
}
effect_is -1 || fail "a voice effect is active before any key was pressed: $(active_effect)"
hot_key_selects "${effect_key[1]}" 1 "Ctrl+Shift+F2 selects slot 2"
hot_key_selects "${effect_key[0]}" 0 "Ctrl+Shift+Y selects slot 1"
press Num_Lock
hot_key_selects "${effect_key[0]}" -1 "Ctrl+Shift+Y again, with NumLock on, switches slot 1 off"
press Num_Lock

# The keys that are off: the X server swallows Ctrl+Alt+F3, the other program gets Ctrl+Alt+P.
# X delivers in order, so once the next working key has acted these have been handled.
mark=$(lines "$log")
press ctrl+alt+F3 ctrl+alt+p
hot_key_selects "${effect_key[1]}" 1 "Ctrl+Shift+F2 still works beside the keys that are off"
log_after "$mark" "CLarimoDlg::OnHotKey(2)" && fail "Ctrl+Alt+F3 reached the panel"
log_after "$mark" "CLarimoDlg::OnHotKey(4)" && fail "Ctrl+Alt+P reached the panel, not the program that holds it"
wait_for 10 grep -q '^press' "$work/grab.out" || fail "the program holding Ctrl+Alt+P did not get it"
kill -0 "$panel_pid" 2>/dev/null || fail "the panel ended"
ok "the keys another program holds and the X server keeps stay off; the panel runs on"

# A new keyboard layout moves the letters (German: Y and Z change places); the grab follows.
if command -v setxkbmap >/dev/null; then
  remaps=$(log_count "X11HotKeys: the keyboard mapping changed")
  remapped() { (($(log_count "X11HotKeys: the keyboard mapping changed") > remaps)); }
  setxkbmap -layout de
  wait_for 20 remapped || fail "the panel did not notice the new keyboard layout"
  hot_key_selects "${effect_key[0]}" 0 "Ctrl+Shift+Y selects slot 1 on the German layout"
  remaps=$(log_count "X11HotKeys: the keyboard mapping changed")
  setxkbmap -layout us
  wait_for 20 remapped || fail "the panel did not notice the layout going back"
else
  echo "note: setxkbmap is not installed; the layout change is not tested"
  hot_key_selects "${effect_key[0]}" 0 "Ctrl+Shift+Y selects slot 1"
fi

# --- (c) Minimise to the tray and back ------------------------------------------------------------
minimise() { click_control Minimize; }
# No tray on this display: the window must stay reachable, so it stays on the screen.
mark=$(lines "$log")
minimise
wait_for 20 log_after "$mark" "the desktop has no system tray" || fail "minimise without a tray was not logged"
window_is IsViewable || fail "without a tray the window went away: $(map_state)"
ok "without a system tray the window stays on the screen"

"$helper" tray >"$work/tray.out" 2>&1 &
tray_pid=$!
wait_for 20 grep -q '^tray' "$work/tray.out" || fail "the tray did not start: $(cat "$work/tray.out")"
minimise
wait_for 20 grep -q '^docked' "$work/tray.out" || fail "no icon came into the tray"
if ! wait_for 20 window_is IsUnMapped; then
  kill -0 "$panel_pid" 2>/dev/null || fail "the panel ended when it went into the tray"
  fail "the window stayed on the screen: $(map_state)"
fi
read -r _ icon icon_x icon_y < <(grep '^docked' "$work/tray.out" | tail -n 1)
ok "minimised into the tray (icon $icon)"
hot_key_selects "${effect_key[1]}" 1 "Ctrl+Shift+F2 selects slot 2 while the panel is in the tray"
mark=$(lines "$log")
# A single click is the first half of a double-click: the window stays away.
xdotool mousemove "$icon_x" "$icon_y" click 1
sleep 1
window_is IsViewable && fail "a single click on the tray icon brought the window back"
xdotool mousemove "$icon_x" "$icon_y" click --repeat 2 --delay 80 1
wait_for 20 window_is IsViewable || fail "a double-click on the tray icon did not bring the window back: $(map_state)"
wait_for 20 grep -q "^undocked $icon" "$work/tray.out" || fail "the icon stayed in the tray"
log_after "$mark" "CLarimoDlg: restored from the tray" || fail "the restore was not logged"
xdotool mousemove 1000 10
wait_for 20 window_shows_skin 2 || fail "the restored window: $mismatch"
ok "the tray icon brings the window back, showing slot 2 on"

# --- Exit ends the panel ----------------------------------------------------------------------------
click_control Exit
panel_ended() { ! kill -0 "$panel_pid" 2>/dev/null; }
wait_for 30 panel_ended || fail "Exit did not end the panel"
status=0
wait "$panel_pid" || status=$?
panel_pid=""
((status == 0)) || fail "the panel ended with status $status"
ok "Exit ends the panel"

passed=1
echo "PASS"
