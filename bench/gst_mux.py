#!/usr/bin/python3
"""Muxes an H.264 Annex B stream and an AAC ADTS stream into MP4 with
GStreamer's mp4mux, as `gst-launch-1.0` would:

    filesrc ! h264parse ! mp4mux ! filesink, filesrc ! aacparse ! mux.

h264parse gives a raw stream decode times only, and mp4mux refuses a buffer
without a presentation time, so a probe copies each video buffer's decode
time to its presentation time (the stream has no B-frames). That is the
only difference from the gst-launch pipeline.

    gst_mux.py VIDEO.264 AUDIO.aac OUT.mp4
"""
import sys

import gi

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402


def main(video, audio, out):
    Gst.init(None)
    pipeline = Gst.parse_launch(
        f'filesrc location="{video}" ! h264parse name=parse ! mp4mux name=mux '
        f'! filesink location="{out}" filesrc location="{audio}" ! aacparse ! mux.')

    def presentation_time(_pad, info):
        buffer = info.get_buffer()
        if buffer.pts == Gst.CLOCK_TIME_NONE:
            buffer.pts = buffer.dts
        return Gst.PadProbeReturn.OK

    pad = pipeline.get_by_name("parse").get_static_pad("src")
    pad.add_probe(Gst.PadProbeType.BUFFER, presentation_time)
    pipeline.set_state(Gst.State.PLAYING)
    message = pipeline.get_bus().timed_pop_filtered(
        Gst.CLOCK_TIME_NONE, Gst.MessageType.EOS | Gst.MessageType.ERROR)
    pipeline.set_state(Gst.State.NULL)
    if message.type == Gst.MessageType.ERROR:
        error, debug = message.parse_error()
        print(f"gst_mux: {error.message} ({debug})", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        print("usage: gst_mux.py VIDEO.264 AUDIO.aac OUT.mp4", file=sys.stderr)
        sys.exit(2)
    sys.exit(main(*sys.argv[1:]))
