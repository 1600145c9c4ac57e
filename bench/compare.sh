#!/usr/bin/env bash
# Side by side, on the same synthetic camera input (1920x1080, made with ffmpeg) in each
# camera format, the CPU time per frame, and the picture it buys, of
#   - Vistrel:     vistrel_bench's FramePath: the real capture session, frame tick
#                  (1280x720 stretch) and YUYV conversion, all threads counted
#   - ffmpeg:      decode/read -> scale to 1280x720 (its default, bicubic) -> yuyv422
#   - ffmpeg nn:   the same with -sws_flags neighbor (nearest pixel)
#   - gst-launch:  rawvideoparse or jpegdec -> videoscale (its default, bilinear)
#                  -> videoconvert -> YUY2 1280x720
# Inputs (INPUTS):
#   - testsrc2, mandelbrot: ffmpeg's test pictures, moving
#   - whiteboard: what a camera pointed at a whiteboard or a page sees: dark text from
#     96 px down to 13 px, lines, boxes, a circle and a slanted stroke on a light, unevenly
#     lit ground, softened a little as a lens does and with a little sensor noise; one
#     still frame (drawn with DejaVu Sans, from fonts-dejavu-core)
#   - zoneplate (by name only): rings that get finer up to the finest a 1080p frame holds,
#     a worst case that no bilinear-class scaler passes and no camera sees
# Formats (FORMATS): YUYV, NV12, I420 (raw, BT.601 studio range, as USB cameras send
# them) and MJPEG (what most cameras send at 1080p: 4:2:0 JPEG, full-range BT.601, the
# input's first frame encoded once with -q:v 2 and repeated, so every tool decodes the
# same JPEG every frame). Every output is YUYV, BT.601 studio range.
# Quality is each tool's 1280x720 YUYV output for the input's first frame (for MJPEG, the
# decoded JPEG: the pixels every tool sees) against a lanczos-scaled reference made by
# ffmpeg from the same frame: PSNR of the luma (dB) and SSIM of the luma (ffmpeg's psnr
# and ssim filters). The ratios are Vistrel's CPU to ffmpeg's (bicubic) and to gst's.
# GStreamer 1.22's videoconvert packs jpegdec's full-range I420 into YUY2 as it is (its
# I420 -> YUY2 fast path ignores the range, even with studio range asked for), so gst's
# MJPEG picture is off by the range, not only by its scaling.
#
# All run on one core's worth of work: ffmpeg with -threads 1 -filter_threads 1,
# GStreamer's elements with their default single thread, Vistrel's process CPU time.
# CPU time is user+sys; each tool's start-up (a run of one frame) is subtracted.
#
# Usage: bench/compare.sh [BUILD_DIR] (default: build). FRAMES=n sets the input length,
# INPUTS and FORMATS choose rows (default "testsrc2 mandelbrot whiteboard",
# "YUYV NV12 I420 MJPEG").
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
bench=$build/bin/vistrel_bench
frames=${FRAMES:-300}
inputs=${INPUTS:-testsrc2 mandelbrot whiteboard}
formats=${FORMATS:-YUYV NV12 I420 MJPEG}
font=/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf
[[ -x $bench ]] || { echo "compare.sh: no $bench; build the vistrel_bench target first" >&2; exit 2; }
for tool in ffmpeg gst-launch-1.0; do
    command -v "$tool" >/dev/null || { echo "compare.sh: $tool is not installed" >&2; exit 2; }
done
if [[ " $inputs " == *" whiteboard "* && ! -r $font ]]; then
    echo "compare.sh: the whiteboard input needs $font: install fonts-dejavu-core (scripts/setup --packages-only)" >&2
    exit 2
fi

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

# ffmpeg's input options for a file of the format: raw frames, or concatenated JPEGs
# (decoded to full-range yuvj420p, which its scaler narrows to studio range for yuyv422).
ffmpeg_input() { # pixfmt
    if [[ $1 == mjpeg ]]; then
        echo -f mjpeg -framerate 30
    else
        echo -f rawvideo -pix_fmt "$1" -s 1920x1080 -r 30
    fi
}

