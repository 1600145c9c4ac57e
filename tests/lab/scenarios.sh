# Vistrel end-to-end scenarios, run inside the lab guest by guest-init.sh (bash, as root).
# vivid (a real V4L2 camera driver) -> Vistrel (its Debian package) -> v4l2loopback
# /dev/video10 -> real readers (ffmpeg, v4l2-ctl). Every assertion on the picture is on frames a
# reader got. The set-up scenarios at the end run Vistrel as an ordinary user through onboarding.
# Each test prints "LAB-TEST: <name> PASS|FAIL|SKIP <seconds> <summary>"; notes start "LAB:".

LB_NR=10
LB=/dev/video$LB_NR
# The session bus the app is driven through (Vistrel's own command line and its D-Bus
# interface), and the prefix that runs a command as the app's user ("" for root's app).
BUS=unix:path=/tmp/xdg/bus
ON_BUS=
BUS_PID=
APP_LOG=/tmp/vistrel.log
APP_PID=
FRAME_BYTES=$((1280 * 720 * 2))   # one 1280x720 YUYV frame
MOVIE=/tmp/ramp.mp4
ONLY=${ONLY:-.}
# Under software emulation (TCG) the guest CPU is ~10-20x slower than the host: Vistrel's
# per-frame work (scaling into the 1280x720 buffer, YUYV conversion) then outlasts one 1/30 s tick
# and, with one frame outstanding at a time, every second tick finds the sink busy: ~15 fps on
# a quiet host, and less when the host is busy. So under TCG a rate only shows that frames
# flow; the ~30 fps figure is asked for with KVM.
MIN_FPS=24
[ "${ACCEL:-tcg}" = tcg ] && MIN_FPS=5

uptime_s() { cut -d' ' -f1 /proc/uptime; }
note() { echo "LAB:   [$T_NAME] $*"; }
# vistrel ARGS...: the installed command line, talking to the running app over $BUS
vistrel_cmd() { $ON_BUS env DBUS_SESSION_BUS_ADDRESS="$BUS" /usr/bin/vistrel "$@"; }
app_status() { vistrel_cmd --status 2>&1; }
status_has() { app_status | grep -qw "$1"; }
# bus_call MEMBER ARGS...: a call on the app's object, as dbus-send prints its answer
bus_call() { $ON_BUS dbus-send --bus="$BUS" --print-reply --dest=app.vistrel.Vistrel /app/vistrel/Vistrel "$@" 2>&1; }
# the cameras of the window's chooser, one per line
cameras() { bus_call org.freedesktop.DBus.Properties.Get string:app.vistrel.Vistrel1 string:Cameras \
  | sed -n 's/^ *string "\(.*\)"$/\1/p'; }
# start_bus: a session bus at $BUS for the app's user
start_bus() { BUS_PID=$($ON_BUS dbus-daemon --session --fork --address="$BUS" --print-pid 2>/dev/null); }
stop_bus() { [ -n "$BUS_PID" ] && kill "$BUS_PID" 2>/dev/null; BUS_PID=; true; }

# ---------------------------------------------------------------- test bookkeeping
# run_test NAME FUNCTION [TRIES]: runs the function; it records failures with `expect` and may
# skip itself by setting T_SKIP. Tests whose name does not match $ONLY (a regex) are not run.
# Tests judged by rates and phase lengths get a second try (TRIES=2): a busy emulator can slow
# the guest for a while, which a fault in Vistrel would not do twice in a row.
run_test() {
  T_NAME=$1 T_FAILED=0 T_SKIP= T_SUMMARY=
  echo "$T_NAME" | grep -qE "$ONLY" || return 0
  local t0; t0=$(uptime_s)
  echo "LAB: ---- $T_NAME"
  "$2"
  local try=1
  while [ "$T_FAILED" != 0 ] && [ "$try" -lt "${3:-1}" ]; do
    try=$((try + 1)); note "failed; try $try of ${3:-1}"
    T_FAILED=0 T_SKIP= T_SUMMARY="try $try"
    "$2"
  done
  local status=PASS
  [ "$T_FAILED" = 0 ] || status=FAIL
  [ -n "$T_SKIP" ] && [ "$T_FAILED" = 0 ] && { status=SKIP; T_SUMMARY=$T_SKIP; }
  if [ "$status" = FAIL ] && [ -f "$APP_LOG" ]; then
    tail -n 15 "$APP_LOG" | sed "s/^/LAB:   [$T_NAME] app: /"
  fi
  echo "LAB-TEST: $T_NAME $status $(echo "$(uptime_s) $t0" | awk '{printf "%.1f", $1-$2}') $T_SUMMARY"
}
# expect DESCRIPTION COMMAND...: the command's success is the assertion.
expect() {
  local what=$1; shift
  if "$@"; then note "ok: $what"; else note "FAILED: $what"; T_FAILED=1; return 1; fi
}
summary() { T_SUMMARY="${T_SUMMARY:+$T_SUMMARY; }$*"; note "$*"; }
between() { awk -v v="$1" -v lo="$2" -v hi="$3" 'BEGIN{exit !(v != "" && v+0 >= lo && v+0 <= hi)}'; }
at_most() { awk -v v="$1" -v hi="$2" 'BEGIN{exit !(v != "" && v+0 <= hi)}'; }
at_least() { awk -v v="$1" -v lo="$2" 'BEGIN{exit !(v != "" && v+0 >= lo)}'; }

# ---------------------------------------------------------------- the device and the app
offers_capture() { v4l2-ctl -d "$LB" --info 2>/dev/null | sed -n '/Device Caps/,$p' | grep -q 'Video Capture'; }
wait_for() { # seconds command...: retries the command until it succeeds or the time is up
  local end; end=$(echo "$(uptime_s) $1" | awk '{print $1 + $2}'); shift
  until "$@"; do
    awk -v now="$(uptime_s)" -v end="$end" 'BEGIN{exit !(now >= end)}' && return 1
    sleep 0.2
  done
}
# end_pid PID: SIGTERM (background jobs of a script ignore SIGINT), SIGKILL after 5 s, reap it
end_pid() {
  kill -TERM "$1" 2>/dev/null
  wait_for 5 eval "! kill -0 $1 2>/dev/null" || kill -KILL "$1" 2>/dev/null
  wait "$1" 2>/dev/null
}
app_alive() { [ -n "$APP_PID" ] && kill -0 "$APP_PID" 2>/dev/null; }
chooser_filled() { [ -n "$(cameras)" ]; }

