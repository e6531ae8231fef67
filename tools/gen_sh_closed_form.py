#!/usr/bin/env python3
"""Generates src/sh/sh_closed_form.inc: the unrolled closed-form evaluators of
the real spherical harmonics, bands 0 to 15.

Every function is derived here from its definition, in exact arithmetic:

    Y_l^0  = K_l^0 P_l(z)
    Y_l^m  = sqrt(2) K_l^m P_l^m(z) cos(m phi)      (m > 0)
    Y_l^-m = sqrt(2) K_l^m P_l^m(z) sin(m phi)
    K_l^m  = sqrt((2l+1)/(4 pi) (l-m)!/(l+m)!)
    P_l^m(z) = (-1)^m (1-z^2)^(m/2) d^m/dz^m P_l(z)   (with the (-1)^m factor)

On the unit sphere sin^m(theta) cos(m phi) = Re (x+iy)^m and
sin^m(theta) sin(m phi) = Im (x+iy)^m, so each function is the polynomial

    Y_l^(+-m) = c_l^m * Q_l^m(z) * {Re, Im}(x+iy)^m

where Q_l^m is d^m P_l / dz^m divided by its rational content (so its
coefficients are coprime integers and the leading one is positive) and the
constant c_l^m = (-1)^m sqrt(2) K_l^m times that content (K_l^0 times it for
m = 0). P_l comes from Rodrigues' formula with Fractions; the constants are
evaluated with 60-digit decimals and rounded once to double.

Evaluation scheme (what the emitted code does, in double precision, with x, y
and z widened from single and z^2 squared in single and then widened):

  * Bands 0 to 3 use the library's fixed table of forms and constants (the
    table below, entry by entry). The generator checks each entry against the
    derived polynomial and constant before it emits it.
  * Bands 4 to 15: Q_l^m is an even polynomial in z times z^((l-m) mod 2).
    Its even part is evaluated by Horner's rule in z2 with the exact integer
    coefficients (all below 2^53, so each is an exact double), then multiplied
    by z when l-m is odd, then by the constant: q = c * (z * H(z2)). The
    azimuthal factors C_m = Re (x+iy)^m and S_m = Im (x+iy)^m come from the
    caller's direction record (computed once per direction by the complex
    recurrence C_m = x C_(m-1) - y S_(m-1), S_m = x S_(m-1) + y C_(m-1)), and
    Y_l^m = q * C_m, Y_l^-m = q * S_m. Sharing q between +m and -m halves the
    polynomial work.

Run:  gen_sh_closed_form.py [--output FILE] [--check FILE]
  --output writes the file (default: src/sh/sh_closed_form.inc next to this
  tool's tree); --check regenerates into a temporary file and exits 1 when
  FILE differs from it.
"""

import argparse
import filecmp
import math
import os
import sys
import tempfile
from decimal import Decimal, getcontext
from fractions import Fraction

getcontext().prec = 60
PI = Decimal("3.141592653589793238462643383279502884197169399375105820974944592307816")
MAX_BAND = 15


class Poly:
    """Polynomial in x, y, z with Fraction coefficients: {(i, j, k): coeff}."""

    def __init__(self, terms=None):
        self.t = {k: v for k, v in (terms or {}).items() if v != 0}

    @staticmethod
    def lift(v):
        if isinstance(v, Poly):
            return v
        return Poly({(0, 0, 0): Fraction(v)})

    def __add__(self, o):
        o = Poly.lift(o)
        r = dict(self.t)
        for k, v in o.t.items():
            r[k] = r.get(k, 0) + v
        return Poly(r)

    __radd__ = __add__

    def __neg__(self):
        return Poly({k: -v for k, v in self.t.items()})

    def __sub__(self, o):
        return self + (-Poly.lift(o))

    def __rsub__(self, o):
        return Poly.lift(o) - self

    def __mul__(self, o):
        o = Poly.lift(o)
        r = {}
        for (a, b, c), v in self.t.items():
            for (d, e, f), w in o.t.items():
                k = (a + d, b + e, c + f)
                r[k] = r.get(k, 0) + v * w
        return Poly(r)

    __rmul__ = __mul__

    def __eq__(self, o):
        return self.t == Poly.lift(o).t


X = Poly({(1, 0, 0): Fraction(1)})
Y = Poly({(0, 1, 0): Fraction(1)})
Z = Poly({(0, 0, 1): Fraction(1)})


