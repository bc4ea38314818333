#!/usr/bin/python3
"""Deterministic speech-like audio: 16 kHz mono 16-bit WAV.

Voiced speech is imitated closely enough for the synthetic speech models to
react to it as a person would expect: a harmonic source whose pitch follows a
falling phrase contour with a rise and fall per syllable, shaped by
vowel-like formant resonances that change from syllable to syllable,
syllables with a soft attack and decay, a short noise burst for a consonant
at some onsets, words separated by pauses of exact digital silence, and
phrases that alternate between loud and quiet (about 14 dB apart) within a
second or two, so that any two-second window holds both.

Usage:
  speech_clip.py OUT.wav SECONDS    writes a clip of that length

gen_bundles.py writes the test clips through write_clips():
  clips/speech_3s.wav, clips/speech_10s.wav, clips/silence_2s.wav
"""
import os
import struct
import sys

import numpy as np

RATE = 16000
FRAME = 640
LOUD = 1.0
QUIET = 0.2
PEAK = 0.6  # of full scale, for the loud phrases

# (F1, F2, F3) in Hz of a few vowels; bandwidths grow with frequency.
VOWELS = [(730, 1090, 2440), (270, 2290, 3010), (530, 1840, 2480),
          (570, 840, 2410), (300, 870, 2240), (660, 1720, 2410)]


def _formant_gain(freq, formants):
    """Magnitude of a cascade of resonances at the harmonic frequencies."""
    g = np.ones_like(freq)
    for f in formants:
        bw = 60.0 + 0.06 * f
        g = g / np.sqrt((1.0 - (freq / f) ** 2) ** 2 + (freq * bw / (f * f)) ** 2)
    return g


def _plan(seconds, rng):
    """Syllables as (start, length, gain, vowel, f0 offset) in samples, with
    pauses of silence between words and alternating phrase levels."""
    total = int(round(seconds * RATE))
    out = []
    t = int(0.12 * RATE)
    word = 0
    while True:
        level = LOUD if (word // 2) % 2 == 0 else QUIET
        count = int(rng.randint(1, 4))
        lens = [int(rng.randint(int(0.11 * RATE), int(0.24 * RATE))) for _ in range(count)]
        if t + sum(lens) > total - int(0.05 * RATE):
            break
        for n in lens:
            out.append((t, n, level * (0.75 + 0.25 * rng.rand()), int(rng.randint(len(VOWELS))),
                        rng.uniform(-15.0, 25.0)))
            t += n
        t += int(rng.randint(int(0.12 * RATE), int(0.35 * RATE)))
        word += 1
    return total, out


def synthesize(seconds, seed=1):
    """(pcm int16, envelope float per sample): the clip and the amplitude
    envelope it was made with (0 in the pauses), for checks that need to
    know which frames are loud, quiet or silent."""
    rng = np.random.RandomState(seed)
    total, syllables = _plan(seconds, rng)
    signal = np.zeros(total)
    env = np.zeros(total)
    for start, n, gain, vowel, df0 in syllables:
        u = np.arange(n) / n
        f0 = (150.0 - 25.0 * (start / max(total, 1)) + df0) * (1.0 + 0.08 * np.sin(np.pi * u))
        phase = 2.0 * np.pi * np.cumsum(f0) / RATE
        formants = VOWELS[vowel]
        nxt = VOWELS[(vowel + 1) % len(VOWELS)]
        # Formants glide a little towards the next vowel across the syllable.
        tone = np.zeros(n)
        mid = f0[n // 2]
        for k in range(1, int(3800.0 / mid) + 1):
            ga = _formant_gain(np.array([k * mid]), formants)[0]
            gb = _formant_gain(np.array([k * mid]), nxt)[0]
            tone += ((1.0 - 0.3 * u) * ga + 0.3 * u * gb) / k * np.sin(k * phase)
        tone /= np.sqrt(np.mean(tone * tone)) + 1e-12
        shape = np.sin(np.pi * np.minimum(u / 0.25, 1.0) / 2.0) ** 2 * np.cos(np.pi * np.maximum(u - 0.6, 0.0) / 0.8) ** 2
        voiced = tone * shape * gain
        if rng.rand() < 0.4:  # a consonant: a short burst of noise, differenced
            m = min(n, int(0.03 * RATE))
            burst = np.diff(rng.randn(m + 1)) * 0.25 * gain * np.hanning(m)
            voiced[:m] += burst
        signal[start:start + n] += voiced
        env[start:start + n] = np.maximum(env[start:start + n], shape * gain)
    peak = np.max(np.abs(signal)) if total else 0.0
    scale = PEAK * 32767.0 / peak if peak > 0 else 0.0
    pcm = np.clip(np.round(signal * scale), -32768, 32767).astype(np.int16)
    return pcm, env


def loudness_classes(pcm, env):
    """Per frame of a synthesized clip: the envelope's mean level, and which
    frames are loud, quiet, and well inside a pause (the mouth takes a few
    frames to close). Returns (frames, level, loud, quiet, pause)."""
    frames = (len(pcm) + FRAME - 1) // FRAME
    level = np.array([env[f * FRAME:(f + 1) * FRAME].mean() for f in range(frames)])
    loud = level > 0.6 * LOUD
    quiet = (level > 0.6 * QUIET) & (level < 1.2 * QUIET)
    pause = np.convolve((level > 0).astype(float), np.ones(5), "same") == 0
    return frames, level, loud, quiet, pause


def silence(seconds):
    return np.zeros(int(round(seconds * RATE)), dtype=np.int16)


def wav_bytes(pcm):
    data = np.asarray(pcm, dtype="<i2").tobytes()
    header = b"RIFF" + struct.pack("<I", 36 + len(data)) + b"WAVE"
    header += b"fmt " + struct.pack("<IHHIIHH", 16, 1, 1, RATE, RATE * 2, 2, 16)
    return header + b"data" + struct.pack("<I", len(data)) + data


def write_wav(path, pcm):
    os.makedirs(os.path.dirname(os.path.abspath(path)), exist_ok=True)
    with open(path, "wb") as f:
        f.write(wav_bytes(pcm))


def write_clips(root):
    write_wav(os.path.join(root, "speech_3s.wav"), synthesize(3.0, seed=3)[0])
    write_wav(os.path.join(root, "speech_10s.wav"), synthesize(10.0, seed=10)[0])
    write_wav(os.path.join(root, "silence_2s.wav"), silence(2.0))


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: speech_clip.py OUT.wav SECONDS")
    try:
        seconds = float(sys.argv[2])
    except ValueError:
        seconds = 0.0
    if not 0 < seconds < 36000:
        sys.exit("speech_clip.py: SECONDS must be a positive number of seconds, below 36000")
    write_wav(sys.argv[1], synthesize(seconds, seed=int(seconds * 1000) & 0x7FFFFFFF or 1)[0])


if __name__ == "__main__":
    main()