start_app() {
  stop_bus
  rm -rf /tmp/home /tmp/xdg; mkdir -p /tmp/home/.config/Vistrel /tmp/xdg; chmod 700 /tmp/xdg
  start_bus || { note "no session bus at $BUS"; return 1; }
  # onboarding done and the extension installed: the app takes the main-window path at once
  printf '[General]\nonboardingComplete=true\nextensionInstalled=true\n' >/tmp/home/.config/Vistrel/Vistrel.conf
  # each line of the app's output stamped with the guest's uptime
  (cd /tmp/home && exec env HOME=/tmp/home XDG_RUNTIME_DIR=/tmp/xdg QT_QPA_PLATFORM=offscreen \
     VISTREL_UPDATE_URL=http://127.0.0.1:9/updates/latest.json DBUS_SESSION_BUS_ADDRESS="$BUS" \
     /usr/bin/vistrel) > >(while IFS= read -r line; do read -r up _ </proc/uptime; printf '%s %s\n' "$up" "$line"; done >"$APP_LOG") 2>&1 &
  APP_PID=$!
  local t0; t0=$(uptime_s)
  if wait_for 90 chooser_filled; then
    note "vistrel (pid $APP_PID) up, chooser filled after $(echo "$(uptime_s) $t0" | awk '{printf "%.1f", $1-$2}')s"
  else
    note "vistrel did not fill its camera chooser within 90 s (alive: $(app_alive && echo yes || echo no); status: $(app_status))"
    tail -n 20 "$APP_LOG" | sed 's/^/LAB:     app: /'
  fi
}
# A process whose exit closes a descriptor of a force-unloaded v4l2loopback oopses in
# v4l2_release and never finishes exiting ("Fixing recursive fault but reboot is
# needed!"): it is noted and left, not waited for, so the run can end.
stop_app() {
  app_alive || { APP_PID=; return 0; }
  kill -TERM "$APP_PID" 2>/dev/null
  wait_for 10 eval '! app_alive' || kill -KILL "$APP_PID" 2>/dev/null
  if wait_for 10 eval '! app_alive'; then
    wait "$APP_PID" 2>/dev/null
  else
    echo "LAB: vistrel (pid $APP_PID) did not finish exiting (state $(awk '{print $3}' "/proc/$APP_PID/stat" 2>/dev/null), in $(cat "/proc/$APP_PID/wchan" 2>/dev/null)); left behind"
  fi
  APP_PID=
  stop_bus
}
load_loopback() { # loader args...
  unload_loopback
  "$@" devices=1 video_nr=$LB_NR card_label=Vistrel exclusive_caps=1 2>/tmp/load.err \
    || { echo "LAB: loading v4l2loopback failed: $(cat /tmp/load.err)"; return 1; }
  wait_for 10 test -c "$LB"
}
unload_loopback() {
  [ -d /sys/module/v4l2loopback ] || return 0
  modprobe -r v4l2loopback 2>/dev/null || rmmod v4l2loopback 2>/dev/null \
    || echo "LAB: v4l2loopback stays loaded (in use $(cat /sys/module/v4l2loopback/refcnt 2>/dev/null) times)"
  true
}

# ---------------------------------------------------------------- readers
# frames_md5 COUNT FILE: ffmpeg reads COUNT frames from the loopback device, one md5 per frame.
frames_md5() {
  timeout 90 ffmpeg -hide_banner -nostdin -loglevel error -y -f v4l2 -i "$LB" -fps_mode passthrough \
    -frames:v "$1" -f framemd5 "$2" 2>"$2.err"
}
# md5_stats FILE: "frames distinct size fps longest-identical-run"
md5_stats() {
  awk -F', *' '/^#tb/{split($0,a,"/"); tb=1/a[2]} /^[0-9]/{n++; if(!($6 in seen)){seen[$6]=1; d++}
    if($6==prev){run++} else {run=1} if(run>maxrun)maxrun=run; prev=$6; size=$5; if(n==1)t0=$3; t1=$3}
    END{fps=(n>1&&t1>t0)?(n-1)/((t1-t0)*tb):0; printf "%d %d %d %.1f %d\n", n, d, size, fps, maxrun}' "$1"
}
# until_distinct WANT SECONDS FILE: reads the device 30 frames at a time until the frames
# read hold WANT distinct pictures or SECONDS have passed; prints "frames distinct size".
# How many distinct pictures a fixed number of frames holds is the camera's rate, not
# Vistrel's: vivid under emulation renders one picture every few ticks, fewer on a busy
# host. Reading until enough have come, within a generous deadline, tells a live picture
# from a held one whatever the emulator's speed.
until_distinct() {
  local want=$1 end; end=$(echo "$(uptime_s) $2" | awk '{print $1 + $2}')
  : >"$3"
  local n=0 d=0 size=0
  while :; do
    frames_md5 30 "$3.part"
    grep -E '^[0-9]' "$3.part" >>"$3"
    read -r n d size <<<"$(awk -F', *' '{n++; if(!($6 in seen)){seen[$6]=1; d++} size=$5} END{printf "%d %d %d\n", n, d, size}' "$3")"
    [ "$d" -ge "$want" ] && break
    awk -v now="$(uptime_s)" -v end="$end" 'BEGIN{exit !(now >= end)}' && break
    grep -qE '^[0-9]' "$3.part" || break   # the reader got nothing: no point waiting
  done
  echo "$n $d $size"
}
# stream_seq COUNT LOG: v4l2-ctl reads COUNT buffers; prints "buffers first-seq last-seq fps-by-timestamps"
stream_seq() {
  timeout 90 v4l2-ctl -d "$LB" --stream-mmap --stream-count="$1" --stream-to=/dev/null --verbose >"$2" 2>&1
  awk '/cap dqbuf/{n++; for(i=1;i<=NF;i++){if($i=="seq:")s=$(i+1); if($i=="ts:")t=$(i+1)}
         if(n==1)f=s; l=s; if(n==2)t0=t; t1=t}
       END{printf "%d %s %s %s\n", n, (n?f:"-"), (n?l:"-"), (n>2&&t1>t0)?sprintf("%.1f",(n-2)/(t1-t0)):"0"}' "$2"
}

