#!/usr/bin/python3
"""Synthetic speech models: the speech encoders outside the bundle (the 8 s
graph and the short-window trunk/head pair) and the streaming
audio-to-keypoints members of a bundle, with the forward math of every graph
written again in numpy beside its builder so that the behaviour of the
weights can be checked without a runtime.

What the weights do. The encoders measure loudness: at every position, 80
samples apart, the log energy of the (standardised) signal over the 640
samples from that position on, over its first 160 samples, over a 1280-sample
context, and of its first difference. A pause of digital silence gives the
floor log(1e-3) in all four. The trunk spreads the four values over 640
channels (a fixed 640x4 map, then half precision); the head takes them back
(its pseudo-inverse) and lays 16 values out over 12 layers of 768, scaled per
layer. The streaming encoder averages the 16 values back out of a feature
frame, turns them into 8 content channels that are 0 at the silence floor and
grow with the energy (Relu of an affine map), adds the position rows (which
occupy the other 24 channels only) and runs `layers` rounds of single-head
masked attention, softmax(QK^T/4 + attn) V, whose values carry the content
channels only: silence stays exactly 0 and loud frames spread to their
neighbours within the mask, so window and left change the rows. The decoder
is a tanh recurrent cell over ctx_t, prev and h: voiced speech drives state
channel 0 towards 1 with about one frame of smoothing; its bias sits only on
state channels that barely move a keypoint, so silence settles at a resting
state that is not 0 (a primed state differs from the zero state in its bits)
while its deltas stay within 0.002 of 0.

Keypoint rows. Of the 21 rows (x, y, z each; y grows downwards on the
canvas) the mouth is rows 16 to 20: 16 chin, 17 upper lip, 18 lower lip,
19 left mouth corner, 20 right mouth corner. The mouth opens along y: chin
and lower lip move down (+y), the upper lip a little up (-y), the corners a
little down and inwards (x). The opening grows with the loudness of the
frame (state channel 0); rows 0 to 15 move slightly with the other state
channels. The mean of the norm table is within 0.002 of 0.

Usage:
  audio_graphs.py check     runs the numpy forward math over generated
                            clips and checks that loud speech opens the mouth
                            and silence does not (exit 1 if not)

Layout under OUT/audio (written by gen_bundles.py through write_cases):
  w2v/w2v.onnx                                   the 8 s graph
  w2v/audio_encoder_fp16_window_{trunk,head}.onnx  the short-window pair
  w2v8only/w2v.onnx                              the 8 s graph alone
  w2v_legacy/w2v.onnx, w2v_trunk32.onnx, w2v_head32.onnx
                                                 the pair under its legacy names
  w2v_gelu/                                      8 s graph, and a pair whose
                                                 trunk ends in a float16
                                                 Erf-based Gelu
  w2v_gelu_mistyped/                             8 s graph, and a pair whose
                                                 trunk's float16 Gelu is
                                                 refused at every level
  clips/speech_3s.wav, speech_10s.wav, silence_2s.wav
  bundles/<case>/                                the sample bundle with one
                                                 change to its audio members
"""
import json
import math
import os
import sys

import numpy as np
from onnx import TensorProto, helper

import speech_clip
from bundle_data import Bundle, f32
from graphs import _f32, _i64, _init, _model, _value

# Frontend geometry.
HOP = 80                 # samples between trunk positions
FRAME = 640              # samples per feature frame
TRUNK_N = 32000          # short window
LT = TRUNK_N // HOP      # trunk positions, 400
W8_N = 128000            # 8 s window
W8_FRAMES = 200
W8_POS = W8_N // HOP     # 1600 positions, of which 0..1598 are used
CHANNELS = 640           # trunk channels
LAYERS, WIDTH = 12, 768  # feature frame: [layer][768]
FEAT = LAYERS * WIDTH
BASE = 4                 # loudness measures per position
MIX = 16                 # values laid out in a feature frame
EPS = 1e-3               # the floor of the log energies: silence
KERNEL = 1280            # energy kernel span, from position - 320
PAD_L = 320

# Streaming model.
H = 32
CONTENT = 8              # channels 0..7 carry audio, 8..31 positions
P_ROWS = 100
KP = 63
MOUTH_ROWS = (16, 17, 18, 19, 20)
# Per mouth row: (dx, dy) of the opening, per unit of state channel 0.
OPENING = {16: (0.0, 0.8), 17: (0.0, -0.35), 18: (0.0, 1.0), 19: (0.25, 0.3), 20: (-0.25, 0.3)}
MOUTH_STD_Y = 0.1
MOUTH_STD_X = 0.05

