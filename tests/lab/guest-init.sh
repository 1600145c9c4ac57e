#!/bin/bash
# PID 1 inside the lab guest (booted with init=/usr/local/sbin/vistrel-lab-init).
# Loads vivid, then, for each v4l2loopback build in the guest (Debian 12's DKMS module, then the
# newer builds listed in /opt/v4l2loopback/variants), runs Vistrel's scenarios against it, and
# powers the guest off. Results are the "LAB-TEST:" lines on the serial console.
PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
HOME=/root LANG=C.UTF-8
export PATH HOME LANG
mountpoint -q /proc || mount -t proc proc /proc
mountpoint -q /sys || mount -t sysfs sysfs /sys
mountpoint -q /dev || mount -t devtmpfs devtmpfs /dev
mkdir -p /dev/pts /dev/shm
mountpoint -q /dev/pts || mount -t devpts devpts /dev/pts
mountpoint -q /dev/shm || mount -t tmpfs tmpfs /dev/shm
mountpoint -q /run || mount -t tmpfs tmpfs /run
mountpoint -q /tmp || mount -t tmpfs tmpfs /tmp
echo "VISTREL-LAB: init reached at uptime $(cut -d' ' -f1 /proc/uptime)"
dmesg -n 1 2>/dev/null   # keep kernel chatter off the console
# udev, as on any desktop: GStreamer's device monitor lists only devices udev has initialised
if [ -x /lib/systemd/systemd-udevd ]; then
  /lib/systemd/systemd-udevd --daemon 2>/dev/null && udevadm trigger --action=add 2>/dev/null && udevadm settle -t 30
else
  echo "LAB: no systemd-udevd in the guest: cameras will not be discovered"
fi
ONLY=. ACCEL=tcg
for a in $(cat /proc/cmdline); do
  case $a in vistrel.only=*) ONLY=${a#*=} ;; esac
done
export ONLY ACCEL
. /usr/local/lib/vistrel-lab/scenarios.sh

finish() {
  stop_app
  stop_user_app
  if dmesg | grep -qE 'WARNING:|BUG:|Oops'; then
    echo "LAB: kernel warnings during the run (first lines):"
    dmesg | grep -m5 -E 'WARNING:|BUG:|Oops' | sed 's/^/LAB:   dmesg: /'
  fi
  echo "VISTREL-LAB-DONE"
  sync
  echo o >/proc/sysrq-trigger
  sleep 30
}

echo "LAB: guest kernel $(uname -r), $(nproc) cpu(s), $(awk '/MemTotal/{print int($2/1024)" MiB"}' /proc/meminfo)"
modprobe vivid n_devs=1 2>/tmp/e || { echo "LAB: modprobe vivid failed: $(cat /tmp/e)"; finish; }
for n in /sys/class/video4linux/*/name; do
  [ "$(cat "$n")" = "vivid-000-vid-cap" ] && VIVID=/dev/$(basename "$(dirname "$n")")
done
echo "LAB: vivid camera at ${VIVID:-none}; $(v4l2-ctl -d "$VIVID" --get-fmt-video 2>&1 | grep -E 'Width|Pixel' | tr -d '\t' | tr '\n' ' ')"
echo "LAB: GStreamer's device monitor lists: $(timeout 60 gst-device-monitor-1.0 Video/Source 2>&1 | grep -E 'name  *:|class  *:|device.path' | sed 's/^[ \t]*//' | tr '\n' ';')"
# vivid's test pattern moves (and its overlay text counts frames), so live frames always differ
v4l2-ctl -d "$VIVID" -c horizontal_movement=5 2>/dev/null

# Set-up as an ordinary user, refused and then granted by polkit, against one build: $1 label,
# $2 "yes" when the helper adds the camera to the loaded module (0.13+) rather than reloading it,
# $3 that release's v4l2loopback-ctl (or ""), $4.. the loader. The Vistrel package's purge
# follows the last one.
setup_session() {
  local label=$1 add=$2 ctl=$3; shift 3
  echo "LAB: ================ set-up with v4l2loopback $label ================"
  [ -n "$ctl" ] && mount --bind "$ctl" /usr/bin/v4l2loopback-ctl
  SETUP_LOADER="$*" ADD_PATH=$add
  run_test "setup-refused[$label]" test_setup_refused
  run_test "setup[$label]" test_setup_granted
  [ "${PURGE:-}" = yes ] && run_test "purge[$label]" test_purge
  setup_cleanup
  [ -n "$ctl" ] && umount /usr/bin/v4l2loopback-ctl
  true
}

# Scenarios per v4l2loopback build: $1 label, $2 "yes" when the build reports readers, $3.. loader
session() {
  local label=$1 gated=$2; shift 2
  echo "LAB: ================ v4l2loopback $label ================"
  load_loopback "$@" || { echo "LAB-TEST: load[$label] FAIL 0 could not load v4l2loopback"; return; }
  echo "LAB: loaded version $(cat /sys/module/v4l2loopback/version 2>/dev/null || modinfo -F version v4l2loopback)"
  run_test "exclusive-caps[$label]" test_exclusive_caps
  run_test "streaming-gate[$label]" "test_streaming_gate_$gated" 2
  run_test "camera-in[$label]" test_camera_in 2
  run_test "freeze[$label]" test_freeze 2
  run_test "camera-light[$label]" "test_camera_light_$gated"
  if [ "$gated" = no ]; then
    run_test "stutter[$label]" test_stutter 2
    run_test "movie[$label]" test_movie
  fi
  # forced removal only where Vistrel makes no ioctl on the device while streaming (see scenarios.sh)
  run_test "fault[$label]" "test_fault_$( [ "$gated" = no ] && echo forced || echo refused)"
  stop_app
  unload_loopback
}
test_streaming_gate_yes() { test_streaming_gate yes; }
test_streaming_gate_no() { test_streaming_gate no; }
test_fault_forced() { test_fault yes; }
test_fault_refused() { test_fault no; }

DEFAULT=$(cat /usr/local/share/vistrel-lab/default-variant 2>/dev/null || echo 0.12.7)
run_test "install[$DEFAULT]" test_install
# the newer builds first: Debian 12's own build ends the run with the forced removal
if [ -f /opt/v4l2loopback/variants ]; then
  NEWEST=$(awk 'NF == 3 {v = $1} END {print v}' /opt/v4l2loopback/variants)
  while read -r version suite ko; do
    [ -n "$ko" ] || continue
    modprobe videodev
    ctl=$(dirname "$ko")/v4l2loopback-ctl
    if [ "$version" = "$NEWEST" ] && [ -x "$ctl" ]; then
      setup_session "$version" yes "$ctl" insmod "$ko" </dev/null
    fi
    session "$version" yes insmod "$ko" </dev/null
  done </opt/v4l2loopback/variants
fi
PURGE=yes setup_session "$DEFAULT" no "" modprobe v4l2loopback
session "$DEFAULT" no modprobe v4l2loopback
finish