def legendre(l):
    """Coefficients (ascending powers of z) of P_l by Rodrigues' formula."""
    # (z^2 - 1)^l expanded, then differentiated l times, over 2^l l!.
    c = [Fraction(0)] * (2 * l + 1)
    for k in range(l + 1):
        c[2 * k] = Fraction(math.comb(l, k) * (-1) ** (l - k))
    for _ in range(l):
        c = [c[i] * i for i in range(1, len(c))]
    scale = Fraction(1, 2 ** l * math.factorial(l))
    return [v * scale for v in c]


def derivative(c, m):
    for _ in range(m):
        c = [c[i] * i for i in range(1, len(c))] or [Fraction(0)]
    return c


def content(c):
    """Rational content of a polynomial, signed so the leading term is positive."""
    nums = [v.numerator for v in c if v != 0]
    dens = [v.denominator for v in c if v != 0]
    g = 0
    for n in nums:
        g = math.gcd(g, abs(n))
    lcm = 1
    for d in dens:
        lcm = lcm * d // math.gcd(lcm, d)
    s = Fraction(g, lcm)
    lead = [v for v in c if v != 0][-1]
    return s if lead > 0 else -s


def derived(l, m):
    """(constant as Decimal, integer coefficients of Q_l^m ascending in z)."""
    d = derivative(legendre(l), m)
    s = content(d)
    q = [v / s for v in d]
    assert all(v.denominator == 1 for v in q)
    q = [int(v) for v in q]
    assert all(abs(v) < 2 ** 53 for v in q)
    k2 = Fraction(2 * l + 1) * Fraction(math.factorial(l - m), math.factorial(l + m))
    k = (Decimal(k2.numerator) / Decimal(k2.denominator) / (4 * PI)).sqrt()
    c = k * Decimal(s.numerator) / Decimal(s.denominator)
    if m > 0:
        c = c * Decimal(2).sqrt() * (-1 if m % 2 else 1)
    return c, q


def azimuthal(m):
    """(Re, Im) of (x + iy)^m as polynomials."""
    re, im = Poly.lift(1), Poly.lift(0)
    for _ in range(m):
        re, im = re * X - im * Y, re * Y + im * X
    return re, im


def q_poly(q):
    r = Poly.lift(0)
    for i, v in enumerate(q):
        r = r + v * Poly({(0, 0, i): Fraction(1)})
    return r


# Bands 0 to 3: the library's fixed forms. Each entry is (constant literal,
# expression in x, y, z, z2 and T(...)); the code computes T(constant) * expr
# in double precision, left to right, and rounds once at the store. Y_0^0 is a
# single-precision constant.
TABLE = {
    (0, 0): ("0.2820948f", None),
    (1, -1): ("-0.4886025119029199", "y"),
    (1, 0): ("0.4886025119029199", "z"),
    (1, 1): ("-0.4886025119029199", "x"),
    (2, -2): ("1.092548430592079", "x * y"),
    (2, -1): ("-1.092548430592079", "y * z"),
    (2, 0): ("0.31539156525252", "(T(3.0) * z2 - T(1.0))"),
    (2, 1): ("-1.092548430592079", "x * z"),
    (2, 2): ("0.5462742152960395", "(x * x - y * y)"),
    (3, -3): ("0.5900435899266435", "(y * y * y - T(3.0) * (x * x) * y)"),
    (3, -2): ("2.890611442640554", "x * y * z"),
    (3, -1): ("-0.4570457994644657", "y * (T(5.0) * z2 - T(1.0))"),
    (3, 0): ("0.3731763325901154", "z * (T(5.0) * z2 - T(3.0))"),
    (3, 1): ("-0.4570457994644657", "x * (T(5.0) * z2 - T(1.0))"),
    (3, 2): ("1.445305721320277", "z * (x * x - y * y)"),
    (3, 3): ("-0.5900435899266435", "(x * x * x - T(3.0) * x * (y * y))"),
}


