#!/usr/bin/python3
"""Synthetic motion pipeline: the motion directory that le_motion reads
(a student speech-feature graph over a log-mel window, a chunked motion
graph, a keypoint stitch graph, and their tables), the frame-conditioned
delta graph of the batch session (fca_stream.onnx), bundles built on the
sample bundle that speak through them, and benchmark bundles.

What the weights do. The student takes the 21 log-mel spectra of a window
(band-major, 80 x 21), averages each over its bands, averages neighbouring
spectra in pairs (row k from spectra k and k + 1), and measures loudness as
L = Relu(level + 5): digital silence sits at log(1e-8), far below, and gives
0; quiet speech gives about 1.5, loud speech about 2.5. Its 1024 channels
are L times a fixed +-1 pattern plus a constant row; the tables
hubert_fmean.bin and hubert_fstd.bin are arbitrary, and the motion graph
undoes them (its loudness read-out is the pattern divided through fstd).

The motion graph is row-wise: for each of its 80 condition rows it reads the
loudness back and the row's emotion values, and adds to the motion state
loudness times a fixed motion row plus a small emotion term. The state's pose
dims (0 to 201) are pulled half way back to the character's own pose, its
expression dims pass as they are; so expression rows follow the audio frame
by frame and never depend on the chunk schedule, while the pose dims carry
the state from chunk to chunk. The expression term opens the mouth: keypoint
rows 17 (upper lip, -y), 19 and 20 (mouth corners, +y, inwards in x) move
with loudness; rows 16 (chin) and 18 (lower lip) and some brow rows move too,
but the mask of le_motion keeps only rows 6, 12, 14, 17, 19 and 20, so those
never reach a frame. The limits in v_min_max.bin stop the mouth corners at
the loudest frames. The stitch graph returns x_d plus the corners' mean y
displacement spread onto the chin and the lower lip, so the whole mouth
(rows 16 to 20, y growing downwards) opens with louder voiced speech, and
silence leaves it where frame 0 had it.

The fca graph (the batch session's) is a tanh recurrent cell over the seven
centred feature rows of a frame: it averages the tiled copies of the 8 s
encoder's 16 loudness values back out of each row, weighs the frame itself
and its look-ahead rows, and its state channel 0, which grows with loudness
above the clip's running centre, opens the mouth as in the speech models.

Usage:
  motion_graphs.py check            computes the pipeline over generated
                                    clips in numpy and checks that loud
                                    speech opens the mouth and silence does
                                    not (exit 1 if not)
  motion_graphs.py bench OUT_DIR CROP
                                    a benchmark bundle at that crop
                                    (render_graphs.py bench) with every
                                    speech member: the streaming a2x
                                    members, the motion directory,
                                    fca_stream.onnx, xs_target.bin and the
                                    director under the key "render" as well

Layout under OUT/motion (written by gen_bundles.py through write_cases):
  bundles/speaking/     the sample bundle without its streaming a2x members,
                        with the motion directory in it (meta.json and the
                        tables, hubert_student.onnx, lmdm.onnx, stitch.onnx),
                        fca_stream.onnx and the director under "render"
  dirs/nt1/             a motion directory alone, one source row
  dirs/delta_pitch/     the speaking bundle's motion directory with
                        delta_pitch 6 in its meta.json
"""
import json
import math
import os
import sys

import numpy as np
from onnx import helper

import audio_graphs
import render_graphs
import session_bench
import speech_clip
from bundle_data import Bundle, Rng, f32
from graphs import _f32, _i64, _init, _model, _value

# Log-mel front end (le_motion computes it; the tables are ours).
NFFT = 512
BINS = NFFT // 2 + 1
MELS = 80
SPECTRA = 21
RATE = 16000
FRAME = 640
# Student.
ROWS = 20
FEAT = 1024
LEVEL_FLOOR = -5.0       # band-mean log-mel level at which loudness starts
# Condition and motion rows.
EMO = 8
COND = FEAT + 8 + 2 + 6 + 63
MOTION = 265
POSE = 202
KP = 63
SRC = 328
N_EMO = 3
CHUNK = 80
MASK_ROWS = (6, 12, 14, 17, 19, 20)
# Expression opening per unit of loudness, (dx, dy) per keypoint row.
OPEN = 0.025
OPENING = {17: (0.0, -0.35), 19: (0.25, 0.3), 20: (-0.25, 0.3), 16: (0.0, 0.8), 18: (0.0, 1.0),
           2: (0.0, -0.2), 3: (0.0, -0.2)}