# ---------------------------------------------------------------- scenarios
EXTENSION_ID=app.vistrel.Vistrel.cameraextension
HELPER=/usr/libexec/vistrel/vistrel-camera-extension-helper
helper() { # verb: runs the installed helper as root (no pkexec), its one answer line in $ANSWER
  local rc=0
  ANSWER=$("$HELPER" "$1" "$EXTENSION_ID" 2>/tmp/helper.err) || rc=$?
  note "helper $1 -> rc=$rc: $ANSWER$( [ -s /tmp/helper.err ] && echo " (stderr: $(tr '\n' ' ' </tmp/helper.err))")"
  return $rc
}
vistrel_nodes() { grep -l Vistrel /sys/class/video4linux/*/name 2>/dev/null | sed 's|/sys/class/video4linux/\(.*\)/name|/dev/\1|'; }
test_install() {
  if [ ! -x "$HELPER" ]; then T_SKIP="not yet built: no installation helper at $HELPER"; return; fi
  unload_loopback
  expect "no Vistrel device before activation" [ -z "$(vistrel_nodes)" ]
  helper activate
  expect "activate completes (outcome completed)" [ "$ANSWER" = "outcome completed" ]
  expect "the module configuration is installed in /etc/modprobe.d" sh -c 'grep -qs v4l2loopback /etc/modprobe.d/*'
  local node; node=$(vistrel_nodes | head -n1)
  expect "a video device named Vistrel exists (${node:-none})" [ -n "$node" ]
  helper status
  local status=$ANSWER
  # the records the app's probes read: the installed configuration's state, the live module,
  # and a video4linux device whose name contains "Vistrel"
  # "installed" (the record in state activated_enabled) = configuration installed + module live
  expect "probe: installed (configuration installed, module live)" sh -c "echo '$status' | grep -q 'installed=[0-9]' && echo '$status' | grep -q 'module=loaded'"
  expect "probe: activated (module loaded, camera $node)" sh -c "echo '$status' | grep -q 'module=loaded' && echo '$status' | grep -q 'camera=$node'"
  helper deactivate
  expect "deactivate completes (outcome completed)" [ "$ANSWER" = "outcome completed" ]
  expect "no Vistrel device is left" [ -z "$(vistrel_nodes)" ]
  expect "the module configuration is removed" sh -c '! grep -qs v4l2loopback /etc/modprobe.d/*'
  helper status
  expect "probe: no longer installed" sh -c "echo '$ANSWER' | grep -q 'installed=none'"
  summary "activate -> $node; status: $(echo "$status" | sed 's/^status //')"
}

# Before Vistrel writes, the loopback device is no capture device; once its sink started, readers
# find a 1280x720 YUYV capture device. (Starts the app for the tests that follow.)
test_exclusive_caps() {
  expect "before Vistrel: the device offers no Video Capture" eval '! offers_capture'
  expect "before Vistrel: a reader cannot open it for capture" \
    eval '! timeout 20 ffmpeg -hide_banner -nostdin -loglevel error -f v4l2 -i "$LB" -frames:v 1 -f null - 2>/dev/null'
  start_app
  expect "vistrel is running" app_alive
  expect "after the sink started: Video Capture offered" wait_for 30 offers_capture
  local fmt; fmt=$(v4l2-ctl -d "$LB" --get-fmt-video 2>&1)
  expect "a reader opens it and finds 1280x720 YUYV" sh -c "echo '$fmt' | grep -q 'Width/Height *: *1280/720' && echo '$fmt' | grep -q YUYV"
  summary "caps before: $(v4l2-ctl -d "$LB" --info 2>/dev/null | sed -n '/Device Caps/,$p' | grep -cE 'Video (Capture|Output)') video cap(s) now; $(echo "$fmt" | grep -E 'Width|Pixel' | tr -d '\t' | tr '\n' ' ')"
}

# Frames Vistrel has written so far: its write() bytes (/proc/PID/io wchar) in whole 1280x720
# YUYV frames. The sink writes every frame with write(), so this counts exactly what the app
# sent, whichever v4l2loopback release numbers the buffers.
frames_written() { awk -v f="$FRAME_BYTES" '/^wchar:/{printf "%d\n", $2 / f}' "/proc/$APP_PID/io"; }
# written_during SECONDS: frames written in that many seconds, and the rate: "frames fps"
written_during() {
  local w0 t0 w1 t1; w0=$(frames_written); t0=$(uptime_s)
  sleep "$1"
  w1=$(frames_written); t1=$(uptime_s)
  echo "$((w1 - w0)) $(echo "$w1 $w0 $t1 $t0" | awk '{printf "%.1f", ($1-$2)/($3-$4)}')"
}

# The reader-count gate. 0.13+: nothing is written while no one reads; a reader starts the flow
# within the 2 s poll; after it leaves the flow stops. 0.12.x has no reader count: it just streams.
test_streaming_gate() {
  local gated=$1
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  sleep 3   # past any frames of the start-up
  local idle idle_fps; read -r idle idle_fps <<<"$(written_during 6)"
  note "no reader: $idle frames written in 6 s ($idle_fps fps)"
  # a reader for ~8 s; Vistrel's writes are measured from 3 s in (past the 2 s poll)
  v4l2-ctl -d "$LB" --stream-mmap --stream-count=100000 --stream-to=/dev/null --verbose >/tmp/gate.log 2>&1 &
  local reader=$!
  sleep 3
  local busy busy_fps; read -r busy busy_fps <<<"$(written_during 5)"
  end_pid $reader
  local n fps; n=$(grep -c 'cap dqbuf' /tmp/gate.log)
  fps=$(awk '/cap dqbuf/{for(i=1;i<=NF;i++) if($i=="ts:") t[++n]=$(i+1)} END{if(n>2&&t[n]>t[2]) printf "%.1f", (n-2)/(t[n]-t[2]); else print 0}' /tmp/gate.log)
  note "reader present: Vistrel wrote $busy frames in 5 s ($busy_fps fps); the reader got $n frames, $fps fps by their timestamps"
  expect "with a reader Vistrel writes at ~30 fps ($MIN_FPS..36 under ${ACCEL:-tcg})" between "$busy_fps" "$MIN_FPS" 36
  expect "and the reader receives frames (>= $MIN_FPS fps)" at_least "$fps" "$MIN_FPS"
  local fmt; fmt=$(v4l2-ctl -d "$LB" --get-fmt-video 2>&1 | grep -E 'Width|Pixel' | tr -d '\t' | tr '\n' ' ')
  expect "1280x720 YUYV at the reader" sh -c "echo '$fmt' | grep -q '1280/720' && echo '$fmt' | grep -q YUYV"
  sleep 3   # the poll notices the departure within 2 s
  local after after_fps; read -r after after_fps <<<"$(written_during 5)"
  note "reader gone: $after frames written in 5 s"
  if [ "$gated" = yes ]; then
    expect "no reader: nothing written after the first frame ($idle in 6 s)" [ "$idle" -le 1 ]
    expect "the reader left: the flow stopped ($after in 5 s)" [ "$after" -le 1 ]
    summary "no reader: $idle frames/6 s; reader: $busy_fps fps written, $fps fps received; left: $after frames/5 s"
  else
    expect "no reader count: Vistrel streams anyway ($idle_fps fps, $MIN_FPS..36)" between "$idle_fps" "$MIN_FPS" 36
    summary "no reader: $idle_fps fps written; reader: $busy_fps fps written, $fps fps received"
  fi
}

# The effects need a live picture. Should the camera not deliver (see camera-in), the user picks
# it in the chooser; a camera that is live is left alone (picking it again restarts capture).
picture_is_live() {
  local n d rest; read -r n d rest <<<"$(until_distinct 3 20 /tmp/probe.md5)"
  [ "$d" -ge 3 ]
}
pick_vivid() {
  picture_is_live && return 0
  local name; name=$(cameras | grep -i -m1 vivid)
  [ -n "$name" ] || { note "no vivid in the chooser: $(cameras | paste -sd'|')"; return 1; }
  note "picture not live: SelectCamera \"$name\" -> $(bus_call app.vistrel.Vistrel1.SelectCamera string:"$name" | tail -n1)"
  sleep 2; picture_is_live
}

test_camera_in() {
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  local cams; cams=$(cameras)
  note "chooser (D-Bus Cameras): $(echo "$cams" | paste -sd'|')"
  expect "vivid is listed in the chooser" sh -c "echo '$cams' | grep -qi vivid"
  expect "the loopback device (Vistrel) is not listed" sh -c "! echo '$cams' | grep -qx Vistrel"
  frames_md5 90 /tmp/cam.md5
  local n d size fps run; read -r n d size fps run <<<"$(md5_stats /tmp/cam.md5)"
  expect "90 frames read" [ "$n" = 90 ]
  expect "each frame is 1280x720 YUYV ($FRAME_BYTES bytes)" [ "$size" = "$FRAME_BYTES" ]
  local first_d=$d more_n more_d
  read -r more_n more_d _ <<<"$(until_distinct 10 60 /tmp/cam-more.md5)"
  expect "the frames change over time (10 distinct pictures within 60 s: $more_d in $more_n frames)" at_least "$more_d" 10
  summary "$n frames, $first_d distinct, $size bytes each, $fps fps, longest identical run $run; 10 distinct: $more_d in $more_n frames"
}

test_freeze() {
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  expect "the picture is live (vivid picked in the chooser if need be)" pick_vivid
  local a n d size fps run
  # vivid renders a few pictures a second on a busy emulator (4 in 30 frames seen): three
  # distinct pictures tell a live camera from a held one.
  read -r n d size <<<"$(until_distinct 3 30 /tmp/live.md5)"
  expect "live before Freeze ($d distinct in $n frames, 3 wanted)" at_least "$d" 3
  a=$(vistrel_cmd --freeze on 2>&1); note "vistrel --freeze on -> rc=$? $a"
  expect "frozen over the session bus ($(app_status))" status_has frozen=true
  # a camera picture converted just before the press may still land (by design); let it pass
  sleep 1.5
  # A new reader first gets what the device still holds from before the press (v4l2loopback
  # replays its buffers, and on 0.13+ Vistrel writes again only once its poll sees the reader):
  # the first 10 frames read are left out.
  frames_md5 70 /tmp/frozen-all.md5
  awk '/^#/{print; next} ++n > 10' /tmp/frozen-all.md5 >/tmp/frozen.md5
  read -r n d size fps run <<<"$(md5_stats /tmp/frozen.md5)"
  expect "frozen: $n frames all byte-identical (distinct $d)" sh -c "[ $n = 60 ] && [ $d = 1 ]"
  local frozen="$n frames, $d distinct at $fps fps"
  local hash; hash=$(awk -F', *' '/^[0-9]/{print $6; exit}' /tmp/frozen.md5)
  a=$(vistrel_cmd --freeze off 2>&1); note "vistrel --freeze off -> rc=$? $a"
  expect "released over the session bus ($(app_status))" status_has frozen=false
  sleep 0.5
  read -r n d size <<<"$(until_distinct 5 40 /tmp/thawed.md5)"
  expect "after Unfreeze the frames change again ($d distinct in $n frames, 5 wanted)" at_least "$d" 5
  expect "and leave the frozen picture" sh -c "[ \$(grep -c '$hash' /tmp/thawed.md5) -le 2 ]"
  summary "over D-Bus: frozen: $frozen; after --freeze off: $n frames, $d distinct"
}

test_stutter() {
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  expect "the picture is live (vivid picked in the chooser if need be)" pick_vivid
  local a; a=$(vistrel_cmd --stutter on 2>&1); note "vistrel --stutter on -> rc=$? $a"
  expect "stuttering over the session bus" status_has stuttering=true
  frames_md5 240 /tmp/stutter.md5
  # runs of identical frames with their durations
  awk -F', *' '/^#tb/{split($0,x,"/"); tb=1/x[2]} /^[0-9]/{t=$3*tb; if($6!=prev){if(n)print start, last-start+1/30, n; start=t; n=0} n++; last=t; prev=$6}
       END{print start, last-start+1/30, n}' /tmp/stutter.md5 >/tmp/stutter.runs
  # What the reader sees of a frozen second depends on how often vivid renders (every few
  # ticks under emulation): the camera's last picture before the freeze already repeats, so a
  # frozen run starts early, and a live second can show a single new picture that then runs on
  # into the next frozen one. A frozen second holds one picture for at least 0.8 s at the
  # reader even at 5 fps; a live picture lasts that long only if vivid stalls for most of a
  # second (its longest gap seen is ~0.6 s). The end of a frozen run is sharp: the release
  # shows the picture the camera rendered meanwhile. So the alternation is judged by the ends
  # of runs of 0.8 s or more, and their lengths only where the capture did not cut the run.
  local frozen lens live periods
  frozen=$(awk '$2>=0.8' /tmp/stutter.runs | wc -l)
  lens=$(sed '1d;$d' /tmp/stutter.runs | awk '$2>=0.8{printf "%.2f ", $2}')
  live=$(awk '$2>=0.8{if(seen)printf "%.2f ", $1-e; e=$1+$2; seen=1}' /tmp/stutter.runs)
  periods=$(sed '$d' /tmp/stutter.runs | awk '$2>=0.8{if(seen)printf "%.2f ", $1+$2-e; e=$1+$2; seen=1}')
  note "frozen runs (s): $lens; live between them (s): $live; between releases (s): $periods"
  expect "at least 3 frozen phases in the frames read ($frozen)" at_least "$frozen" 3
  # A frozen run holds at most a live second's tail plus the frozen second, never two periods.
  expect "frozen runs last at most 2.4 s" sh -c "[ -n '$lens' ] && for v in $lens; do awk -v v=\$v 'BEGIN{exit !(v<=2.4)}' || exit 1; done"
  # A release shows at the reader with the camera's next picture, which on a slow emulator
  # can come half a second late: one period then reads long and the next short (2.43 then
  # 1.57 s seen). The mean from the first release to the last is what the effect sets;
  # each period only has to stay well clear of one or three seconds.
  local mean; mean=$(echo "$periods" | awk '{for(i=1;i<=NF;i++)s+=$i; if(NF)printf "%.2f", s/NF}')
  expect "the picture is released every ~2 s (mean $mean in 1.7..2.3, each in 1.2..2.8)" sh -c "[ -n '$periods' ] && awk -v v='$mean' 'BEGIN{exit !(v>=1.7 && v<=2.3)}' && for v in $periods; do awk -v v=\$v 'BEGIN{exit !(v>=1.2 && v<=2.8)}' || exit 1; done"
  a=$(vistrel_cmd --stutter off 2>&1); note "vistrel --stutter off -> rc=$? $a"
  expect "Stutter stopped over the session bus" status_has stuttering=false
  sleep 0.5
  frames_md5 60 /tmp/after-stutter.md5
  local n d size fps run; read -r n d size fps run <<<"$(md5_stats /tmp/after-stutter.md5)"
  # Still stuttering, a picture would be held a second (0.8 s at the reader or more); a live
  # picture is held only as long as the camera takes to render the next (0.6 s at most seen).
  local held; held=$(awk -v r="$run" -v f="$fps" 'BEGIN{printf "%.2f", (f > 0) ? r / f : 99}')
  expect "after Stop the picture is live (longest identical run $run frames, ${held} s < 0.8 s)" \
    awk -v h="$held" 'BEGIN{exit !(h < 0.8)}'
  summary "$frozen frozen runs, inner ones ${lens}s, live ${live}s, between releases ${periods}s"
}

# The camera's light. 0.13+: with the window hidden and no reader, Vistrel lets the real camera
# (vivid) go after a 5 s grace and takes it back when a reader starts; the reader gets live
# frames soon after. 0.12 reports no readers: the camera stays in use. "In use" is what a camera's
# light follows: streaming, which GStreamer's V4L2 source does on a thread of its own named after
# it (asking vivid itself would take the camera from Vistrel). The descriptors Vistrel keeps on
# the device are noted beside it.
app_threads() { cat /proc/"$APP_PID"/task/*/comm 2>/dev/null | sort | uniq -c | awk '{printf "%s%s ", $2, ($1 > 1 ? "x" $1 : "")}'; }
camera_free() { ! cat /proc/"$APP_PID"/task/*/comm 2>/dev/null | grep -q '^v4l2src'; }
reopened_since() { awk -v t="$1" '/camera reopened/ && $1 >= t' "$APP_LOG" | grep -q .; }
camera_fds() { ls -l "/proc/$APP_PID/fd" 2>/dev/null | grep -c " -> $VIVID\$"; }
cpu_ticks() { awk '{print $14 + $15}' "/proc/$APP_PID/stat"; }
since() { echo "$(uptime_s) $1" | awk '{printf "%.2f", $1 - $2}'; }
# new_pictures FILE FROM: pictures in FILE after line FROM that none of the first FROM frames showed
new_pictures() { awk -F', *' -v from="$2" '/^[0-9]/{n++; if(n<=from){old[$6]=1} else if(!($6 in old) && !($6 in seen)){seen[$6]=1; d++}} END{print d+0}' "$1"; }
test_camera_light() {
  local gated=$1
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  vistrel_cmd --freeze off >/dev/null 2>&1
  frames_md5 5 /tmp/light-pre.md5
  expect "after a reader, Vistrel streams from vivid (threads: $(app_threads))" wait_for 10 eval '! camera_free'
  if [ "$gated" != yes ]; then
    sleep 10
    expect "no reader count: the camera stays in use 10 s after the last reader" eval '! camera_free'
    summary "no reader count: camera kept in use"
    return
  fi
  local t0; t0=$(uptime_s)
  expect "no reader, window hidden: the camera is let go (5 s grace): no V4L2 streaming thread" \
    wait_for 30 camera_free
  local gone fds; gone=$(since "$t0"); fds=$(camera_fds)
  # CPU with the camera released, nobody reading
  local c0 t1 hz; hz=$(getconf CLK_TCK); c0=$(cpu_ticks); t1=$(uptime_s); sleep 20
  local cpu; cpu=$(echo "$(cpu_ticks) $c0 $hz $(since "$t1")" | awk '{printf "%.2f", ($1 - $2) / $3 / $4 * 100}')
  expect "still released 20 s later" camera_free
  # a reader starts: the camera is taken again and live pictures reach the reader
  local start; start=$(uptime_s)
  timeout 60 ffmpeg -hide_banner -nostdin -loglevel error -y -f v4l2 -i "$LB" -fps_mode passthrough \
    -frames:v 300 -flush_packets 1 -f framemd5 /tmp/light.md5 2>/tmp/light.err &
  local reader=$! opened=- live=- at
  if wait_for 20 reopened_since "$start"; then
    opened=$(since "$start"); at=$(grep -cE '^[0-9]' /tmp/light.md5 2>/dev/null || echo 0)
    wait_for 20 eval '[ "$(new_pictures /tmp/light.md5 '"$at"')" -ge 2 ]' && live=$(since "$start")
  fi
  end_pid $reader
  expect "the reader took the camera back (${opened} s)" [ "$opened" != - ]
  # frozen across a release: frozen now, released, then read
  vistrel_cmd --freeze on >/dev/null 2>&1
  wait_for 30 camera_free
  frames_md5 40 /tmp/light-frozen.md5
  local n; read -r n _ <<<"$(md5_stats /tmp/light-frozen.md5)"
  local frozen_after; frozen_after=$(awk -F', *' '/^[0-9]/{if(++n>10 && !($6 in s)){s[$6]=1; d++}} END{print d+0}' /tmp/light-frozen.md5)
  vistrel_cmd --freeze off >/dev/null 2>&1
  note "free ${gone}s after the last reader left ($fds descriptor(s) on $VIVID kept); CPU while released ${cpu}% of a core; reader: camera taken ${opened}s, live pictures ${live}s after its start"
  local budget=1.5 cpu_budget=0.2
  # Under emulation the guest runs ~10-20x slower than the host: the same work takes longer.
  [ "${ACCEL:-tcg}" = tcg ] && budget=4 cpu_budget=3
  expect "live frames at a new reader within ${budget} s (${live} s)" at_most "$live" "$budget"
  expect "CPU with the camera released <= ${cpu_budget}% of a core (${cpu}%)" at_most "$cpu" "$cpu_budget"
  expect "frozen across the release: one picture after the first 10 frames ($frozen_after in $((n - 10)))" [ "$frozen_after" = 1 ]
  summary "camera free ${gone}s after the last reader ($fds fd kept); CPU released ${cpu}%; new reader: camera ${opened}s, live ${live}s; frozen across: $frozen_after picture"
}
test_camera_light_yes() { test_camera_light yes; }
test_camera_light_no() { test_camera_light no; }

# A movie whose brightness ramps up over 2 s: forwards the readers see the ramp rise, backwards fall.
make_movie() {
  [ -f "$MOVIE" ] && return 0
  ffmpeg -hide_banner -nostdin -loglevel error -y -f lavfi \
    -i "color=c=black:s=320x240:r=24:d=2,geq=lum='clip(24+T*100\,16\,235)':cb=128:cr=128" \
    -c:v mpeg4 -q:v 2 -g 12 -pix_fmt yuv420p "$MOVIE"
}
test_movie() {
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  expect "a test movie was made" make_movie
  local a; a=$(vistrel_cmd --movie "$MOVIE" 2>&1); note "vistrel --movie $MOVIE -> rc=$? $a"
  expect "the movie plays ($(app_status))" status_has movie=true
  timeout 90 ffmpeg -hide_banner -nostdin -loglevel error -y -f v4l2 -i "$LB" -frames:v 300 \
    -vf "signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=/tmp/movie.yavg" -f null - 2>/tmp/movie.err
  grep -o 'YAVG=[0-9.]*' /tmp/movie.yavg | cut -d= -f2 >/tmp/movie.y
  note "mean luma of the frames read: $(awk '{printf "%d ", $1}' /tmp/movie.y | cut -c1-600)"
  # a rising pass then a falling pass, each moving through the middle of the ramp (not a jump back)
  local verdict; verdict=$(awk '
    {y[NR]=$1}
    END{lo=70; hi=180; state=0; mid=0; ups=0; downs=0
      for(i=1;i<=NR;i++){v=y[i]
        if(state==0 && v<=lo){state=1; mid=0}
        else if(state==1){ if(v>lo && v<hi) mid++; if(v>=hi){ if(mid>=5) ups++; state=2; mid=0 } if(v<=lo) mid=0 }
        else if(state==2){ if(v>lo && v<hi) mid++; if(v<=lo){ if(mid>=5) downs++; state=1; mid=0 } if(v>=hi) mid=0 }
      }
      printf "%d %d\n", ups, downs}' /tmp/movie.y)
  local ups downs; read -r ups downs <<<"$verdict"
  expect "the movie reached the reader forwards ($ups rising passes)" at_least "$ups" 1
  expect "and then backwards ($downs falling passes)" at_least "$downs" 1
  a=$(vistrel_cmd --stop-movie 2>&1); note "vistrel --stop-movie -> rc=$? $a"
  expect "the movie stopped" status_has movie=false
  summary "$(wc -l </tmp/movie.y) frames: $ups rising and $downs falling passes"
}

# Faults around a streaming Vistrel: the loopback device removed under it, a reader killed.
# v4l2loopback refuses to delete a device that is open (CTL_REMOVE answers EBUSY on 0.13+; 0.12
# has no delete and `rmmod` answers "in use"), so removal takes a forced unload (`rmmod -f`, the
# guest kernel allows it). After that every V4L2 ioctl on a still-open descriptor oopses in the
# kernel (v4l2_ioctl reaches the unloaded module) and kills the calling thread, whoever it is;
# write() answers ENODEV. Vistrel only writes to the device on 0.12, where the driver reports
# no readers, so the forced removal is done there (FORCE=yes), with no reader attached, as the
# last test of the run; on 0.13+ its 2 s reader-count poll is an ioctl.
test_fault() {
  local force=$1
  app_alive || { T_FAILED=1; note "vistrel is not running"; return; }
  v4l2-ctl -d "$LB" --stream-mmap --stream-count=100000 --stream-to=/dev/null >/tmp/fault-reader.log 2>&1 &
  local reader=$!
  sleep 3
  local out rc=0
  if [ -e /dev/v4l2loopback ]; then
    out=$(lb-remove $LB_NR 2>&1) || rc=$?
    note "delete /dev/video$LB_NR while streaming (as v4l2loopback-ctl delete): $out"
  else
    out=$(rmmod v4l2loopback 2>&1) || rc=$?
    note "rmmod v4l2loopback while streaming: ${out:-removed}"
  fi
  expect "v4l2loopback refuses to remove the open device" sh -c "[ $rc != 0 ] && [ -e $LB ]"
  kill -KILL $reader 2>/dev/null; wait $reader 2>/dev/null
  note "reader killed with SIGKILL while streaming"
  sleep 3
  expect "vistrel keeps running" app_alive
  local on off; vistrel_cmd --freeze on >/dev/null 2>&1; on=$(app_status)
  vistrel_cmd --freeze off >/dev/null 2>&1; off=$(app_status)
  expect "and answers its controls (frozen, then not: $on / $off)" \
    sh -c "echo '$on' | grep -qw frozen=true && echo '$off' | grep -qw frozen=false"
  frames_md5 30 /tmp/after-fault.md5
  local n d size fps run; read -r n d size fps run <<<"$(md5_stats /tmp/after-fault.md5)"
  expect "a new reader gets frames ($n of 30)" [ "$n" = 30 ] || note "reader: $(tail -c 300 /tmp/after-fault.md5.err)"
  summary "removal refused; reader killed; then $n frames at $fps fps"
  [ "$force" = yes ] || return 0

  local before; before=$(frames_written)
  out=$(rmmod -f v4l2loopback 2>&1) || { note "rmmod -f failed: $out"; T_SKIP="forced unload not possible here: $out"; return; }
  note "rmmod -f v4l2loopback while Vistrel streams: done ($before frames written so far)"
  sleep 6
  note "frames written in the 6 s after the removal (whole frames of bytes written): $(( $(frames_written) - before ))"
  expect "the device is gone" test ! -e "$LB"
  expect "vistrel keeps running" app_alive
  a=$(vistrel_cmd --freeze on 2>&1); note "vistrel --freeze on -> rc=$? $a"
  expect "and answers its controls ($(app_status))" status_has frozen=true
  local logged; logged=$(grep -E "$LB" "$APP_LOG" | grep -iE 'fail|error' | tail -n 2 | tr '\n' ' ')
  local after; after=$(( $(frames_written) - before ))
  local late; read -r late _ <<<"$(written_during 3)"
  note "app log about the device: ${logged:-nothing}; threads: $(for t in /proc/$APP_PID/task/*; do printf '%s:%s:%s ' "$(cat $t/comm)" "$(awk '{print $3}' $t/stat)" "$(cat $t/wchan 2>/dev/null)"; done)"
  note "kernel: $(dmesg | grep -m1 -iE 'Oops|BUG:|general protection' || echo 'no oops')"
  # A write that fails is logged. A forced unload can also leave the writer's write() inside
  # the vanished module for good, or oops the kernel inside it, which ends that thread: then
  # nothing returns to log, and after a frame or two nothing more is written.
  expect "the failure is logged, or the writer never came back from the kernel ($after frames since, $late in the last 3 s)" \
    sh -c "[ -n '$logged' ] || [ $late -eq 0 ]"
  expect "logged once, not once per frame ($(grep -c "Writing to $LB failed" "$APP_LOG") lines)" \
    [ "$(grep -c "Writing to $LB failed" "$APP_LOG")" -le 2 ]
  summary "forced unload: alive, controls answer, logged: $(echo "$logged" | cut -c1-100)"
}

# ---------------------------------------------------------------- set-up as an ordinary user
# Vistrel run by a user with a fresh home on an X display (Xvfb, openbox), its buttons pressed
# with the keyboard through xdotool, as a user would; the camera extension is installed by the
# real pkexec (a system bus, polkitd) running the packaged helper. A polkit rule stands for the
# desktop's authentication agent: it answers for the user as if the password had been typed
# (YES), or refuses (NO).
LAB_USER=vistrel-lab
LAB_HOME=/home/$LAB_USER
LAB_RUNTIME=/tmp/xdg-$LAB_USER
USER_BUS=unix:path=$LAB_RUNTIME/bus
USER_BUS_PID=
USER_LOG=/tmp/vistrel-user.log
TRACE=$LAB_HOME/vistrel-trace.log
POLKIT_RULE=/etc/polkit-1/rules.d/50-vistrel-lab.rules
EXT_FILE=app.vistrel.Vistrel.cameraextension.conf
DESKTOP_UP=

as_user() {
  runuser -u "$LAB_USER" -- env -i PATH=/usr/bin:/bin HOME="$LAB_HOME" USER="$LAB_USER" LOGNAME="$LAB_USER" \
    LANG=C.UTF-8 DISPLAY=:1 XDG_RUNTIME_DIR="$LAB_RUNTIME" DBUS_SESSION_BUS_ADDRESS="$USER_BUS" "$@"
}
polkit_answers() { dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
  org.freedesktop.DBus.NameHasOwner string:org.freedesktop.PolicyKit1 2>/dev/null | grep -q 'boolean true'; }
# The system bus, polkitd, the user (in group video, as a desktop's camera users are) and an
# X display with a window manager: once per boot.
desktop_up() {
  [ -n "$DESKTOP_UP" ] && return 0
  id "$LAB_USER" >/dev/null 2>&1 || useradd -m -G video -s /bin/bash "$LAB_USER" || return 1
  mkdir -p /run/dbus
  [ -S /run/dbus/system_bus_socket ] || dbus-daemon --system --fork || return 1
  /usr/lib/polkit-1/polkitd --no-debug >/tmp/polkitd.log 2>&1 &
  wait_for 60 polkit_answers || { echo "LAB: polkitd did not come up: $(tail -n3 /tmp/polkitd.log | tr '\n' ' ')"; return 1; }
  mkdir -p "$LAB_RUNTIME"; chown "$LAB_USER:" "$LAB_RUNTIME"; chmod 700 "$LAB_RUNTIME"
  as_user Xvfb :1 -screen 0 1280x800x24 -nolisten tcp >/tmp/xvfb.log 2>&1 &
  wait_for 60 as_user xdpyinfo >/dev/null 2>&1 || { echo "LAB: Xvfb did not start: $(tail -n3 /tmp/xvfb.log)"; return 1; }
  as_user openbox >/tmp/openbox.log 2>&1 &
  wait_for 30 eval 'as_user xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q window' \
    || { echo "LAB: openbox did not start: $(tail -n3 /tmp/openbox.log)"; return 1; }
  DESKTOP_UP=yes
  echo "LAB: desktop: system bus, polkitd, user $LAB_USER ($(id -Gn "$LAB_USER")), Xvfb :1 with openbox"
}
# The rule for the user and Vistrel's action only; every other decision stays polkit's own.
polkit_rule() { # YES | NO
  cat >"$POLKIT_RULE" <<RULE
polkit.addRule(function(action, subject) {
    if (action.id == "app.vistrel.Vistrel.camera-extension" && subject.user == "$LAB_USER")
        return polkit.Result.$1;
});
RULE
  sleep 2   # polkitd reloads its rules when the folder changes
}
user_app_pid() { pgrep -u "$LAB_USER" -x vistrel | head -n1; }
stop_user_app() {
  local p; p=$(user_app_pid); [ -n "$p" ] || return 0
  kill -TERM "$p"; wait_for 15 eval '[ -z "$(user_app_pid)" ]' || kill -KILL "$p" 2>/dev/null
  true
}
start_user_app() { # fresh: a new home, so the first start takes the set-up path
  stop_user_app
  if [ "${1:-}" = fresh ]; then rm -rf "$LAB_HOME"; mkdir -p "$LAB_HOME"; chown "$LAB_USER:" "$LAB_HOME"; fi
  [ -n "$USER_BUS_PID" ] && kill -0 "$USER_BUS_PID" 2>/dev/null \
    || USER_BUS_PID=$(as_user dbus-daemon --session --fork --address="$USER_BUS" --print-pid 2>/dev/null)
  as_user sh -c "cd && exec env QT_QPA_PLATFORM=xcb VISTREL_UPDATE_URL=http://127.0.0.1:9/updates/latest.json \
    /usr/bin/vistrel" >>"$USER_LOG" 2>&1 &
}
window_shown() { as_user xdotool search --onlyvisible --name "^$1\$" 2>/dev/null | tail -n1; }
# press TITLE KEY...: waits for the window titled so, makes it the active window (openbox
# gives it the keyboard) and types the keys into it.
press() {
  local title=$1 w; shift
  wait_for 90 eval '[ -n "$(window_shown "$title")" ]' || { note "no window \"$title\" (windows: $(windows))"; return 1; }
  w=$(window_shown "$title")
  as_user xdotool windowactivate --sync "$w" >/dev/null 2>&1
  sleep 1
  as_user xdotool key --clearmodifiers "$@"
  note "\"$title\": pressed $*"
}
windows() { as_user xdotool search --onlyvisible --name . 2>/dev/null | while read -r w; do printf '"%s" ' "$(as_user xdotool getwindowname "$w")"; done; }
traced() { grep -q "$1" "$TRACE" 2>/dev/null; }
trace_count() { grep -c "$1" "$TRACE" 2>/dev/null || true; }
still_there() { local d now=" $(loopback_names) "; for d in $1; do case $now in *" $d "*) ;; *) return 1 ;; esac; done; }
helper_files() { ls /etc/modprobe.d/*"$EXT_FILE"* /etc/modules-load.d/*"$EXT_FILE"* 2>/dev/null; }
# the loopback devices as "video10=Vistrel video11=Dummy_video_device_(0x0000)" (vivid's left out)
loopback_names() { local n; for n in /sys/class/video4linux/*/name; do
  grep -qs '^vivid' "$n" || echo "$(basename "$(dirname "$n")")=$(tr ' ' _ <"$n")"; done 2>/dev/null | tr '\n' ' ' | sed 's/ $//'; }

