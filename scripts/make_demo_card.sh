#!/usr/bin/env bash
# Builds a demo memory card: photos with EXIF facts and embedded thumbnails, thumbnail
# companions, short H.264 clips with lower-resolution second streams, and the capability
# file when its fixed path is writable. Everything is generated here with ffmpeg and exiftool.
#
# usage: scripts/make_demo_card.sh [DIR]      (default /tmp/SD0)
#        KORVEL_CAP_PATH=FILE overrides where the capability file goes ("" skips it).
set -euo pipefail

card="${1:-/tmp/SD0}"
cap_path="${KORVEL_CAP_PATH-/webSvr/web/files/camera_definition.xml}"

for tool in ffmpeg exiftool; do
    command -v "$tool" >/dev/null || { echo "make_demo_card: $tool is missing (scripts/deps.sh installs it)" >&2; exit 1; }
done

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

ff() { ffmpeg -hide_banner -loglevel error -y "$@"; }

# photo DIR NAME SIZE PATTERN MODEL: a JPEG with Make/Model and an embedded 160x120 thumbnail.
photo() {
    local dir="$1" name="$2" size="$3" pattern="$4" model="$5"
    ff -f lavfi -i "${pattern}=size=${size}:rate=1" -frames:v 1 -q:v 4 "$dir/$name"
    ff -i "$dir/$name" -vf scale=160:120 -q:v 6 "$work/thumb.jpg"
    exiftool -q -overwrite_original -Make="Korvel Demo" -Model="$model" \
        -XResolution=72 -YResolution=72 -ResolutionUnit=inches -YCbCrPositioning=Centered \
        "-ThumbnailImage<=$work/thumb.jpg" "$dir/$name"
}

# thumbfile PATH SOURCE: a stand-alone 160x120 thumbnail beside a photo or video.
thumbfile() {
    ff -i "$2" -vf "scale=160:120" -frames:v 1 -q:v 6 -f mjpeg "$1"
}

# clip PATH FORMAT SIZE SECONDS PATTERN: a short H.264 clip.
clip() {
    ff -f lavfi -i "$5=duration=$4:size=$3:rate=25" -c:v libx264 -preset veryfast \
        -pix_fmt yuv420p -movflags +faststart -f "$2" "$1"
}

d100="$card/DCIM/100MEDIA"
d101="$card/DCIM/101MEDIA"
mkdir -p "$d100" "$d101"

# 100MEDIA: one photo served from its EXIF thumbnail, two with thumbnail files, two videos.
photo "$d100" IMG_0001.JPG 1280x960 testsrc "DC-1"
photo "$d100" IMG_0002.JPG 1280x960 smptebars "DC-1"
thumbfile "$d100/IMG_0002.thm" "$d100/IMG_0002.JPG"
photo "$d100" IMG_0003.JPG 640x480 rgbtestsrc "DC-1 mini"
thumbfile "$d100/IMG_0003.THM" "$d100/IMG_0003.JPG"
clip "$d100/VID_0004.MP4" mp4 640x480 2 testsrc
clip "$d100/VID_0004.2nd" mp4 320x240 2 testsrc
thumbfile "$d100/VID_0004.THM" "$d100/VID_0004.MP4"
clip "$d100/VID_0005.MOV" mov 640x360 2 smptebars
clip "$d100/VID_0005.2nd" mp4 320x180 2 smptebars
thumbfile "$d100/VID_0005.thm" "$d100/VID_0005.MOV"

# 101MEDIA: a second directory, so names carry different directory fields.
photo "$d101" IMG_0101.JPG 800x600 testsrc2 "DC-1"
clip "$d101/VID_0102.MP4" mp4 320x240 2 testsrc2
thumbfile "$d101/VID_0102.THM" "$d101/VID_0102.MP4"

# Trace output of the server stays off unless someone switches it on.
[ -e "$card/krv_log.conf" ] || printf '0,0\n' >"$card/krv_log.conf"

if [ -n "$cap_path" ] && [ ! -e "$cap_path" ]; then
    if mkdir -p "$(dirname "$cap_path")" 2>/dev/null && [ -w "$(dirname "$cap_path")" ]; then
        cat >"$cap_path" <<'XML'
<?xml version="1.0" encoding="UTF-8"?>
<camera_definition version="1">
  <model>Korvel Demo DC-1</model>
  <storage id="0" root="/tmp/SD0" media="DCIM"/>
  <photo formats="JPG DNG" thumbnail="thm"/>
  <video formats="MP4 MOV" codec="H.264" second_stream="2nd"/>
  <transfer max_packet="65535" max_burst_bytes="209715200"/>
</camera_definition>
XML
        echo "capability file: $cap_path"
    else
        echo "capability file: $(dirname "$cap_path") is not writable, skipped"
    fi
fi

echo "demo card ready in $card:"
find "$card/DCIM" -type f | sort | sed 's/^/  /'
