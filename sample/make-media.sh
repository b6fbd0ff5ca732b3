#!/usr/bin/env bash
# Makes the small media files kept in sample/media/ (a few KB each), which
# scripts/sample-gateway.sh copies onto the sample disks. They are kept in the
# repository so that the sample gateway needs no encoder; run this only to
# change them. Needs ffmpeg and exiftool (Debian: ffmpeg,
# libimage-exiftool-perl), which the rest of the project does not.
set -euo pipefail
out=${1:-$(dirname "$0")/media}
mkdir -p "$out"
cd "$out"
ff() { ffmpeg -nostdin -v error -y "$@"; }

# Videos: H.264 + Vorbis in Matroska, MPEG-4 Part 2 + AAC in MP4.
ff -f lavfi -i testsrc=size=320x240:rate=5:duration=2 -f lavfi -i sine=frequency=440:sample_rate=22050:duration=2 \
  -c:v libx264 -crf 45 -preset veryslow -c:a libvorbis -q:a 0 \
  -metadata title="Holiday at the Sea" -metadata date=2025 holiday.mkv
ff -f lavfi -i testsrc2=size=320x180:rate=5:duration=1 -f lavfi -i sine=frequency=660:sample_rate=22050:duration=1 \
  -c:v mpeg4 -q:v 31 -c:a aac -b:a 16k -metadata title="Birthday Party" -metadata artist="Family" \
  -metadata creation_time=2025-06-14T15:30:00Z birthday.mp4

# Songs: MP3 with ID3 tags, FLAC and Ogg Vorbis with Vorbis comments.
ff -f lavfi -i sine=frequency=523:sample_rate=22050:duration=3 -c:a libmp3lame -b:a 16k \
  -metadata title="Morning Light" -metadata artist="The Sample Band" -metadata album="First Light" \
  -metadata track=1 -metadata date=2024 morning-light.mp3
ff -f lavfi -i sine=frequency=330:sample_rate=8000:duration=1 -c:a flac -compression_level 12 \
  -metadata title="Evening Tide" -metadata artist="The Sample Band" -metadata album="First Light" \
  -metadata track=2 evening-tide.flac
ff -f lavfi -i sine=frequency=392:sample_rate=16000:duration=2 -c:a libvorbis -q:a 0 \
  -metadata title="Road Trip" -metadata artist="Stick Figures" -metadata album="Highway" road-trip.ogg

# Photos: JPEG with the camera's EXIF date taken, and a PNG without one.
ff -f lavfi -i testsrc=size=640x480:rate=1 -frames:v 1 -q:v 31 beach.jpg
exiftool -q -overwrite_original -DateTimeOriginal="2025:07:04 18:30:12" -Make=Sample -Model="Camera One" beach.jpg
ff -f lavfi -i testsrc2=size=480x640:rate=1 -frames:v 1 -q:v 31 tower.jpg
exiftool -q -overwrite_original -DateTimeOriginal="2025:07:05 09:15:00" -Make=Sample -Model="Camera One" tower.jpg
ff -f lavfi -i color=c=0x3366cc:size=200x150:rate=1 -frames:v 1 drawing.png
ls -l