# The module as a machine has it before set-up: loaded by hand with its defaults (one device
# not named Vistrel), so the helper adds the camera (0.13+) or reloads the module (0.12).
# SETUP_LOADER holds the command that loads this session's build.
# The main-path scenarios leave the extension installed (Vistrel, run there by root, asks for
# it at launch and pkexec lets root through): the helper removes it first.
setup_prepare() {
  stop_user_app
  rm -f "$POLKIT_RULE"
  if [ -n "$(helper_files)" ]; then
    note "installed by an earlier run: $(helper_files | tr '\n' ' '); helper deactivate"
    "$HELPER" deactivate "$EXTENSION_ID" >/dev/null 2>&1
  fi
  unload_loopback
  $SETUP_LOADER 2>/tmp/load.err || { note "loading v4l2loopback failed: $(cat /tmp/load.err)"; return 1; }
  wait_for 10 eval '[ -n "$(loopback_names)" ]'
  note "v4l2loopback $(cat /sys/module/v4l2loopback/version 2>/dev/null || modinfo -F version v4l2loopback 2>/dev/null): $(loopback_names); configuration: $(helper_files | tr '\n' ' ')"
  [ -z "$(vistrel_nodes)" ] && [ -z "$(helper_files)" ]
}
# The set-up window up to the system's answer: the extension row's "Grant Access" (the camera
# row is done for a user in group video: its button is hidden, so the keyboard focus starts on
# the extension row's), then "Continue" in the confirmation.
setup_until_answer() {
  start_user_app fresh
  expect "a fresh start takes the set-up path" wait_for 90 traced 'taking ONBOARDING path'
  expect "camera access is granted at once (trace: $(grep -o 'cameraAuth=[0-9]*' "$TRACE" | head -n1))" \
    grep -q 'cameraAuth=3' "$TRACE"
  expect "Grant Access pressed in \"Welcome to Vistrel\"" press "Welcome to Vistrel" space
  expect "Continue pressed in \"Install Vistrel Camera Extension\"" press "Install Vistrel Camera Extension" Return
}