# The stitch spreads the corners' mean y displacement onto chin and lower lip.
SPREAD = {16: 0.8 / 0.3, 18: 1.0 / 0.3}
CORNER_LIMIT = 0.03      # the corners' expression stops this far below the character's
S_BRIDGE = 0.8
# fca.
FCA_COND = 7 * 768
FCA_H = 384
FCA_CELL = 8
TILES, MIX = 48, 16      # an 8 s encoder row is 48 copies of 16 values


# ----------------------------------------------------------------- tables

def hann():
    return _f32([0.5 - 0.5 * math.cos(2.0 * math.pi * k / NFFT) for k in range(NFFT)])


def mel_bins():
    """257 x 80 triangular mel filters (peak 1), bin-major."""
    hz2mel = lambda f: 2595.0 * math.log10(1.0 + f / 700.0)
    mel2hz = lambda m: 700.0 * (math.pow(10.0, m / 2595.0) - 1.0)
    top = hz2mel(RATE / 2.0)
    pts = [mel2hz(top * i / (MELS + 1)) for i in range(MELS + 2)]
    m = np.zeros((BINS, MELS))
    for b in range(MELS):
        a, c, e = pts[b], pts[b + 1], pts[b + 2]
        for k in range(BINS):
            f = k * RATE / float(NFFT)
            if a < f <= c:
                m[k, b] = (f - a) / (c - a)
            elif c < f < e:
                m[k, b] = (e - f) / (e - c)
    return _f32(m)


def _logits(deg):
    """66 bin logits whose softmax expectation gives about deg degrees
    (degrees = expectation * 3 - 97.5)."""
    centre = (deg + 97.5) / 3.0
    return _f32([-0.5 * ((k - centre) / 1.5) ** 2 for k in range(66)])


def _canonical_kp():
    """21 face keypoints (x, y, z), y down; 16 to 20 the mouth."""
    pts = [(-0.45, -0.35), (-0.25, -0.4), (-0.08, -0.38), (0.08, -0.38), (0.25, -0.4), (0.45, -0.35),
           (-0.3, -0.2), (-0.2, -0.22), (0.2, -0.22), (0.3, -0.2), (0.0, -0.1), (0.0, 0.05),
           (-0.12, 0.1), (0.12, 0.1), (-0.5, 0.1), (0.5, 0.1), (0.0, 0.55), (0.0, 0.28),
           (0.0, 0.36), (-0.18, 0.32), (0.18, 0.32)]
    return [v for x, y in pts for v in (x, y, 0.05 * math.cos(3.0 * x))]


def _src_row(rng, pitch, yaw, roll, scale, t):
    """One 328-float source row: exp, kp, pitch, roll, scale, t, yaw."""
    exp = [(rng.unit() - 0.5) * 0.02 for _ in range(KP)]
    kp = [v + (rng.unit() - 0.5) * 0.01 for v in _canonical_kp()]
    return _f32(exp + kp + list(_logits(pitch)) + list(_logits(roll)) + [scale] + list(t) + list(_logits(yaw)))


class Tables:
    """Every table of the motion directory but meta.json and xs_target.bin."""

    def __init__(self, nt):
        rng = Rng(0x30710 + nt)
        self.window = hann()
        self.binmat = mel_bins()
        r = np.random.RandomState(0x30710)
        self.fmean = _f32(r.normal(0.0, 0.1, FEAT))
        self.fstd = _f32(r.uniform(0.5, 1.5, FEAT))
        self.emo = _f32(r.uniform(-1.0, 1.0, (N_EMO, EMO)))
        self.ch = _src_row(rng, 1.0, -2.0, 0.5, 1.2, (0.01, -0.02, 0.0))
        self.sc = _f32(r.normal(0.0, 0.3, KP))
        self.eye_open = _f32([0.9, 0.85])
        self.eye_ball = _f32(r.normal(0.0, 0.1, 6))
        self.src = [_src_row(rng, 3.0 * math.sin(i), 5.0 * math.cos(i), 2.0 * math.sin(2 * i),
                             1.1 + 0.02 * math.sin(3 * i), (0.01 * i, -0.01, 0.003 * i)) for i in range(nt)]
        ch = self.ch
        self.kp0 = _f32([ch[258] - 1.0] + list(ch[126:192]) + list(ch[262:328]) + list(ch[192:258]) +
                        list(ch[259:262]) + list(ch[0:63]))
        vmin = np.concatenate([self.kp0[:POSE] - 5.0, self.kp0[POSE:] - 0.5])
        vmax = np.concatenate([self.kp0[:POSE] + 5.0, self.kp0[POSE:] + 0.5])
        for row in (19, 20):
            vmax[POSE + 3 * row + 1] = self.kp0[POSE + 3 * row + 1] + CORNER_LIMIT
        self.vmin, self.vmax = _f32(vmin), _f32(vmax)

    def files(self, meta):
        out = {"meta.json": (json.dumps(meta) + "\n").encode(),
               "hubert_stft_window.bin": self.window, "hubert_stft_binmat.bin": self.binmat,
               "hubert_fmean.bin": self.fmean, "hubert_fstd.bin": self.fstd, "emo.bin": self.emo,
               "ch_xs_info.bin": self.ch, "ch_sc.bin": self.sc, "ch_eye_open.bin": self.eye_open,
               "ch_eye_ball.bin": self.eye_ball,
               "v_min_max.bin": np.concatenate([self.vmin, self.vmax]),
               "src_xs_info.bin": np.concatenate(self.src)}
        return {k: (v if isinstance(v, bytes) else np.asarray(v, dtype="<f4").tobytes()) for k, v in out.items()}


