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
  while read -r version suite ko; do
    [ -n "$ko" ] || continue
    modprobe videodev
    session "$version" yes insmod "$ko" </dev/null
  done </opt/v4l2loopback/variants
fi
session "$DEFAULT" no modprobe v4l2loopback
finish