test_setup_refused() {
  desktop_up || { T_FAILED=1; return; }
  expect "v4l2loopback loaded without a Vistrel camera, nothing installed" setup_prepare || return
  local before; before=$(loopback_names)
  polkit_rule NO
  setup_until_answer
  expect "the failure alert \"Installation Failed\" appears" press "Installation Failed" Escape
  local failed; failed=$(grep -o 'sysext failed code=[0-9]* .*' "$TRACE" | tail -n1)
  note "trace: ${failed:-no failure line}"
  expect "refused by system policy (code 10)" sh -c "echo '$failed' | grep -q 'code=10 '"
  expect "nothing written under /etc/modprobe.d or /etc/modules-load.d" [ -z "$(helper_files)" ]
  expect "no Vistrel camera; the devices are as before ($before)" sh -c "[ -z '$(vistrel_nodes)' ] && [ '$(loopback_names)' = '$before' ]"
  expect "Vistrel keeps running with its set-up window" eval '[ -n "$(user_app_pid)" ] && [ -n "$(window_shown "Welcome to Vistrel")" ]'
  stop_user_app
  summary "polkit NO -> ${failed:-?}; /etc untouched"
}

# ADD_PATH=yes: the module stays loaded and the helper adds the camera (v4l2loopback-ctl add);
# otherwise it reloads the module with the installed options.
test_setup_granted() {
  desktop_up || { T_FAILED=1; return; }
  expect "v4l2loopback loaded without a Vistrel camera, nothing installed" setup_prepare || return
  local before; before=$(loopback_names)
  polkit_rule YES
  setup_until_answer
  expect "the helper reports the camera installed (trace: sysext finished result=0)" wait_for 120 traced 'sysext finished result=0'
  local node; node=$(vistrel_nodes | head -n1)
  expect "a video device named Vistrel appeared (${node:-none}; devices: $(loopback_names))" [ -n "$node" ]
  expect "the helper wrote /etc/modprobe.d and /etc/modules-load.d ($(helper_files | tr '\n' ' '))" \
    sh -c "[ -f /etc/modprobe.d/$EXT_FILE ] && [ -f /etc/modules-load.d/$EXT_FILE ] && grep -q 'card_label=Vistrel' /etc/modprobe.d/$EXT_FILE"
  if [ "$ADD_PATH" = yes ]; then
    expect "added to the loaded module: the first device is still there ($before -> $(loopback_names))" \
      still_there "$before"
  else
    expect "the module was reloaded: only the Vistrel camera is left ($before -> $(loopback_names))" \
      sh -c "[ \$(ls /sys/class/video4linux | wc -l) -gt 0 ] && ! echo '$(loopback_names)' | grep -q 'Dummy'"
  fi
  local starts; starts=$(trace_count 'didFinishLaunching ENTER')
  expect "Relaunch Now pressed in \"Camera Extension Installed\"" press "Camera Extension Installed" Return
  expect "Vistrel relaunched into set-up, both steps done" \
    wait_for 90 eval '[ "$(trace_count "didFinishLaunching ENTER")" -gt "$starts" ] && traced "extInstalled=true extActivated=true"'
  # both rows done: their buttons are hidden, the focus starts on Exit; Tab reaches Finish
  expect "Finish pressed in \"Welcome to Vistrel\"" press "Welcome to Vistrel" Tab space
  expect "set-up completed (trace)" wait_for 30 traced 'onboarding completed'
  expect "Vistrel relaunched onto the main path (trace)" wait_for 90 traced 'taking MAIN WINDOW path'
  local steps; steps=$(grep -oE 'taking [A-Z ]+ path|sysext finished result=[0-9]+|onboarding completed' "$TRACE" | paste -sd, -)
  note "trace: $steps"
  # the main path's camera feeds the new device: a reader gets live frames
  local keep_lb=$LB keep_bus=$BUS
  LB=$node BUS=$USER_BUS ON_BUS=as_user
  expect "the main window answers its controls" wait_for 90 chooser_filled
  expect "the picture is live at $node (vivid picked in the chooser if need be)" pick_vivid
  local n d size; read -r n d size <<<"$(until_distinct 5 60 /tmp/setup.md5)"
  expect "a reader gets 1280x720 YUYV frames from $node ($n frames, $d distinct, $size bytes each)" \
    sh -c "[ $n -ge 30 ] && [ $d -ge 5 ] && [ $size = $FRAME_BYTES ]"
  LB=$keep_lb BUS=$keep_bus ON_BUS=
  stop_user_app
  summary "$before -> $node; $steps; reader: $n frames, $d distinct"
}

