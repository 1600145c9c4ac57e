#!/usr/bin/env bash
# Side by side, on the same synthetic camera input (1920x1080 YUYV and I420, BT.601, made
# once with ffmpeg's testsrc2): the CPU time per frame of
#   - ffmpeg:      rawvideo in -> scale to 1280x720 (its default, bicubic) -> yuyv422 -> null
#   - gst-launch:  rawvideoparse -> videoscale (its default, bilinear) -> videoconvert
#                  -> YUY2 1280x720 -> fakesink
#   - Vistrel:     vistrel_bench's FramePath: the real capture session, frame tick
#                  (1280x720 stretch) and YUYV conversion, all threads counted
# and Vistrel's figure as a ratio to each.
#
# All three run on one core's worth of work: ffmpeg with -threads 1 -filter_threads 1,
# GStreamer's elements with their default single thread, Vistrel's process CPU time.
# CPU time is user+sys; each tool's start-up (a run of one frame) is subtracted.
#
# Usage: bench/compare.sh [BUILD_DIR] (default: build). FRAMES=n sets the input length.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
bench=$build/bin/vistrel_bench
frames=${FRAMES:-300}
[[ -x $bench ]] || { echo "compare.sh: no $bench; build the vistrel_bench target first" >&2; exit 2; }
for tool in ffmpeg gst-launch-1.0; do
    command -v "$tool" >/dev/null || { echo "compare.sh: $tool is not installed" >&2; exit 2; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# CPU seconds (user+sys) of a command and its children; the script stops if it fails.
cpu_seconds() {
    if ! ( "$@" >/dev/null 2>"$work/err"; status=$?; times >"$work/times"; exit $status ); then
        echo "compare.sh: $* failed:" >&2
        cat "$work/err" >&2
        kill -TERM $$
    fi
    tail -1 "$work/times" |
        awk '{ t = 0; for (i = 1; i <= 2; i++) { split($i, p, "m"); t += p[1] * 60 + p[2] } printf "%.6f\n", t }'
}

# Milliseconds of CPU per frame: (cost of n frames - cost of 1 frame) / (n - 1).
per_frame_ms() {
    local whole=$1 one=$2
    awk -v a="$whole" -v b="$one" -v n="$frames" 'BEGIN { printf "%.3f\n", (a - b) * 1000 / (n - 1) }'
}

ffmpeg_frames() { # pixfmt file count
    ffmpeg -nostdin -loglevel error -threads 1 -filter_threads 1 -f rawvideo -pix_fmt "$1" -s 1920x1080 -r 30 \
        -i "$2" -frames:v "$3" -vf scale=1280:720 -pix_fmt yuyv422 -f null -
}

gst_frames() { # gstformat file count
    # One filesrc block per frame, so num-buffers counts frames.
    local bytes=$((1920 * 1080 * 2))
    [[ $1 == I420 ]] && bytes=$((1920 * 1080 * 3 / 2))
    gst-launch-1.0 -q filesrc location="$2" num-buffers="$3" blocksize="$bytes" \
        ! rawvideoparse format="${1,,}" width=1920 height=1080 framerate=30/1 colorimetry=bt601 \
        ! videoscale ! videoconvert ! video/x-raw,format=YUY2,width=1280,height=720 ! fakesink
}

vistrel_ms() { # format file
    "$bench" --raw-frame="$1:1920x1080:$2" --benchmark_filter="^FramePath/$1/1920x1080" \
        --benchmark_min_time=2 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
        --benchmark_format=csv 2>/dev/null |
        awk -F, '$1 ~ /_median"?$/ { print $4 }'
}

printf '%-6s %12s %12s %12s %14s %14s\n' input "Vistrel ms" "ffmpeg ms" "gst ms" "Vistrel/ffmpeg" "Vistrel/gst"
for kind in YUYV:yuyv422:YUY2 I420:yuv420p:I420; do
    IFS=: read -r label pixfmt gstformat <<<"$kind"
    input=$work/input.$label
    ffmpeg -nostdin -loglevel error -f lavfi -i testsrc2=size=1920x1080:rate=30 -frames:v "$frames" \
        -vf scale=out_color_matrix=bt601:out_range=tv -pix_fmt "$pixfmt" -f rawvideo "$input"
    ffmpeg_ms=$(per_frame_ms "$(cpu_seconds ffmpeg_frames "$pixfmt" "$input" "$frames")" \
                             "$(cpu_seconds ffmpeg_frames "$pixfmt" "$input" 1)")
    gst_ms=$(per_frame_ms "$(cpu_seconds gst_frames "$gstformat" "$input" "$frames")" \
                          "$(cpu_seconds gst_frames "$gstformat" "$input" 1)")
    vistrel=$(vistrel_ms "$gstformat" "$input")
    [[ -n $vistrel ]] || { echo "compare.sh: vistrel_bench gave no FramePath/$gstformat figure" >&2; exit 1; }
    awk -v l="$label" -v v="$vistrel" -v f="$ffmpeg_ms" -v g="$gst_ms" \
        'BEGIN { printf "%-6s %12.3f %12.3f %12.3f %14.2f %14.2f\n", l, v, f, g, v / f, v / g }'
done