TRUNK_OUT = "trunk_hidden"


# ----------------------------------------------------------------- weights

class Weights:
    """Every weight of the speech graphs, from fixed seeds."""

    def __init__(self):
        rng = np.random.RandomState(0xA2C0)
        # Energy kernels over [sq, dsq], taps k <-> sample position*80 - 320 + k.
        k = np.zeros((BASE, 2, KERNEL))
        k[0, 0, 320:960] = 1.0 / 640      # the frame
        k[1, 1, 320:960] = 1.0 / 640 / 4  # the frame's first difference
        k[2, 0, 320:480] = 1.0 / 160      # its first 10 ms
        k[3, 0, :] = 1.0 / 1280           # its context
        self.kernel = _f32(k)
        self.diff = _f32([[[-1.0, 1.0]]])
        # The trunk's 640x4 map has orthogonal +-c columns (Walsh patterns),
        # so the head's inverse is exact and needs no linear algebra library,
        # whose last bits may differ between machines.
        walsh = np.array([[1.0 if bin(i & (j * 37 + 1)).count("1") % 2 == 0 else -1.0 for j in range(BASE)]
                          for i in range(128)])
        assert np.array_equal(walsh.T @ walsh, 128 * np.eye(BASE))
        column = np.array([0.5, 0.4, 0.3, 0.25])
        e = np.tile(walsh, (CHANNELS // 128, 1)) * column
        self.expand = _f32(e)                                   # 640 x 4
        inv = e / (column * column * CHANNELS)                  # pinv(e).T
        mix = np.concatenate([np.eye(BASE), rng.normal(0.0, 0.4, (BASE, MIX - BASE))], axis=1)
        head = np.zeros((CHANNELS, MIX))
        for j in range(BASE):
            head = head + inv[:, j:j + 1] * mix[j:j + 1, :]
        self.head = _f32(head)                                  # 640 x 16
        self.layer_gain = _f32((0.5 + np.arange(LAYERS) / (LAYERS - 1.0)).reshape(LAYERS, 1))
        # Positions the 8 s window's 200 frames take among its 1599 positions.
        p = np.arange(W8_FRAMES) * (1598.0 / 199.0)
        idx = np.floor(p).astype(np.int64)
        self.idx = idx
        self.idx2 = np.minimum(idx + 1, W8_POS - 1)
        self.frac = _f32(p - idx)

        # Encoder: content channels, each 0 at the silence floor.
        win = np.zeros((MIX, H))
        bias = np.zeros(H)
        floor = np.log(EPS)
        # (base row, gain, how far above the floor the channel starts)
        for c, (row, gain, start) in enumerate([(0, 0.35, 3.9), (2, 0.3, 3.9), (1, 0.3, 2.0), (3, 0.3, 3.9)]):
            win[row, c] = gain
            bias[c] = -gain * (floor + start)
        for c in range(4, CONTENT):
            w = rng.uniform(0.05, 0.3, BASE)
            win[:BASE, c] = w
            bias[c] = -w.sum() * (floor + 2.5)
        self.win, self.bin = _f32(win), _f32(bias)
        pos = np.zeros((P_ROWS, H))
        for u in range(P_ROWS):
            for j in range((H - CONTENT) // 2):
                pos[u, CONTENT + 2 * j] = math.sin(u * math.pow(0.8, j))
                pos[u, CONTENT + 2 * j + 1] = math.cos(u * math.pow(0.8, j))
        self.pos = _f32(pos)
        self.layers = []
        for _ in range(8):  # enough for any layer count the cases use
            q = np.zeros((H, 16))
            q[CONTENT:] = rng.normal(0.0, 0.3, (H - CONTENT, 16))
            q[:CONTENT] = rng.normal(0.0, 0.1, (CONTENT, 16))
            kk = q + np.vstack([np.zeros((CONTENT, 16)), rng.normal(0.0, 0.05, (H - CONTENT, 16))])
            v = np.zeros((H, H))
            v[:CONTENT, :CONTENT] = np.eye(CONTENT) + rng.normal(0.0, 0.08, (CONTENT, CONTENT))
            self.layers.append((_f32(q), _f32(kk), _f32(v)))
        self.scale = _f32([0.5] * CONTENT + [1.0] * (H - CONTENT))
        out = np.zeros((H, H))
        out[:CONTENT, :CONTENT] = np.eye(CONTENT)
        out[:CONTENT, CONTENT:] = rng.normal(0.0, 0.3, (CONTENT, H - CONTENT))
        self.out = _f32(out)
        wn = np.zeros((H, 1))
        wn[:CONTENT, 0] = rng.uniform(0.05, 0.2, CONTENT)
        self.wn = _f32(wn)

        # Decoder: h' = tanh(ctx B + h A + prev C), m = h' D.
        a = 0.25 * np.eye(H) + rng.normal(0.0, 0.02, (H, H))
        a[4:, :4] *= 0.25  # the resting state barely reaches the moving channels
        b = np.zeros((H, H))
        b[:CONTENT, :CONTENT] = rng.normal(0.0, 0.04, (CONTENT, CONTENT))
        b[CONTENT:, :CONTENT] = rng.normal(0.0, 0.02, (H - CONTENT, CONTENT))
        b[range(4), range(4)] = 0.3  # the four measures drive states 0..3
        c_ = rng.normal(0.0, 0.02, (KP, H))
        d = np.zeros((H, KP))
        for row, (dx, dy) in OPENING.items():
            d[0, 3 * row] = dx
            d[0, 3 * row + 1] = dy
        d[1:4, :] = rng.normal(0.0, 0.25, (3, KP))
        d[1:4, 3 * MOUTH_ROWS[0]:] *= 0.2  # the mouth follows state 0
        self.dec_a, self.dec_b, self.dec_c, self.dec_d = _f32(a), _f32(b), _f32(c_), _f32(d)
        mean = rng.normal(0.0, 0.0007, KP).clip(-0.002, 0.002)
        std = np.full(KP, 0.01)
        for row in MOUTH_ROWS:
            std[3 * row] = MOUTH_STD_X
            std[3 * row + 1] = MOUTH_STD_Y
        self.mean, self.std = _f32(mean), _f32(std)
        # The cell rests away from 0 in the channels that move nothing, so
        # that a primed state differs from the zero state.
        bias = np.zeros(H)
        bias[4:] = rng.uniform(-0.4, 0.4, H - 4)
        self.dec_bias = _f32(bias)


_W = None


def weights():
    global _W
    if _W is None:
        _W = Weights()
    return _W


# ------------------------------------------------------------ numpy forward

def _energy(x, w):
    """(BASE, n/80) log energies of a (n,) float32 window."""
    n = x.shape[0]
    dx = np.append(x[1:], np.float32(0)) - x
    sq = np.stack([x * x, dx * dx]).astype(np.float64)
    padded = np.concatenate([np.zeros((2, PAD_L)), sq, np.zeros((2, KERNEL - HOP - PAD_L))], axis=1)
    count = n // HOP
    cs = np.zeros((2, padded.shape[1] + 1))
    cs[:, 1:] = np.cumsum(padded, axis=1)
    out = np.zeros((BASE, count))
    for c in range(BASE):
        for ch in range(2):
            taps = np.nonzero(w.kernel[c, ch])[0]
            if len(taps):
                lo, hi = taps[0], taps[-1] + 1
                s = np.arange(count) * HOP
                out[c] += (cs[ch, s + hi] - cs[ch, s + lo]) * float(w.kernel[c, ch, lo])
    return np.log(out + EPS)


def trunk_forward(x):
    """(640, 400) float16 of a standardised (32000,) window."""
    w = weights()
    return (w.expand.astype(np.float64) @ _energy(x, w)).astype(np.float16)


def head_forward(rows):
    """(n, 9216) emb of (n, 640) trunk rows."""
    w = weights()
    y = np.asarray(rows, dtype=np.float64) @ w.head
    return np.tile(y[:, None, :] * w.layer_gain, (1, 1, WIDTH // MIX)).reshape(len(rows), FEAT)


def w8_forward(x):
    """(12, 200, 768) audio_emb of a standardised (128000,) window."""
    w = weights()
    e = _energy(x, w)
    base = e[:, w.idx] * (1.0 - w.frac) + e[:, w.idx2] * w.frac
    hid = (w.expand.astype(np.float64) @ base).astype(np.float16).astype(np.float64)
    return head_forward(hid.T).reshape(W8_FRAMES, LAYERS, WIDTH).transpose(1, 0, 2)


def attn_mask(n, window, left):
    i = np.arange(n)[:, None]
    j = np.arange(n)[None, :]
    return np.where((j >= i - left) & (j <= i + window), 0.0, -np.inf)


def encoder_forward(feat, pos_window, attn, layers, width=False):
    """(L, h) rows, and (L,) wn with width, of (L, 9216) feature frames."""
    w = weights()
    y = feat.reshape(len(feat), LAYERS * WIDTH // MIX, MIX).mean(axis=1)
    x = np.maximum(y @ w.win + w.bin, 0.0) + pos_window
    for q, k, v in w.layers[:layers]:
        s = (x @ q) @ (x @ k).T * 0.25 + attn
        s = np.exp(s - s.max(axis=1, keepdims=True))
        x = (x + (s / s.sum(axis=1, keepdims=True)) @ (x @ v)) * w.scale
    out = x @ w.out
    return (out, (out @ w.wn)[:, 0]) if width else out


def decoder_forward(ctx, prev, h):
    w = weights()
    hn = np.tanh(ctx @ w.dec_b + h @ w.dec_a + prev @ w.dec_c + w.dec_bias)
    return hn @ w.dec_d, hn


def standardise(x):
    x = np.asarray(x, dtype=np.float32)
    mean = np.sum(x, dtype=np.float64) / len(x)
    var = np.sum((x.astype(np.float64) - mean) ** 2) / len(x)
    inv = np.float32(1.0) / np.sqrt(np.float32(var) + np.float32(1e-7))
    return ((x.astype(np.float64) - mean) * np.float64(inv)).astype(np.float32)


def half(a):
    """Through half precision with subnormals flushed, as the frontends store."""
    h = np.asarray(a, dtype=np.float32).astype(np.float16).astype(np.float32)
    h[np.abs(h) < 2.0 ** -14] = 0.0
    return h


def pos_rows(n, pos):
    p = len(pos)
    u = np.arange(n)
    return pos[np.where(u < p, u, p // 2 + (u - p) % max(p - p // 2, 1))]


def features_8s(x, frames):
    """Feature frames of a whole clip from 8 s windows 100 frames apart, the
    first window to reach a frame writing it (the batch road)."""
    feats = np.zeros((frames, FEAT), dtype=np.float32)
    done = np.zeros(frames, dtype=bool)
    for b in range(0, frames, 100):
        win = np.zeros(W8_N, dtype=np.float32)
        seg = x[b * FRAME:b * FRAME + W8_N]
        win[:len(seg)] = seg
        out = w8_forward(standardise(win))
        for i in range(W8_FRAMES):
            f = b + i
            if f < frames and not done[f]:
                feats[f] = half(out[:, i, :].reshape(FEAT))
                done[f] = True
    return feats


def features_short(x, frames, right=12):
    """Feature frames of a whole clip from the short-window pair, a block of
    8 frames per trunk window that ends `right` frames past the block."""
    feats = np.zeros((frames + 8, FEAT), dtype=np.float32)
    for block in range(0, frames, 8):
        end = (block + 8 + right) * FRAME
        ws = end - TRUNK_N
        win = np.zeros(TRUNK_N, dtype=np.float32)
        seg = x[max(ws, 0):min(end, len(x))]
        win[max(ws, 0) - ws:max(ws, 0) - ws + len(seg)] = seg
        t = trunk_forward(standardise(win)).astype(np.float64)
        rows = np.zeros((8, CHANNELS), dtype=np.float32)
        for i in range(8):
            f = block + i
            base = 0 if f < 200 else (f // 100) * 100 - 100
            p = (f - base) * 8.030150753768844 + (base * FRAME - ws) / 80.0
            idx = int(np.floor(p))
            frac = p - idx
            rows[i] = half((1 - frac) * t[:, idx] + frac * t[:, min(LT - 1, idx + 1)])
        feats[block:block + 8] = half(head_forward(rows))
    return feats[:frames]


def clip_deltas(pcm, short=False, window=0, left=3, layers=2):
    """(frames, 63) deltas of a whole clip: features from either frontend,
    the encoder over all frames, the decoder frame by frame from the zero
    state."""
    x = np.asarray(pcm, dtype=np.float32) / 32768.0
    frames = (len(x) + FRAME - 1) // FRAME
    feats = features_short(x, frames) if short else features_8s(x, frames)
    w = weights()
    band = encoder_forward(feats, pos_rows(frames, w.pos), attn_mask(frames, window, left), layers)
    prev, h = np.zeros(KP), np.zeros(H)
    out = np.zeros((frames, KP))
    for f in range(frames):
        prev, h = decoder_forward(band[f], prev, h)
        out[f] = (prev.astype(np.float32) * w.std).astype(np.float32) + w.mean
    return out


# ------------------------------------------------------------------ graphs

def _energy_nodes(w):
    """input_values (1, n) -> base (1, 4, n/80)."""
    n = helper.make_node
    inits = [_i64("unsq_axes", [1]), _init("diff_w", w.diff), _init("energy_w", w.kernel),
             _init("eps", _f32(EPS))]
    nodes = [
        n("Unsqueeze", ["input_values", "unsq_axes"], ["x3"], name="/energy/Unsqueeze"),
        n("Conv", ["x3", "diff_w"], ["dx"], name="/energy/Diff", kernel_shape=[2], pads=[0, 1]),
        n("Mul", ["x3", "x3"], ["sq"], name="/energy/Sq"),
        n("Mul", ["dx", "dx"], ["dsq"], name="/energy/DiffSq"),
        n("Concat", ["sq", "dsq"], ["sq2"], name="/energy/Concat", axis=1),
        n("Conv", ["sq2", "energy_w"], ["en"], name="/energy/Conv", kernel_shape=[KERNEL], strides=[HOP],
          pads=[PAD_L, KERNEL - HOP - PAD_L]),
        n("Add", ["en", "eps"], ["en_eps"], name="/energy/Add"),
        n("Log", ["en_eps"], ["base"], name="/energy/Log"),
    ]
    return nodes, inits


def _head_nodes(w, src, dst):
    """(rows, 640) src -> (rows, 9216) dst."""
    n = helper.make_node
    inits = [_init("head_w", w.head), _init("layer_gain", w.layer_gain), _i64("head_s1", [-1, 1, MIX]),
             _i64("head_tile", [1, 1, WIDTH // MIX]), _i64("head_s2", [-1, FEAT])]
    nodes = [
        n("MatMul", [src, "head_w"], ["hy"], name="/head/MatMul"),
        n("Reshape", ["hy", "head_s1"], ["hy3"], name="/head/Reshape"),
        n("Mul", ["hy3", "layer_gain"], ["hyl"], name="/head/Mul"),
        n("Tile", ["hyl", "head_tile"], ["hyt"], name="/head/Tile"),
        n("Reshape", ["hyt", "head_s2"], [dst], name="/head/Reshape_1"),
    ]
    return nodes, inits


def _gelu16_nodes(src, dst):
    n = helper.make_node
    inits = [_init("g_sqrt2", np.array(1.4142135, dtype=np.float16)), _init("g_one", np.array(1.0, dtype=np.float16)),
             _init("g_half", np.array(0.5, dtype=np.float16))]
    nodes = [
        n("Div", [src, "g_sqrt2"], ["g_d"], name="/gelu/Div"),
        n("Erf", ["g_d"], ["g_e"], name="/gelu/Erf"),
        n("Add", ["g_e", "g_one"], ["g_a"], name="/gelu/Add"),
        n("Mul", [src, "g_a"], ["g_m"], name="/gelu/Mul"),
        n("Mul", ["g_m", "g_half"], [dst], name="/gelu/Mul_1"),
    ]
    return nodes, inits


def trunk_graph(gelu=None):
    """The short-window trunk. gelu "erf" ends it in a float16 Erf-based
    Gelu; "mistyped" in a float16 com.microsoft.Gelu whose output is
    declared float, which no optimisation level accepts."""
    w = weights()
    n = helper.make_node
    nodes, inits = _energy_nodes(w)
    inits.append(_init("expand_w", w.expand.reshape(CHANNELS, BASE, 1)))
    nodes.append(n("Conv", ["base", "expand_w"], ["hid"], name="/expand/Conv", kernel_shape=[1]))
    out_type = TensorProto.FLOAT16
    domains = ()
    if gelu is None:
        nodes.append(n("Cast", ["hid"], [TRUNK_OUT], name="/out/Cast", to=TensorProto.FLOAT16))
    else:
        nodes.append(n("Cast", ["hid"], ["hid16"], name="/out/Cast", to=TensorProto.FLOAT16))
        if gelu == "erf":
            more, extra = _gelu16_nodes("hid16", TRUNK_OUT)
            nodes += more
            inits += extra
        else:
            nodes.append(n("Gelu", ["hid16"], [TRUNK_OUT], name="/gelu/Gelu", domain="com.microsoft"))
            out_type = TensorProto.FLOAT
            domains = ("com.microsoft",)
    out = helper.make_tensor_value_info(TRUNK_OUT, out_type, [1, CHANNELS, LT])
    return _model(nodes, [_value("input_values", [1, TRUNK_N])], [out], inits, "w2v_trunk", domains)


def head_graph():
    nodes, inits = _head_nodes(weights(), "x", "emb")
    return _model(nodes, [_value("x", [8, CHANNELS])], [_value("emb", [8, FEAT])], inits, "w2v_head")


def w8_graph():
    w = weights()
    n = helper.make_node
    nodes, inits = _energy_nodes(w)
    inits += [_i64("idx", w.idx), _i64("idx2", w.idx2), _init("frac", w.frac),
              _init("one_minus_frac", _f32(np.float32(1) - w.frac)),
              _init("expand_w", w.expand.reshape(CHANNELS, BASE, 1)), _i64("sq_axes", [0]),
              _i64("emb_shape", [W8_FRAMES, LAYERS, WIDTH])]
    nodes += [
        n("Gather", ["base", "idx"], ["g1"], name="/pos/Gather", axis=2),
        n("Gather", ["base", "idx2"], ["g2"], name="/pos/Gather_1", axis=2),
        n("Mul", ["g1", "one_minus_frac"], ["g1w"], name="/pos/Mul"),
        n("Mul", ["g2", "frac"], ["g2w"], name="/pos/Mul_1"),
        n("Add", ["g1w", "g2w"], ["base200"], name="/pos/Add"),
        n("Conv", ["base200", "expand_w"], ["hid"], name="/expand/Conv", kernel_shape=[1]),
        n("Cast", ["hid"], ["hid16"], name="/expand/Cast", to=TensorProto.FLOAT16),
        n("Cast", ["hid16"], ["hidf"], name="/expand/Cast_1", to=TensorProto.FLOAT),
        n("Squeeze", ["hidf", "sq_axes"], ["hid2"], name="/expand/Squeeze"),
        n("Transpose", ["hid2"], ["rows"], name="/expand/Transpose", perm=[1, 0]),
    ]
    more, extra = _head_nodes(w, "rows", "emb")
    nodes += more
    inits += extra
    nodes += [n("Reshape", ["emb", "emb_shape"], ["emb3"], name="/out/Reshape"),
              n("Transpose", ["emb3"], ["audio_emb"], name="/out/Transpose", perm=[1, 0, 2])]
    out = _value("audio_emb", [LAYERS, W8_FRAMES, WIDTH])
    return _model(nodes, [_value("input_values", [1, W8_N])], [out], inits, "w2v_8s")


def encoder_graph(layers, width=False):
    w = weights()
    n = helper.make_node
    inits = [_i64("feat_shape", [1, -1, LAYERS * WIDTH // MIX, MIX]), _init("enc_win", w.win),
             _init("enc_bin", w.bin), _i64("attn_axes", [1]), _init("enc_scale", w.scale),
             _init("qk_scale", _f32(0.25)), _init("enc_out_w", w.out)]
    nodes = [
        n("Reshape", ["feat", "feat_shape"], ["f4"], name="/in/Reshape"),
        n("ReduceMean", ["f4"], ["y"], name="/in/ReduceMean", axes=[2], keepdims=0),
        n("MatMul", ["y", "enc_win"], ["zl"], name="/in/MatMul"),
        n("Add", ["zl", "enc_bin"], ["zb"], name="/in/Add"),
        n("Relu", ["zb"], ["z"], name="/in/Relu"),
        n("Add", ["z", "pos_window"], ["x0"], name="/in/AddPos"),
        n("Squeeze", ["attn", "attn_axes"], ["mask"], name="/in/Squeeze"),
    ]
    x = "x0"
    for i, (q, k, v) in enumerate(w.layers[:layers]):
        p = "/layer%d/" % i
        inits += [_init("wq%d" % i, q), _init("wk%d" % i, k), _init("wv%d" % i, v)]
        t = lambda s: "l%d_%s" % (i, s)
        nodes += [
            n("MatMul", [x, "wq%d" % i], [t("q")], name=p + "Q"),
            n("MatMul", [x, "wk%d" % i], [t("k")], name=p + "K"),
            n("MatMul", [x, "wv%d" % i], [t("v")], name=p + "V"),
            n("Transpose", [t("k")], [t("kt")], name=p + "Transpose", perm=[0, 2, 1]),
            n("MatMul", [t("q"), t("kt")], [t("s")], name=p + "Scores"),
            n("Mul", [t("s"), "qk_scale"], [t("ss")], name=p + "Scale"),
            n("Add", [t("ss"), "mask"], [t("sm")], name=p + "Mask"),
            n("Softmax", [t("sm")], [t("p")], name=p + "Softmax", axis=-1),
            n("MatMul", [t("p"), t("v")], [t("o")], name=p + "Mix"),
            n("Add", [x, t("o")], [t("r")], name=p + "Residual"),
            n("Mul", [t("r"), "enc_scale"], [t("x")], name=p + "Out"),
        ]
        x = t("x")
    nodes.append(n("MatMul", [x, "enc_out_w"], ["enc_out"], name="/out/MatMul"))
    outputs = [_value("enc_out", [1, "L", H])]
    if width:
        inits += [_init("wn_w", w.wn), _i64("wn_shape", [1, -1])]
        nodes += [n("MatMul", ["enc_out", "wn_w"], ["wn1"], name="/wn/MatMul"),
                  n("Reshape", ["wn1", "wn_shape"], ["wn"], name="/wn/Reshape")]
        outputs.append(_value("wn", [1, "L"]))
    inputs = [_value("feat", [1, "L", LAYERS, WIDTH]), _value("pos_window", [1, "L", H]),
              _value("attn", [1, 1, "L", "L"])]
    return _model(nodes, inputs, outputs, inits, "a2x_encoder")


def decoder_graph():
    w = weights()
    n = helper.make_node
    inits = [_init("dec_a", w.dec_a), _init("dec_b", w.dec_b), _init("dec_c", w.dec_c), _init("dec_d", w.dec_d),
             _init("dec_bias", w.dec_bias), _i64("h2", [1, H]), _i64("h3", [1, 1, H])]
    nodes = [
        n("Reshape", ["h", "h2"], ["hv"], name="/cell/Reshape"),
        n("MatMul", ["ctx_t", "dec_b"], ["pc"], name="/cell/Ctx"),
        n("MatMul", ["hv", "dec_a"], ["ph"], name="/cell/State"),
        n("MatMul", ["prev", "dec_c"], ["pp"], name="/cell/Prev"),
        n("Add", ["pc", "ph"], ["s1"], name="/cell/Add"),
        n("Add", ["s1", "pp"], ["s2"], name="/cell/Add_1"),
        n("Add", ["s2", "dec_bias"], ["s3"], name="/cell/Bias"),
        n("Tanh", ["s3"], ["hn"], name="/cell/Tanh"),
        n("MatMul", ["hn", "dec_d"], ["m"], name="/out/MatMul"),
        n("Reshape", ["hn", "h3"], ["h_out"], name="/out/Reshape"),
    ]
    inputs = [_value("ctx_t", [1, H]), _value("prev", [1, KP]), _value("h", [1, 1, H])]
    return _model(nodes, inputs, [_value("m", [1, KP]), _value("h_out", [1, 1, H])], inits, "a2x_decoder")


# ----------------------------------------------------------------- bundles

def meta_text(**fields):
    m = {"h": H, "window": 0, "left": 3, "layers": 2, "width": False, "silence_prime": 0}
    for k, v in fields.items():
        if v is None:
            m.pop(k)
        else:
            m[k] = v
    return (json.dumps(m) + "\n").encode()


def sample_members():
    """The streaming members of the sample bundle: a causal encoder."""
    w = weights()
    return {
        "a2x_meta.json": meta_text(),
        "a2x_pos.f32": w.pos.astype("<f4").tobytes(),
        "a2x_norm.f32": np.concatenate([w.mean, w.std]).astype("<f4").tobytes(),
        "a2x_enc_stream.onnx": encoder_graph(2),
        "a2x_dec.onnx": decoder_graph(),
    }


def write_encoders(root):
    w8 = w8_graph()
    trunk, head = trunk_graph(), head_graph()

    def put(d, files):
        os.makedirs(os.path.join(root, d), exist_ok=True)
        for name, data in files.items():
            with open(os.path.join(root, d, name), "wb") as f:
                f.write(data)

    put("w2v", {"w2v.onnx": w8, "audio_encoder_fp16_window_trunk.onnx": trunk,
                "audio_encoder_fp16_window_head.onnx": head})
    put("w2v8only", {"w2v.onnx": w8})
    put("w2v_legacy", {"w2v.onnx": w8, "w2v_trunk32.onnx": trunk, "w2v_head32.onnx": head})
    put("w2v_gelu", {"w2v.onnx": w8, "audio_encoder_fp16_window_trunk.onnx": trunk_graph("erf"),
                     "audio_encoder_fp16_window_head.onnx": head})
    put("w2v_gelu_mistyped", {"w2v.onnx": w8, "audio_encoder_fp16_window_trunk.onnx": trunk_graph("mistyped"),
                              "audio_encoder_fp16_window_head.onnx": head})


def write_bundle_cases(root, sample):
    base = sample.members
    meta = meta_text
    # xs_target.bin variants are read by le_a2x alone; the manifest keeps NT 4.
    xs_rows = lambda rows: f32([(r * 7 + i) % 11 / 10.0 - 0.5 for r in range(rows) for i in range(KP)])
    wide = encoder_graph(2, width=True)
    cases = {
        "causal": {},
        "lookahead": {"a2x_meta.json": meta(window=2, left=3, layers=2)},
        "width": {"a2x_meta.json": meta(width=True), "a2x_enc_stream.onnx": wide},
        "width_mismatch": {"a2x_enc_stream.onnx": wide},
        "silence_prime": {"a2x_meta.json": meta(silence_prime=4)},
        "meta_missing": {"a2x_meta.json": None},
        "meta_empty": {"a2x_meta.json": b""},
        "window_absent": {"a2x_meta.json": meta(window=None)},
        "left_negative": {"a2x_meta.json": meta(left=-1)},
        "pos_short": {"a2x_pos.f32": base["a2x_pos.f32"][:(2 * H - 1) * 4]},
        "norm_short": {"a2x_norm.f32": base["a2x_norm.f32"][:500]},
        "xs_target_empty": {"xs_target.bin": b""},
        "nt1": {"xs_target.bin": xs_rows(1)},
        "nt4": {"xs_target.bin": xs_rows(4)},
    }
    for name, change in cases.items():
        members = dict(base)
        for k, v in change.items():
            if v is None:
                members.pop(k)
            else:
                members[k] = v
        Bundle(sample.manifest, members).write_dir(os.path.join(root, name))


def write_cases(root, sample):
    write_encoders(root)
    speech_clip.write_clips(os.path.join(root, "clips"))
    write_bundle_cases(os.path.join(root, "bundles"), sample)


# ------------------------------------------------------------------- check

def _mouth(d):
    idx = [3 * r + c for r in MOUTH_ROWS for c in range(3)]
    return np.abs(d[:, idx]).mean(axis=1)


def check():
    """On both frontends: loud voiced frames must open the mouth clearly
    more than quiet ones, quiet ones more than the pauses, and a clip of
    silence must leave it within 0.003 of rest."""
    pcm, env = speech_clip.synthesize(10.0, seed=10)
    frames, level, loud, quiet, pause = speech_clip.loudness_classes(pcm, env)
    ok = True
    for short in (False, True):
        mouth = _mouth(clip_deltas(pcm, short=short))
        silent = _mouth(clip_deltas(speech_clip.silence(2.0), short=short))
        corr = [np.corrcoef(level[:frames - lag], mouth[lag:])[0, 1] for lag in range(4)]
        a, b, c = mouth[loud].mean(), mouth[quiet].mean(), mouth[pause].mean()
        print("%s frontend: mean |delta| on mouth rows 16-20: loud speech %.4f (%d frames), quiet speech "
              "%.4f (%d), pauses %.4f (%d), silence clip %.4f (max %.4f); correlation with frame loudness "
              "at lag 0..3: %s" % ("short-window" if short else "8 s", a, loud.sum(), b, quiet.sum(), c,
                                   pause.sum(), silent.mean(), silent.max(), " ".join("%.2f" % v for v in corr)))
        ok = ok and a > 2 * b > 0 and b > 3 * c and silent.max() < 0.003 and max(corr) == corr[0]
    print("check: " + ("ok" if ok else "FAILED"))
    return 0 if ok else 1


def main():
    if sys.argv[1:] == ["check"]:
        sys.exit(check())
    sys.exit(__doc__)


if __name__ == "__main__":
    main()