def pattern():
    """A fixed +-1 pattern over the student's channels."""
    return _f32([1.0 if bin(c * 2654435761 & 0xFFFF).count("1") % 2 == 0 else -1.0 for c in range(FEAT)])


class Weights:
    def __init__(self, tables):
        t = tables
        r = np.random.RandomState(0x30711)
        self.p = pattern()
        self.q = _f32(r.normal(0.0, 0.2, FEAT))
        # The motion graph reads loudness back through fstd and fmean.
        ps = self.p.astype(np.float64) * t.fstd
        self.u = _f32((ps / np.dot(ps, ps)).reshape(FEAT, 1))
        self.c0 = _f32(np.dot((self.q * t.fstd + t.fmean).astype(np.float64), self.u[:, 0]))
        v = np.zeros(MOTION)
        for row, (dx, dy) in OPENING.items():
            v[POSE + 3 * row] = OPEN * dx
            v[POSE + 3 * row + 1] = OPEN * dy
        for k in range(28, 37):  # a nod: pitch logits lean with loudness
            v[1 + k] = 0.05 * (k - 32)
        v[199 + 1] = 0.002        # and the head drops a little
        self.v = _f32(v.reshape(1, MOTION))
        e = np.zeros((EMO, MOTION))
        for row in (6, 12, 14):
            e[:, POSE + 3 * row + 1] = r.normal(0.0, 0.004, EMO)
        e[:, 1:199] = r.normal(0.0, 0.02, (EMO, 198))
        self.e = _f32(e)
        self.a = _f32([0.5] * POSE + [1.0] * (MOTION - POSE))
        self.b = _f32(list(0.5 * t.kp0[:POSE]) + [0.0] * (MOTION - POSE))
        s = np.zeros((KP, KP))
        for dst, g in SPREAD.items():
            for corner in (19, 20):
                s[3 * corner + 1, 3 * dst + 1] = 0.5 * g
        self.s = _f32(s)


# ------------------------------------------------------------------ graphs

def student_graph(w):
    n = helper.make_node
    inits = [_i64("s_lo", [0]), _i64("s_mid", [SPECTRA - 1]), _i64("s_one", [1]), _i64("s_hi", [SPECTRA]),
             _i64("s_axis", [2]), _init("half", _f32(0.5)), _init("floor", _f32(LEVEL_FLOOR)),
             _i64("s_unsq", [3]), _init("pattern", w.p), _init("offset", w.q)]
    nodes = [
        n("ReduceMean", ["mel"], ["level"], name="/level/ReduceMean", axes=[1], keepdims=1),
        n("Slice", ["level", "s_lo", "s_mid", "s_axis"], ["l0"], name="/level/Slice"),
        n("Slice", ["level", "s_one", "s_hi", "s_axis"], ["l1"], name="/level/Slice_1"),
        n("Add", ["l0", "l1"], ["l01"], name="/level/Add"),
        n("Mul", ["l01", "half"], ["pair"], name="/level/Mul"),
        n("Sub", ["pair", "floor"], ["above"], name="/loud/Sub"),
        n("Relu", ["above"], ["loud"], name="/loud/Relu"),
        n("Unsqueeze", ["loud", "s_unsq"], ["loud4"], name="/feat/Unsqueeze"),
        n("Mul", ["loud4", "pattern"], ["spread"], name="/feat/Mul"),
        n("Add", ["spread", "offset"], ["feat4"], name="/feat/Add"),
        n("Squeeze", ["feat4", "s_one"], ["feat"], name="/feat/Squeeze"),
    ]
    return _model(nodes, [_value("mel", [1, MELS, SPECTRA])], [_value("feat", [1, ROWS, FEAT])], inits,
                  "hubert_student")


