"""Merges the tab-separated records of bench_resize (one or more targets) and
of resize_scipy.py, read from stdin, into one markdown table: destination
Mvoxel/s per target and thread count, scipy.ndimage.zoom beside it (order 0
for nearest, 1 for linear, 3 for cubic), the speed-up of one x86-64 thread
over scipy, and the two-thread scaling of the float block resize."""
import sys

ORDER = {1: 0, 2: 1, 6: 3}
TARGET = {1: None, 2: 10.0, 6: 20.0}


def main():
    ours, scipy, targets = {}, {}, []
    for line in sys.stdin:
        f = line.rstrip("\n").split("\t")
        if len(f) == 7:
            tgt, typ, a, b, code, thr, mv = f
            ours[(tgt, typ, int(a), int(b), int(code), int(thr))] = float(mv)
            if tgt not in targets:
                targets.append(tgt)
        elif len(f) == 6 and f[0] == "scipy":
            _, typ, a, b, order, mv = f
            scipy[(typ, int(a), int(b), int(order))] = float(mv)
    head = ["type", "size", "code"]
    for t in targets:
        head += [f"{t} 1T", f"{t} 2T"]
    head += ["scipy (order)", "x86-64 1T / scipy", "goal", "x86-64 2T / 1T"]
    print("| " + " | ".join(head) + " |")
    print("|" + "|".join(["---"] * 3 + ["---:"] * (len(head) - 3)) + "|")
    keys = sorted({k[1:5] for k in ours}, key=lambda k: (["8u", "16u", "32f"].index(k[0]), -k[2], k[3]))
    fmt = lambda v: "-" if v is None else f"{v:.1f}"
    for typ, a, b, code in keys:
        row = [typ, f"{a}^3 -> {b}^3", str(code)]
        for t in targets:
            row += [fmt(ours.get((t, typ, a, b, code, 1))), fmt(ours.get((t, typ, a, b, code, 2)))]
        sp = scipy.get((typ, a, b, ORDER[code]))
        row.append(f"{fmt(sp)} ({ORDER[code]})")
        x1 = ours.get(("x86-64", typ, a, b, code, 1))
        x2 = ours.get(("x86-64", typ, a, b, code, 2))
        row.append(f"{x1 / sp:.1f}x" if x1 and sp else "-")
        row.append(f">= {TARGET[code]:.0f}x" if TARGET[code] else "-")
        row.append(f"{x2 / x1:.2f}" if x1 and x2 else "-")
        print("| " + " | ".join(row) + " |")


if __name__ == "__main__":
    main()