def check_table_entry(l, m, literal, expr):
    """The fixed form must be the derived polynomial up to a rational factor
    that the literal constant absorbs, to the literal's precision."""
    c, q = derived(l, abs(m))
    re, im = azimuthal(abs(m))
    want = q_poly(q) * (im if m < 0 else re)
    if expr is None:
        got = Poly.lift(1)
    else:
        env = {"x": X, "y": Y, "z": Z, "z2": Z * Z, "T": lambda v: Poly.lift(Fraction(v))}
        got = eval(expr, {"__builtins__": {}}, env)
    ratios = {got.t[k] / want.t[k] for k in want.t} if set(got.t) == set(want.t) else set()
    if len(ratios) != 1:
        sys.exit("gen_sh_closed_form: Y_%d^%d form is not the derived polynomial" % (l, m))
    ratio = ratios.pop()
    value = Decimal(literal.rstrip("f")) * Decimal(ratio.numerator) / Decimal(ratio.denominator)
    tol = Decimal("1e-7") if literal.endswith("f") else Decimal("2e-15")
    if abs(value - c) > tol * abs(c):
        sys.exit("gen_sh_closed_form: Y_%d^%d constant %s differs from %s" % (l, m, literal, c))


def double_literal(v):
    s = repr(float(v))
    return s if ("e" in s or "." in s) else s + ".0"


def horner(q):
    """Horner form in z2 of the even part of Q (coefficients q ascending in z)."""
    parity = (len(q) - 1) % 2
    even = q[parity::2]
    h = "T(%d.0)" % even[-1]
    for a in reversed(even[:-1]):
        op = "-" if a < 0 else "+"
        h = "(%s * z2 %s T(%d.0))" % (h, op, abs(a))
    return h, parity


def emit_band(l):
    out = []
    out.append("template <class T, class Out>")
    out.append("inline void ownSHBand%d(const OwnSHDir<T>& d, const Out& out) {" % l)
    if l == 0:
        out.append("    (void)d;")
        out.append("    out.put(0, T(%s));" % TABLE[(0, 0)][0])
        out.append("}")
        return out
    if l <= 3:
        out.append("    const T x = d.x, y = d.y, z = d.z, z2 = d.z2;")
        out.append("    (void)x, (void)y, (void)z, (void)z2;")
        for m in range(-l, l + 1):
            literal, expr = TABLE[(l, m)]
            check_table_entry(l, m, literal, expr)
            out.append("    out.put(%d, T(%s) * %s);" % (l + m, literal, expr))
        out.append("}")
        return out
    out.append("    const T z = d.z;")
    out.append("    const T z2 = d.z2;")
    out.append("    (void)z;")
    for m in range(0, l + 1):
        c, q = derived(l, m)
        h, parity = horner(q)
        poly = h
        if parity:
            poly = "z" if h == "T(1.0)" else "(z * %s)" % h
        if poly == "T(1.0)":
            value = "T(%s)" % double_literal(c)
        else:
            value = "T(%s) * %s" % (double_literal(c), poly)
        if m == 0:
            out.append("    out.put(%d, %s);" % (l, value))
        else:
            out.append("    {")
            out.append("        const T q = %s;" % value)
            out.append("        out.put(%d, q * d.c[%d]);" % (l + m, m))
            out.append("        out.put(%d, q * d.s[%d]);" % (l - m, m))
            out.append("    }")
    out.append("}")
    return out


def generate():
    lines = [
        "// Closed-form real spherical harmonics, bands 0 to 15, one evaluator per band.",
        "// Generated by tools/gen_sh_closed_form.py from the definition of the basis",
        "// (exact Legendre polynomials, 60-digit constants rounded once to double).",
        "// Do not edit: change the generator and run it again.",
        "//",
        "// Each evaluator is a template over the lane type T (double, or a vector of",
        "// doubles with the same operators) and the output writer Out, whose",
        "// put(k, v) stores the value of Y_l^m, k = l + m, rounded to single.",
        "// Bands 0 to 3 use the fixed forms; bands 4 to 15 compute",
        "// q = c * (z^p * H(z2)) once per |m| and multiply it by d.c[m] and d.s[m].",
        "",
    ]
    for l in range(MAX_BAND + 1):
        lines.extend(emit_band(l))
        lines.append("")
    return "\n".join(lines)


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    ap = argparse.ArgumentParser()
    ap.add_argument("--output", default=os.path.join(root, "src", "sh", "sh_closed_form.inc"))
    ap.add_argument("--check", metavar="FILE")
    args = ap.parse_args()
    text = generate()
    if args.check:
        with tempfile.NamedTemporaryFile("w", suffix=".inc", delete=False) as f:
            f.write(text)
            tmp = f.name
        try:
            same = os.path.exists(args.check) and filecmp.cmp(tmp, args.check, shallow=False)
        finally:
            os.unlink(tmp)
        if not same:
            print("%s is out of date: run tools/gen_sh_closed_form.py" % args.check)
            return 1
        print("%s is up to date" % args.check)
        return 0
    with open(args.output, "w") as f:
        f.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