ffmpeg_frames() { # pixfmt file count [scaler flags]
    ffmpeg -nostdin -loglevel error -threads 1 -filter_threads 1 $(ffmpeg_input "$1") \
        -i "$2" -frames:v "$3" -vf "scale=1280:720${4:+:flags=$4}" -pix_fmt yuyv422 -f null -
}

gst_frames() { # gstformat file count [output file]
    # One filesrc block per frame, so num-buffers counts frames: every JPEG of the MJPEG
    # input is the same one, so it has one size too. Each block is a whole JPEG, as a
    # camera's source hands them over, so no parser is needed before jpegdec.
    local bytes=$((1920 * 1080 * 2)) decode
    case $1 in
    YUY2) decode="rawvideoparse format=yuy2" ;;
    MJPEG) bytes=$jpeg_bytes decode="image/jpeg,width=1920,height=1080,framerate=30/1 ! jpegdec" ;;
    *) bytes=$((1920 * 1080 * 3 / 2)) decode="rawvideoparse format=${1,,}" ;;
    esac
    [[ $decode == rawvideoparse* ]] && decode+=" width=1920 height=1080 framerate=30/1 colorimetry=bt601"
    local sink=fakesink
    [[ -n ${4:-} ]] && sink="filesink location=$4"
    gst-launch-1.0 -q filesrc location="$2" num-buffers="$3" blocksize="$bytes" ! $decode \
        ! videoscale ! videoconvert ! video/x-raw,format=YUY2,width=1280,height=720,colorimetry=bt601 ! $sink
}

# The first frame of `file` scaled to 1280x720 YUYV by ffmpeg with `flags` into `out`.
ffmpeg_still() { # pixfmt file flags out
    ffmpeg -nostdin -loglevel error $(ffmpeg_input "$1") -i "$2" -frames:v 1 \
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

# The whiteboard: one still picture, drawn once and repeated.
whiteboard_source() {
    printf '%s\n' 'Frame path budget, 1080p camera to 720p device' \
        '1. Intake: decode, convert, wrap (all threads)' '2. Tick: pool buffer, stretch, enqueue' \
        '3. Writer: BGRA to YUYV, 1843200 bytes a frame' \
        'Open questions: mirror on the device? stutter period 1 s' >"$work/notes.txt"
    printf '%s\n' 'The quick brown fox jumps over the lazy dog 0123456789' \
        'Sphinx of black quartz, judge my vow. (ABCDEFGHIJKLM)' \
        'Pack my box with five dozen liquor jugs - nopqrstuvwxyz' >"$work/small.txt"
    # Light falling off away from the upper middle, times a ring and a slanted stroke, each
    # with a one-pixel soft edge; the ground darkens a little towards the bottom.
    local shade="(1-0.10*hypot(X-900\\,Y-500)/1100)*clip(abs(hypot(X-1500\\,Y-780)-150)-2\\,0.15\\,1)"
    shade+="*if(between(X\\,1100\\,1880)\\,clip(abs(0.48*X+Y-1540)/1.11-1.5\\,0.12\\,1)\\,1)"
    local text="drawtext=fontfile=$font" box=drawbox
    local graph=(
        "color=c=0xE9E7E1:size=1920x1080:rate=30" format=rgb24
        "geq=r='r(X,Y)*$shade-6*Y/1080':g='g(X,Y)*$shade-6*Y/1080':b='b(X,Y)*$shade-4*Y/1080'"
        "$text:text='Vistrel weekly':fontsize=96:fontcolor=0x1A2A6C:x=120:y=70"
        "$text:textfile=$work/notes.txt:fontsize=30:line_spacing=14:fontcolor=0x202020:x=120:y=230"
        "$text:textfile=$work/small.txt:fontsize=18:line_spacing=8:fontcolor=0x303030:x=120:y=520"
        "$text:textfile=$work/small.txt:fontsize=13:line_spacing=6:fontcolor=0x303030:x=120:y=640"
        "$text:text='ship it':fontsize=56:fontcolor=0xB0201C:x=1420:y=680"
        # A bar chart with one-pixel guide lines.
        "$box=x=1180:y=110:w=600:h=420:color=0x222222:t=3"
        "$box=x=1183:y=200:w=594:h=1:color=0x8080A0:t=fill" "$box=x=1183:y=300:w=594:h=1:color=0x8080A0:t=fill"
        "$box=x=1183:y=400:w=594:h=1:color=0x8080A0:t=fill"
        "$box=x=1260:y=330:w=70:h=197:color=0x1A2A6C:t=fill" "$box=x=1380:y=250:w=70:h=277:color=0x1A2A6C:t=fill"
        "$box=x=1500:y=400:w=70:h=127:color=0xB0201C:t=fill" "$box=x=1620:y=180:w=70:h=347:color=0x1A2A6C:t=fill"
        "$box=x=120:y=760:w=900:h=4:color=0x202020:t=fill" "$box=x=120:y=800:w=2:h=200:color=0x202020:t=fill"
        "$box=x=160:y=820:w=300:h=160:color=0x2E7D32:t=5" "$box=x=520:y=850:w=420:h=110:color=0x202020:t=2"
        # The lens's softness and the sensor's noise (fixed seed), then the one frame repeated.
        gblur=sigma=0.6 format=yuv444p noise=c0s=3:all_seed=7 loop=loop=-1:size=1
    )
    local IFS=,
    echo "${graph[*]}"
}

make_input() { # name pixfmt file count
    local source
    case $1 in
    testsrc2) source=testsrc2=size=1920x1080:rate=30 ;;
    mandelbrot) source=mandelbrot=size=1920x1080:rate=30 ;;
    whiteboard) source=$(whiteboard_source) ;;
    # Rings that get finer towards the edges, up to the finest a 1080p frame holds: what
    # nearest-pixel shrinking turns into moire.
    zoneplate) source="nullsrc=size=1920x1080:rate=30,geq=lum='128+100*sin((X-960)*(X-960)/1300+(Y-540)*(Y-540)/1300)':cb=128:cr=128" ;;
    *) echo "compare.sh: unknown input $1" >&2; exit 2 ;;
    esac
    ffmpeg -nostdin -loglevel error -f lavfi -i "$source" -frames:v "$4" \
        -vf scale=out_color_matrix=bt601:out_range=tv -pix_fmt "$2" -f rawvideo -y "$3"
}