# The package's purge removes what the helper wrote; the package is then installed again for
# the tests that follow.
test_purge() {
  stop_user_app
  local had; had=$(helper_files | tr '\n' ' ')
  expect "the helper's files are there before the purge ($had)" [ -n "$had" ]
  apt-get purge -y vistrel >/tmp/purge.log 2>&1
  expect "apt-get purge -y vistrel succeeds" sh -c "! dpkg -s vistrel >/dev/null 2>&1"
  expect "the helper's files are gone ($(helper_files | tr '\n' ' '))" [ -z "$(helper_files)" ]
  expect "the program, helper and polkit action are gone" \
    sh -c "[ ! -e /usr/bin/vistrel ] && [ ! -e $HELPER ] && [ ! -e /usr/share/polkit-1/actions/app.vistrel.Vistrel.policy ]"
  apt-get install -y /usr/local/share/vistrel-lab/vistrel.deb >/tmp/reinstall.log 2>&1
  expect "the package installs again offline" eval 'dpkg -s vistrel >/dev/null 2>&1 && [ -x /usr/bin/vistrel ]'
  summary "purged: $had"
}

# Deactivation through the real helper, so the next session starts from a machine without the
# extension.
setup_cleanup() {
  stop_user_app
  [ -n "$USER_BUS_PID" ] && kill "$USER_BUS_PID" 2>/dev/null; USER_BUS_PID=
  rm -f "$POLKIT_RULE"
  [ -n "$(helper_files)$(vistrel_nodes)" ] && "$HELPER" deactivate "$EXTENSION_ID" >/dev/null 2>&1
  unload_loopback
}
