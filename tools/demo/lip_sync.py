#!/usr/bin/python3
"""Lip sync of a demo run, measured: per video frame, how far the mouth is
open in the rendered frame against how loud the speech is in that frame's
40 ms. Reads what `le-speak --frames DIR` writes (frame_NNNNNN.png and
audio.wav, 640 samples per frame) and prints the Pearson correlation over
the frames from the first to the last one with sound.

Mouth openness is the mean darkening, against the first frame, of the
pixels in a box around the demo avatar's mouth: the director darkens the
mouth's interior as the lips part. Loudness is the RMS of the frame's
samples.

Usage: lip_sync.py FRAMES_DIR [MIN_CORRELATION]   exits 1 below the minimum
"""
import glob
import os
import sys
import wave

import numpy as np
from PIL import Image

# The demo avatar's mouth on its 768 x 768 canvas (demo_avatar.py: the
# photograph's mouth at (224, 146), scaled by 1.5), with room for the jaw.
BOX = (300, 200, 372, 250)


def luminance(path):
    rgb = np.asarray(Image.open(path).convert("RGB").crop(BOX), dtype=np.float64)
    return rgb @ np.array([0.299, 0.587, 0.114])


def measure(frames_dir):
    paths = sorted(glob.glob(os.path.join(frames_dir, "frame_*.png")))
    with wave.open(os.path.join(frames_dir, "audio.wav")) as w:
        pcm = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").astype(np.float64)
    n = min(len(paths), len(pcm) // 640)
    rms = np.sqrt(np.mean(pcm[:n * 640].reshape(n, 640) ** 2, axis=1))
    voiced = np.nonzero(rms > 0)[0]
    if len(voiced) < 10:
        raise SystemExit("lip_sync: fewer than 10 frames with sound in " + frames_dir)
    lo, hi = voiced[0], voiced[-1] + 1
    base = luminance(paths[0])
    opening = np.array([np.mean(np.clip(base - luminance(paths[i]), 0, None)) for i in range(lo, hi)])
    loud = rms[lo:hi]
    return float(np.corrcoef(opening, loud)[0, 1]), hi - lo


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: lip_sync.py FRAMES_DIR [MIN_CORRELATION]")
    r, frames = measure(sys.argv[1])
    print("lip sync: correlation %.3f between mouth opening and loudness over %d frames" % (r, frames))
    if len(sys.argv) == 3 and not r >= float(sys.argv[2]):
        sys.exit(1)