def lmdm_graph(w):
    n = helper.make_node
    inits = [_i64("c_lo", [0]), _i64("c_feat", [FEAT]), _i64("c_emo", [FEAT + EMO]), _i64("c_axis", [2]),
             _init("readout", w.u), _init("readout_c0", w.c0), _init("motion_v", w.v), _init("emo_w", w.e),
             _init("pull_a", w.a), _init("pull_b", w.b)]
    nodes = [
        n("Slice", ["aud", "c_lo", "c_feat", "c_axis"], ["feat"], name="/cond/Slice"),
        n("Slice", ["aud", "c_feat", "c_emo", "c_axis"], ["emo"], name="/cond/Slice_1"),
        n("MatMul", ["feat", "readout"], ["loud0"], name="/loud/MatMul"),
        n("Sub", ["loud0", "readout_c0"], ["loud"], name="/loud/Sub"),
        n("MatMul", ["loud", "motion_v"], ["t_loud"], name="/motion/Loud"),
        n("MatMul", ["emo", "emo_w"], ["t_emo"], name="/motion/Emo"),
        n("Mul", ["kp", "pull_a"], ["kp_a"], name="/state/Mul"),
        n("Add", ["kp_a", "pull_b"], ["kp_b"], name="/state/Add"),
        n("Add", ["t_loud", "t_emo"], ["terms"], name="/motion/Add"),
        n("Add", ["terms", "kp_b"], ["pred"], name="/motion/Add_1"),
    ]
    inputs = [_value("kp", [1, MOTION]), _value("aud", [1, CHUNK, COND])]
    return _model(nodes, inputs, [_value("pred", [1, CHUNK, MOTION])], inits, "lmdm")


def stitch_graph(w):
    n = helper.make_node
    inits = [_init("spread_w", w.s), _i64("kp_shape", [1, 21, 3])]
    nodes = [
        n("Sub", ["x_d", "x_s"], ["moved"], name="/stitch/Sub"),
        n("MatMul", ["moved", "spread_w"], ["fix"], name="/stitch/MatMul"),
        n("Add", ["x_d", "fix"], ["st"], name="/stitch/Add"),
        n("Reshape", ["st", "kp_shape"], ["out"], name="/stitch/Reshape"),
    ]
    return _model(nodes, [_value("x_s", [1, KP]), _value("x_d", [1, KP])], [_value("out", [1, 21, 3])], inits,
                  "stitch")


class FcaWeights:
    def __init__(self):
        r = np.random.RandomState(0xFCA)
        # Row weights over the 7 rows (t-1 .. t+5) for the loudness value
        # (index 0: the frame's log energy) into cell channel 0, and small
        # mixes of the other values into channels 1 to 7.
        b = np.zeros((7 * MIX, FCA_CELL))
        for row, g in enumerate((0.1, 0.5, 0.25, 0.1, 0.05, 0.0, 0.0)):
            b[row * MIX + 0, 0] = 0.6 * g
            b[row * MIX:(row + 1) * MIX, 1:] = r.normal(0.0, 0.02, (MIX, FCA_CELL - 1)) * g
        self.b = _f32(b)
        a = 0.2 * np.eye(FCA_CELL) + r.normal(0.0, 0.02, (FCA_CELL, FCA_CELL))
        self.a = _f32(a)
        self.c = _f32(r.normal(0.0, 0.01, (KP, FCA_CELL)))
        self.bias = _f32([0.0] + list(r.uniform(-0.2, 0.2, FCA_CELL - 1)))
        d = np.zeros((FCA_CELL, KP))
        for row, (dx, dy) in audio_graphs.OPENING.items():
            d[0, 3 * row] = 0.05 * dx
            d[0, 3 * row + 1] = 0.05 * dy
        d[1:4, :] = r.normal(0.0, 0.002, (3, KP))
        self.d = _f32(d)


