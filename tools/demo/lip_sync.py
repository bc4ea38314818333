#!/usr/bin/python3
"""Lip sync of a demo movie, measured: per video frame, how far the mouth is
open in the picture against how loud the speech is in that frame's 40 ms.
Decodes the movie with the ffmpeg command and prints the Pearson correlation
over the frames from the first to the last one with sound.

Mouth openness is the mean darkening, against the first frame, of a box
around the demo avatar's mouth (the director darkens the mouth's interior as
the lips part); loudness is the RMS of the frame's 640 samples.

Usage: lip_sync.py MOVIE.mp4 [MIN_CORRELATION]   exits 1 below the minimum
"""
import subprocess
import sys

import numpy as np

# The demo avatar's mouth on its 768 x 768 canvas (demo_avatar.py: the
# photograph's mouth at (224, 146), scaled by 1.5), with room for the jaw.
X, Y, BW, BH = 300, 200, 72, 50


def decode(movie, *args):
    return subprocess.run(["ffmpeg", "-v", "error", "-i", movie, *args, "-"], check=True,
                          stdout=subprocess.PIPE).stdout


def measure(movie):
    luma = np.frombuffer(decode(movie, "-vf", "crop=%d:%d:%d:%d" % (BW, BH, X, Y), "-f", "rawvideo", "-pix_fmt",
                                "gray"), dtype=np.uint8).reshape(-1, BH, BW).astype(np.float64)
    pcm = np.frombuffer(decode(movie, "-vn", "-ac", "1", "-ar", "16000", "-f", "s16le"), dtype="<i2")
    n = min(len(luma), len(pcm) // 640)
    rms = np.sqrt(np.mean(pcm[:n * 640].astype(np.float64).reshape(n, 640) ** 2, axis=1))
    voiced = np.nonzero(rms > 1.0)[0]
    if len(voiced) < 10:
        raise SystemExit("lip_sync: fewer than 10 frames with sound in " + movie)
    lo, hi = voiced[0], voiced[-1] + 1
    opening = np.mean(np.clip(luma[0] - luma[lo:hi], 0, None), axis=(1, 2))
    return float(np.corrcoef(opening, rms[lo:hi])[0, 1]), hi - lo


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: lip_sync.py MOVIE.mp4 [MIN_CORRELATION]")
    r, frames = measure(sys.argv[1])
    print("lip sync: correlation %.3f between mouth opening and loudness over %d frames" % (r, frames))
    if len(sys.argv) == 3 and not r >= float(sys.argv[2]):
        sys.exit(1)
