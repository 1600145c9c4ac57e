#!/usr/bin/env bash
# Side by side, on the same synthetic camera input (1920x1080, BT.601 studio range, made
# with ffmpeg: testsrc2, mandelbrot, and a zone plate of ever finer rings) in each raw
# camera format (YUYV, NV12, I420): the CPU time per frame, and the picture it buys, of
#   - Vistrel:     vistrel_bench's FramePath: the real capture session, frame tick
#                  (1280x720 stretch) and YUYV conversion, all threads counted
#   - ffmpeg:      rawvideo in -> scale to 1280x720 (its default, bicubic) -> yuyv422
#   - ffmpeg nn:   the same with -sws_flags neighbor (nearest pixel)
#   - gst-launch:  rawvideoparse -> videoscale (its default, bilinear) -> videoconvert
#                  -> YUY2 1280x720
# Quality is each tool's 1280x720 YUYV output for the input's first frame against a
# lanczos-scaled reference made by ffmpeg from the same frame: PSNR of the luma (dB) and
# SSIM of the luma (ffmpeg's psnr and ssim filters). The ratios are Vistrel's CPU to
# ffmpeg's (bicubic) and to gst's.
#
# All run on one core's worth of work: ffmpeg with -threads 1 -filter_threads 1,
# GStreamer's elements with their default single thread, Vistrel's process CPU time.
# CPU time is user+sys; each tool's start-up (a run of one frame) is subtracted.
#
# Usage: bench/compare.sh [BUILD_DIR] (default: build). FRAMES=n sets the input length,
# INPUTS and FORMATS choose rows (default "testsrc2 mandelbrot zoneplate", "YUYV NV12 I420").
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

ffmpeg_frames() { # pixfmt file count [scaler flags]
    ffmpeg -nostdin -loglevel error -threads 1 -filter_threads 1 -f rawvideo -pix_fmt "$1" -s 1920x1080 -r 30 \
        -i "$2" -frames:v "$3" -vf "scale=1280:720${4:+:flags=$4}" -pix_fmt yuyv422 -f null -
}

gst_frames() { # gstformat file count [output file]
    # One filesrc block per frame, so num-buffers counts frames.
    local bytes=$((1920 * 1080 * 2))
    [[ $1 == YUY2 ]] || bytes=$((1920 * 1080 * 3 / 2))
    local sink=fakesink
    [[ -n ${4:-} ]] && sink="filesink location=$4"
    gst-launch-1.0 -q filesrc location="$2" num-buffers="$3" blocksize="$bytes" \
        ! rawvideoparse format="${1,,}" width=1920 height=1080 framerate=30/1 colorimetry=bt601 \
        ! videoscale ! videoconvert ! video/x-raw,format=YUY2,width=1280,height=720 ! $sink
}

# The first frame of `file` scaled to 1280x720 YUYV by ffmpeg with `flags` into `out`.
ffmpeg_still() { # pixfmt file flags out
    ffmpeg -nostdin -loglevel error -f rawvideo -pix_fmt "$1" -s 1920x1080 -i "$2" -frames:v 1 \
        -vf "scale=1280:720:flags=$3" -pix_fmt yuyv422 -f rawvideo -y "$4"
}

# "PSNR-Y SSIM-Y" of a 1280x720 YUYV frame against the reference.
quality() { # frame reference
    ffmpeg -nostdin -loglevel info -f rawvideo -pix_fmt yuyv422 -s 1280x720 -i "$1" \
        -f rawvideo -pix_fmt yuyv422 -s 1280x720 -i "$2" \
        -lavfi "[0:v]split[a][b];[1:v]split[c][d];[a][c]psnr[p];[b][d]ssim[s]" \
        -map "[p]" -f null - -map "[s]" -f null - 2>&1 |
        awk '/PSNR y:/ { for (i = 1; i <= NF; i++) if ($i ~ /^y:/) { sub("y:", "", $i); p = $i } }
             /SSIM Y:/ { for (i = 1; i <= NF; i++) if ($i ~ /^Y:/) { sub("Y:", "", $i); q = $i } }
             END { if (p == "" || q == "") exit 1; printf "%.1f %.4f\n", p, q }'
}