def fca_graph():
    w = FcaWeights()
    n = helper.make_node
    inits = [_i64("tiles", [1, 7, TILES, MIX]), _i64("rows", [1, 7 * MIX]), _init("fca_b", w.b),
             _i64("h2", [1, FCA_H]), _i64("h_lo", [0]), _i64("h_cell", [FCA_CELL]), _i64("h_axis", [1]),
             _init("fca_a", w.a), _init("fca_c", w.c), _init("fca_bias", w.bias),
             _i64("h_pad", [0, 0, 0, FCA_H - FCA_CELL]), _i64("h3", [1, 1, FCA_H]), _init("fca_d", w.d)]
    nodes = [
        n("Reshape", ["cond", "tiles"], ["c4"], name="/cond/Reshape"),
        n("ReduceMean", ["c4"], ["c3"], name="/cond/ReduceMean", axes=[2], keepdims=0),
        n("Reshape", ["c3", "rows"], ["c2"], name="/cond/Reshape_1"),
        n("MatMul", ["c2", "fca_b"], ["pc"], name="/cell/Cond"),
        n("Reshape", ["h", "h2"], ["hv"], name="/cell/Reshape"),
        n("Slice", ["hv", "h_lo", "h_cell", "h_axis"], ["hs"], name="/cell/Slice"),
        n("MatMul", ["hs", "fca_a"], ["ph"], name="/cell/State"),
        n("MatMul", ["prev", "fca_c"], ["pp"], name="/cell/Prev"),
        n("Add", ["pc", "ph"], ["s1"], name="/cell/Add"),
        n("Add", ["s1", "pp"], ["s2"], name="/cell/Add_1"),
        n("Add", ["s2", "fca_bias"], ["s3"], name="/cell/Bias"),
        n("Tanh", ["s3"], ["cell"], name="/cell/Tanh"),
        n("MatMul", ["cell", "fca_d"], ["m"], name="/out/MatMul"),
        n("Pad", ["cell", "h_pad"], ["hp"], name="/out/Pad"),
        n("Reshape", ["hp", "h3"], ["hn"], name="/out/Reshape"),
    ]
    inputs = [_value("cond", [1, FCA_COND]), _value("prev", [1, KP]), _value("h", [1, 1, FCA_H])]
    return _model(nodes, inputs, [_value("m", [1, KP]), _value("hn", [1, 1, FCA_H])], inits, "fca_stream")


# ----------------------------------------------------------------- members

def meta(nt, **extra):
    m = {"nt": nt, "n_src": nt, "n_emo": N_EMO, "s_bridge": S_BRIDGE}
    m.update(extra)
    return m


def motion_members(nt, **extra):
    """The motion directory's files for nt source frames (xs_target.bin is
    the bundle's)."""
    t = Tables(nt)
    w = Weights(t)
    out = t.files(meta(nt, **extra))
    out["hubert_student.onnx"] = student_graph(w)
    out["lmdm.onnx"] = lmdm_graph(w)
    out["stitch.onnx"] = stitch_graph(w)
    return out


def render_key_members(lip_template, member):
    """The director under the key "render" as well: the same member bytes,
    bound in the lip template by a copy of the b1_fp32 entry."""
    t = json.loads(lip_template)
    graphs = t["compose_v2"]["graphs"]
    graphs["model_render.onnx"] = dict(graphs["model_%s.onnx" % render_graphs.SAMPLE_KEY])
    return {"model_render.onnx": member, "lip_template.v1.json": (json.dumps(t) + "\n").encode()}


def speaking_members(sample):
    """The sample bundle's members without the streaming a2x model, with the
    motion directory, fca_stream.onnx and the director under "render"."""
    a2x = set(audio_graphs.sample_members())
    members = {k: v for k, v in sample.members.items() if k not in a2x}
    members.update(motion_members(sample.manifest["NT"]))
    members["fca_stream.onnx"] = fca_graph()
    key = "model_%s.onnx" % render_graphs.SAMPLE_KEY
    members.update(render_key_members(members["lip_template.v1.json"].decode(), members[key]))
    return members


def write_cases(root, sample):
    Bundle(sample.manifest, speaking_members(sample)).write_dir(os.path.join(root, "bundles", "speaking"))
    one = motion_members(1)
    one["xs_target.bin"] = f32([(i % 7) / 10.0 - 0.3 for i in range(KP)])
    Bundle(None, one).write_dir(os.path.join(root, "dirs", "nt1"))
    nt = sample.manifest["NT"]
    pitched = motion_members(nt, delta_pitch=6.0)
    pitched["xs_target.bin"] = sample.members["xs_target.bin"]
    Bundle(None, pitched).write_dir(os.path.join(root, "dirs", "delta_pitch"))