# The MJPEG input: the first frame, 4:2:0 as the bench's own MJPEG frames and most UVC
# cameras, encoded once at a camera's quality and repeated `frames` times. Sets jpeg_bytes.
make_mjpeg_input() { # name file
    make_input "$1" yuv420p "$work/first" 1
    ffmpeg -nostdin -loglevel error -f rawvideo -pix_fmt yuv420p -s 1920x1080 -color_range tv -colorspace bt470bg \
        -i "$work/first" -c:v mjpeg -q:v 2 -pix_fmt yuvj420p -f mjpeg -y "$work/first.jpg"
    jpeg_bytes=$(stat -c %s "$work/first.jpg")
    : >"$2"
    for ((i = 0; i < frames; i++)); do cat "$work/first.jpg"; done >>"$2"
}

vistrel_ms() { # format file output
    "$bench" --raw-frame="$1:1920x1080:$2" --output-frame="$3" --benchmark_filter="^FramePath/$1/1920x1080" \
        --benchmark_min_time=2 --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
        --benchmark_format=csv 2>/dev/null |
        awk -F, '$1 ~ /_median"?$/ { print $4 }'
}

printf '%-10s %-5s %10s %12s %10s %12s %10s %12s %10s %12s %8s %8s\n' input format "Vistrel ms" "PSNR/SSIM" \
    "ffmpeg ms" "PSNR/SSIM" "ff-nn ms" "PSNR/SSIM" "gst ms" "PSNR/SSIM" "V/ffmpeg" "V/gst"
for name in $inputs; do
    for label in $formats; do
        case $label in
        YUYV) pixfmt=yuyv422 gstformat=YUY2 ;;
        NV12) pixfmt=nv12 gstformat=NV12 ;;
        I420) pixfmt=yuv420p gstformat=I420 ;;
        MJPEG) pixfmt=mjpeg gstformat=MJPEG ;;
        *) echo "compare.sh: unknown format $label" >&2; exit 2 ;;
        esac
        input=$work/input.$label
        if [[ $label == MJPEG ]]; then
            make_mjpeg_input "$name" "$input"
        else
            make_input "$name" "$pixfmt" "$input" "$frames"
        fi
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