make_input() { # name pixfmt file
    local source
    case $1 in
    testsrc2) source=testsrc2=size=1920x1080:rate=30 ;;
    mandelbrot) source=mandelbrot=size=1920x1080:rate=30 ;;
    # Rings that get finer towards the edges, up to the finest a 1080p frame holds: what
    # nearest-pixel shrinking turns into moire.
    zoneplate) source="nullsrc=size=1920x1080:rate=30,geq=lum='128+100*sin((X-960)*(X-960)/1300+(Y-540)*(Y-540)/1300)':cb=128:cr=128" ;;
    *) echo "compare.sh: unknown input $1" >&2; exit 2 ;;
    esac
    ffmpeg -nostdin -loglevel error -f lavfi -i "$source" -frames:v "$frames" \
        -vf scale=out_color_matrix=bt601:out_range=tv -pix_fmt "$2" -f rawvideo -y "$3"
}

vistrel_ms() { # format file output
    "$bench" --raw-frame="$1:1920x1080:$2" --output-frame="$3" --benchmark_filter="^FramePath/$1/1920x1080" \
        --benchmark_min_time=2 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
        --benchmark_format=csv 2>/dev/null |
        awk -F, '$1 ~ /_median"?$/ { print $4 }'
}

printf '%-10s %-5s %10s %12s %10s %12s %10s %12s %10s %12s %8s %8s\n' input format "Vistrel ms" "PSNR/SSIM" \
    "ffmpeg ms" "PSNR/SSIM" "ff-nn ms" "PSNR/SSIM" "gst ms" "PSNR/SSIM" "V/ffmpeg" "V/gst"
for name in ${INPUTS:-testsrc2 mandelbrot zoneplate}; do
    for label in ${FORMATS:-YUYV NV12 I420}; do
        case $label in
        YUYV) pixfmt=yuyv422 gstformat=YUY2 ;;
        NV12) pixfmt=nv12 gstformat=NV12 ;;
        I420) pixfmt=yuv420p gstformat=I420 ;;
        *) echo "compare.sh: unknown format $label" >&2; exit 2 ;;
        esac
        input=$work/input.$label
        make_input "$name" "$pixfmt" "$input"
        ffmpeg_still "$pixfmt" "$input" lanczos "$work/reference"
        ffmpeg_still "$pixfmt" "$input" bicubic "$work/ffmpeg"
        ffmpeg_still "$pixfmt" "$input" neighbor "$work/ffmpeg-nn"
        gst_frames "$gstformat" "$input" 1 "$work/gst" >/dev/null

        ffmpeg_ms=$(per_frame_ms "$(cpu_seconds ffmpeg_frames "$pixfmt" "$input" "$frames")" \
                                 "$(cpu_seconds ffmpeg_frames "$pixfmt" "$input" 1)")
        nn_ms=$(per_frame_ms "$(cpu_seconds ffmpeg_frames "$pixfmt" "$input" "$frames" neighbor)" \
                             "$(cpu_seconds ffmpeg_frames "$pixfmt" "$input" 1 neighbor)")
        gst_ms=$(per_frame_ms "$(cpu_seconds gst_frames "$gstformat" "$input" "$frames")" \
                              "$(cpu_seconds gst_frames "$gstformat" "$input" 1)")
        vistrel=$(vistrel_ms "$gstformat" "$input" "$work/vistrel")
        [[ -n $vistrel && -s $work/vistrel ]] ||
            { echo "compare.sh: vistrel_bench gave no FramePath/$gstformat figure or frame" >&2; exit 1; }
        q_vistrel=$(quality "$work/vistrel" "$work/reference")
        q_ffmpeg=$(quality "$work/ffmpeg" "$work/reference")
        q_nn=$(quality "$work/ffmpeg-nn" "$work/reference")
        q_gst=$(quality "$work/gst" "$work/reference")
        awk -v n="$name" -v l="$label" -v v="$vistrel" -v f="$ffmpeg_ms" -v nn="$nn_ms" -v g="$gst_ms" \
            -v qv="$q_vistrel" -v qf="$q_ffmpeg" -v qn="$q_nn" -v qg="$q_gst" '
            function q(s, parts) { split(s, parts, " "); return parts[1] "/" parts[2] }
            BEGIN { printf "%-10s %-5s %10.3f %12s %10.3f %12s %10.3f %12s %10.3f %12s %8.2f %8.2f\n",
                           n, l, v, q(qv), f, q(qf), nn, q(qn), g, q(qg), v / f, v / g }'
    done
done