def bench_bundle(out, crop):
    """session_bench.py's bundle (a 1280x720 driver loop, the director at
    the crop with its chunk graph, the streaming a2x members) with the
    motion directory, fca_stream.onnx and the director under "render" too."""
    session_bench.bench_bundle(out, crop)
    with open(os.path.join(out, "lip_template.v1.json"), encoding="utf-8") as f:
        template = f.read()
    with open(os.path.join(out, "model_%s.onnx" % render_graphs.SAMPLE_KEY), "rb") as f:
        member = f.read()
    extra = motion_members(session_bench.NT)
    extra.update(render_key_members(template, member))
    extra["fca_stream.onnx"] = fca_graph()
    Bundle(None, extra).write_dir(out)


# ------------------------------------------------------------------- check

def _window_mel(x, w, tables):
    """The log-mel spectra of the window at frame w (float64 FFT: close to,
    not the bits of, le_motion's)."""
    s = np.zeros(6480)
    lo = w * FRAME - 2000
    a, b = max(lo, 0), min(lo + 6480, len(x))
    if b > a:
        s[a - lo:b - lo] = x[a:b]
    p = np.concatenate([s[256:0:-1], s, s[6478:6478 - 256:-1]])
    mel = np.zeros((MELS, SPECTRA))
    for t in range(SPECTRA):
        mag = np.abs(np.fft.rfft(p[t * 320:t * 320 + NFFT] * tables.window))
        mel[:, t] = np.log(mag @ tables.binmat + 1e-8)
    return mel


def _loudness(mel):
    level = mel.mean(axis=0)
    return np.maximum((level[:-1] + level[1:]) * 0.5 - LEVEL_FLOOR, 0.0)


def mouth_of_clip(pcm, nt=4):
    """Mean |xd - xs| over mouth rows 16 to 20, per frame, of a whole clip.
    The motion graph is row-wise and expression dims are neither smoothed
    nor carried by the state, so the chunk schedule leaves them alone; the
    emotion term is left out."""
    t = Tables(nt)
    w = Weights(t)
    x = np.asarray(pcm, dtype=np.float64) / 32768.0
    frames = (len(x) + FRAME - 1) // FRAME
    loud = np.zeros(frames)
    for wi in range(0, frames, 5):
        l20 = _loudness(_window_mel(x, wi, t))
        for r in range(5):
            if wi + r < frames:
                loud[wi + r] = (l20[6 + 2 * r] + l20[7 + 2 * r]) * 0.5
    expr = t.kp0[POSE:] + loud[:, None] * w.v[0, POSE:]
    expr = np.minimum(np.maximum(expr, t.vmin[POSE:]), t.vmax[POSE:])
    src = t.src[0]
    rel = t.ch[258] / src[258]
    mask = np.array([1.0 if i // 3 in MASK_ROWS else 0.0 for i in range(KP)])
    moved = (expr - expr[0]) * rel * mask * src[258]          # x_d - x_s with no delta_pitch
    st_minus_xs = moved + moved @ w.s
    d = S_BRIDGE * st_minus_xs
    idx = [3 * r + c for r in range(16, 21) for c in range(3)]
    return np.abs(d[:, idx]).mean(axis=1), loud


def check():
    pcm, env = speech_clip.synthesize(10.0, seed=10)
    _, level, loud, quiet, pause = speech_clip.loudness_classes(pcm, env)
    mouth, _ = mouth_of_clip(pcm)
    silent, _ = mouth_of_clip(speech_clip.silence(2.0))
    corr = np.corrcoef(level, mouth)[0, 1]
    a, b, c = mouth[loud].mean(), mouth[quiet].mean(), mouth[pause].mean()
    print("motion pipeline: mean |xd - xs| on mouth rows 16-20: loud speech %.4f (%d frames), quiet speech %.4f "
          "(%d), pauses %.4f (%d), silence clip max %.4f; correlation with frame loudness %.2f"
          % (a, loud.sum(), b, quiet.sum(), c, pause.sum(), silent.max(), corr))
    ok = a > 1.5 * b > 0 and b > 3 * c and silent.max() < 1e-6 and corr > 0.6
    print("check: " + ("ok" if ok else "FAILED"))
    return 0 if ok else 1


def main():
    if sys.argv[1:] == ["check"]:
        sys.exit(check())
    if len(sys.argv) == 4 and sys.argv[1] == "bench":
        bench_bundle(sys.argv[2], int(sys.argv[3]))
        return
    sys.exit(__doc__)


if __name__ == "__main__":
    main()
