"""A plain reference of the pi compose mask, written from its definition:
numpy float32 throughout, each operation on its own so that every product is
rounded before it is added, the lip means summed one row at a time in
lip_idx order, and the box, centroid and corpus distances in Python floats
(double). The engine's masks are checked against it bit for bit.
"""
import math

import numpy as np

F = np.float32

CORPUS = [("v1", F(0.05), F(0.08), F(0.015)),
          ("v2", F(0.10), F(0.08), F(0.074)),
          ("v3", F(0.14), F(0.08), F(0.074))]


class Pi:
    def __init__(self, canvas, lip_idx, pad_x, pad_y, down, gate_scale, corner):
        self.s = canvas
        self.lip_idx = list(lip_idx)
        self.pad_x, self.pad_y, self.down = F(pad_x), F(pad_y), F(down)
        self.gate_scale = F(gate_scale)
        self.corner = corner
        grid = [F(-1.0) if canvas == 1 else F((2.0 * i) / (canvas - 1) - 1.0) for i in range(canvas)]
        self.xs = np.array(grid, dtype=np.float32)
        self.ys = self.xs.copy()

    def with_geometry(self, pad_x, pad_y, down):
        return Pi(self.s, self.lip_idx, pad_x, pad_y, down, self.gate_scale, self.corner)

    def stats(self, kp):
        sx, sy = F(0), F(0)
        for r in self.lip_idx:
            sx = F(sx + F(kp[3 * r]))
            sy = F(sy + F(kp[3 * r + 1]))
        n = F(len(self.lip_idx))
        mx, my = F(sx / n), F(sy / n)
        ax, ay = F(0), F(0)
        for r in self.lip_idx:
            ax = max(ax, F(abs(F(F(kp[3 * r]) - mx))))
            ay = max(ay, F(abs(F(F(kp[3 * r + 1]) - my))))
        return mx, my, ax, ay

    def ell(self, cx, cy, rx, ry, k):
        u = (self.xs[None, :] - cx) / rx
        v = (self.ys[:, None] - cy) / ry
        d = np.sqrt(v * v + u * u)
        t = k * (F(1) - d) / F(10)
        t = np.minimum(np.maximum(t, F(0)), F(1))
        out = t * t * (F(3) - (t + t))
        assert out.dtype == np.float32
        return out

    def corner_scale(self, kp):
        mx, my, ax, ay = self.stats(kp)
        rx = max(F(ax + self.pad_x), F(0.1))
        ry = max(F(ay + self.pad_y), F(0.1))
        cy = F(my + self.down)
        m = F(0)
        for r in self.lip_idx:
            a = F(F(F(kp[3 * r]) - mx) / rx)
            b = F(F(F(kp[3 * r + 1]) - cy) / ry)
            m = max(m, F(np.sqrt(F(F(a * a) + F(b * b)))))
        return max(F(F(F(5) / F(F(np.sqrt(F(rx * ry))) * F(256))) + m), F(1))

    def lip_params(self, kp):
        mx, my, ax, ay = self.stats(kp)
        rx = max(F(ax + self.pad_x), F(0.1))
        ry = max(F(ay + self.pad_y), F(0.1))
        if self.corner:
            sc = self.corner_scale(kp)
            rx, ry = F(rx * sc), F(ry * sc)
        return mx, F(my + self.down), rx, ry, F(F(np.sqrt(F(rx * ry))) * F(256))

    def gate_params(self, kp):
        mx, my, ax, ay = self.stats(kp)
        t = F(F(ay - F(0.02)) / F(0.01))
        t = min(max(t, F(0)), F(1))
        g = F(F(t * t) * F(F(3) - F(t + t)))
        rx = F(max(ax, F(0.004)) * self.gate_scale)
        ry = F(max(ay, F(0.004)) * self.gate_scale)
        return (mx, my, rx, ry, F(F(np.sqrt(F(rx * ry))) * F(256))), g

    def lip_mask(self, kp):
        return self.ell(*self.lip_params(kp))

    def gate_mask(self, kp):
        params, g = self.gate_params(kp)
        return self.ell(*params) * g, g

    def pi_float(self, kp):
        gated, _ = self.gate_mask(kp)
        return np.maximum(self.lip_mask(kp), gated)

    def box(self, params):
        s = self.s
        if s < 2:
            return (0, 0, s, s)
        h = (s - 1) * 0.5
        cx, cy, rx, ry = (float(v) for v in params[:4])

        def lo(c, r):
            return max(math.floor(h * ((c - r) + 1.0)), 1) - 1

        def hi(c, r, low):
            return max(min(math.ceil(h * ((c + r) + 1.0)) + 2, s), low)

        x0, y0 = lo(cx, rx), lo(cy, ry)
        return (x0, y0, hi(cx, rx, x0), hi(cy, ry, y0))

    def support_box(self, kp):
        a = self.box(self.lip_params(kp))
        b = self.box(self.gate_params(kp)[0])
        return (min(a[0], b[0]), min(a[1], b[1]), max(a[2], b[2]), max(a[3], b[3]))

    def pi_u8(self, kp):
        return quantise(self.pi_float(kp))


def quantise(p):
    """Clamp to [0, 1], times 255, nearest with ties to even, as uint8."""
    v = np.minimum(np.maximum(p, F(0)), F(1)) * F(255)
    f = np.floor(v)
    e = v - f
    low_bit = np.mod(f, F(2))
    q = np.where(e > F(0.5), f + F(1), np.where(e == F(0.5), f + low_bit, f))
    return q.astype(np.uint8)


def centroid(mask):
    ys, xs = np.nonzero(mask >= 128)
    if len(xs) == 0:
        return None
    return float(sum(int(v) for v in xs)) / len(xs), float(sum(int(v) for v in ys)) / len(ys)


def round_half_even(v):
    return int(round(v))  # Python rounds doubles to nearest, ties to even


def canonical_centroid(pi, rows):
    sx, sy, n = 0.0, 0.0, 0
    for kp in rows:
        c = centroid(pi.pi_u8(kp))
        if c is None:
            continue
        sx += c[0]
        sy += c[1]
        n += 1
    return None if n == 0 else (sx / n, sy / n)


def corpus_distances(pi, rows, c_canon):
    out = []
    for name, px, py, dn in CORPUS:
        x, y = canonical_centroid(pi.with_geometry(px, py, dn), rows)
        ex, ey = x - c_canon[0], y - c_canon[1]
        out.append((name, math.sqrt(ex * ex + ey * ey), (x, y)))
    return out
