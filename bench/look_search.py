#!/usr/bin/python3
"""look_search.py: the tool's default look chosen by measurement.

Fuses the real brackets of ../shared/data/brackets with lumora-fuse at many
settings and scores every result with MEF-SSIM (../shared/tools/mef_ssim.py)
and with what it loses at the ends of the scale:

  lost highlights  luma >= 250 in the fusion where the darkest exposure is
                   below 250 (a highlight some exposure held);
  lost shadows     luma <= 5 in the fusion where the brightest exposure is
                   above 5 (a shadow some exposure showed).

A white sun or a black night sky that no exposure holds costs nothing. The
plain shares of clipped (luma >= 250) and crushed (luma <= 5) pixels are
reported too.

    objective = mean MEF-SSIM - 0.01 * (mean % lost highlights + mean % lost shadows)

so that a point of lost pixels costs as much as 0.01 of the score; and a
setting that clips more pixels than enfuse on the tuning scenes is not
eligible, whatever its score. The search runs on the tuning scenes only; the
checking scenes are fused only for the final table, beside enfuse and
OpenCV's Mertens fusion.

Stages, every fusion cached in the work folder (made and scored once):
  1. coarse: each parameter over a wide range, the others at the library's
     defaults, which ranks the parameters by how much they move the objective;
  2. descent: the same values one parameter at a time, largest effect first,
     each time from the best setting so far;
  3. refine: finer steps around the best, one parameter at a time;
  4. joint: a 3x3x3 grid of the three parameters that moved it most.

Needs Debian's python3-numpy and python3-opencv, and enfuse (installed with
apt-get when missing). Run from the repository's root after building:

    /usr/bin/python3 bench/look_search.py               # search, then the table
    /usr/bin/python3 bench/look_search.py --table-only  # no search: the table of --looks
"""
from __future__ import annotations

import argparse
import concurrent.futures
import importlib
import itertools
import json
import os
import runpy
import shutil
import subprocess
import sys
import time
import types

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Each kind of scene (bright windows, backlight, sun and sky, night) is in
# both sets; the checking scenes are never seen by the search. The two
# 1080x720 scenes, which cost four times a small one, are checked only, to
# keep the search within about 40 minutes of two cores.
TUNING = ["belgium_house", "church", "cave", "lamp", "arno", "waffle_house"]
CHECKING = ["house", "balloons", "old_house", "secret_beach", "st_louis_arch_night"]

# The library's defaults (init_realistic_param), today's tool defaults.
LIBRARY = {"strength": 15, "sharpness": 2, "saturation": 0, "radius-growth": 5,
           "spatial-sigma": 0.2, "range-sigma": 0.2, "preserve": 1, "highlight-influence": 10}
ORDER = list(LIBRARY)

# The wide values of stages 1 and 2. Saturation changes colour, which
# MEF-SSIM (on luma) sees only a little; it is searched like the others but
# kept out of the joint grid.
COARSE = {
    "strength": [8, 19, 30],
    "sharpness": [0, 1, 4],
    "saturation": [-3, 3],
    "radius-growth": [2.5, 10],
    "spatial-sigma": [0.1, 0.5, 1, 2],
    "range-sigma": [0.1, 0.4, 0.8],
    "preserve": [0],
    "highlight-influence": [0, 5],
}
LOSS_WEIGHT = 0.01  # per percentage point of lost pixels
MAX_STRENGTH_WITH_INFLUENCE = 19   # the tool's rule (tools/options.h)


def key(p: dict) -> str:
    return " ".join(f"{k}={p[k]:g}" for k in ORDER)


def allowed(p: dict) -> bool:
    return not (p["preserve"] and p["highlight-influence"] < 10 and p["strength"] > MAX_STRENGTH_WITH_INFLUENCE)


def tool_args(p: dict) -> list[str]:
    args = []
    for k in ORDER:
        if k == "preserve":
            args.append("--preserve-highlights" if p[k] else "--no-preserve-highlights")
        else:
            args += [f"--{k}", f"{p[k]:g}"]
    return args


def exposures(brackets: str, scene: str) -> list[str]:
    """The scene's three exposures, darkest first."""
    folder = os.path.join(brackets, scene)
    return [os.path.join(folder, f) for f in sorted(os.listdir(folder)) if f[0] in "012" and "_" in f]


# ------------------------------------------------------------ one fusion
_mef = None
_sources: dict[str, list] = {}


def importable(name: str) -> bool:
    try:
        importlib.import_module(name)
        return True
    except ImportError:
        return False


def _load_mef(path: str):
    global _mef
    if _mef is None:
        _mef = types.SimpleNamespace(**runpy.run_path(path))
    return _mef


def score_image(mef_path: str, inputs: list[str], fused_path: str) -> dict:
    import numpy as np
    mef = _load_mef(mef_path)
    seq = _sources.setdefault(inputs[0], [mef.read_rgb(f) for f in inputs])
    fused = mef.read_rgb(fused_path)
    score, scales, _ = mef.mef_ssim_detail(seq, fused)
    return dict(losses(mef_path, inputs, fused_path), mef=score, scales=[float(s) for s in scales])


def losses(mef_path: str, inputs: list[str], fused_path: str) -> dict:
    import numpy as np
    mef = _load_mef(mef_path)
    seq = _sources.setdefault(inputs[0], [mef.read_rgb(f) for f in inputs])
    dark, bright = mef.to_grey(seq[0]), mef.to_grey(seq[-1])
    luma = mef.to_grey(mef.read_rgb(fused_path))
    share = lambda mask: float(np.mean(mask) * 100)
    return {"clipped": share(luma >= 250), "crushed": share(luma <= 5),
            "lost_highlights": share((luma >= 250) & (dark < 250)),
            "lost_shadows": share((luma <= 5) & (bright > 5))}


def add_losses(job: dict) -> dict:
    return losses(job["mef"], job["inputs"], job["out"])


def fuse_and_score(job: dict) -> dict:
    """Runs in a worker: one fusion (if not already on disk) and its scores."""
    out = job["out"]
    if not os.path.exists(out):
        os.makedirs(os.path.dirname(out), exist_ok=True)
        tmp = out + ".part.png"
        start = time.time()
        if job["kind"] == "lumora":
            cmd = [job["tool"], "-q", "--threads", "1", *job["args"], *job["inputs"], "-o", tmp]
            subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        elif job["kind"] == "enfuse":
            env = dict(os.environ, OMP_NUM_THREADS="1")
            subprocess.run(["enfuse", "-o", tmp, *job["inputs"]], check=True, env=env,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        else:  # mertens: as bench/peers/mertens_fuse.cpp, the float result times 255, rounded, saturated
            import cv2
            import numpy as np
            cv2.setNumThreads(1)
            images = [cv2.imread(f, cv2.IMREAD_COLOR) for f in job["inputs"]]
            fused = cv2.createMergeMertens().process(images)
            cv2.imwrite(tmp, np.clip(np.round(fused * 255.0), 0, 255).astype(np.uint8))
        job_seconds = time.time() - start
        os.replace(tmp, out)
    else:
        job_seconds = 0.0
    result = score_image(job["mef"], job["inputs"], out)
    result["fuse_seconds"] = job_seconds
    return result


# ------------------------------------------------------------ the search
class Search:
    def __init__(self, args):
        self.args = args
        self.cache_path = os.path.join(args.work, "scores.json")
        self.cache = json.load(open(self.cache_path)) if os.path.exists(self.cache_path) else {}
        self.pool = concurrent.futures.ProcessPoolExecutor(max_workers=args.jobs)
        self.log = []  # (stage, parameter, setting, summary) of every setting tried
        self.compute_seconds = 0.0
        self.clip_limit = 100.0

    def save(self):
        with open(self.cache_path + ".tmp", "w") as f:
            json.dump(self.cache, f, indent=0, sort_keys=True)
        os.replace(self.cache_path + ".tmp", self.cache_path)

    def run(self, kind: str, name: str, scenes: list[str], args: list[str] | None = None) -> dict:
        """Per-scene scores of one fusion ({scene: scores}), computed when missing."""
        todo, upgrade = {}, {}
        for scene in scenes:
            k = f"{kind}|{name}|{scene}"
            safe = name.replace(" ", "_").replace("=", "")
            job = {"kind": kind, "args": args or [], "tool": self.args.tool, "mef": self.args.mef,
                   "inputs": exposures(self.args.brackets, scene),
                   "out": os.path.join(self.args.work, "out", scene, f"{kind}_{safe}.png")}
            if k not in self.cache:
                todo[k] = job
            elif "lost_shadows" not in self.cache[k]:  # scored before the losses were measured
                upgrade[k] = job
        if todo or upgrade:
            start = time.time()
            futures = {k: self.pool.submit(fuse_and_score, job) for k, job in todo.items()}
            extra = {k: self.pool.submit(add_losses, job) for k, job in upgrade.items()}
            for k, fut in futures.items():
                self.cache[k] = fut.result()
            for k, fut in extra.items():
                self.cache[k].update(fut.result())
            self.compute_seconds += time.time() - start
            self.save()
        return {scene: self.cache[f"{kind}|{name}|{scene}"] for scene in scenes}

    @staticmethod
    def summary(per_scene: dict, weight: float = LOSS_WEIGHT) -> dict:
        n = len(per_scene)
        out = {f: sum(s[f] for s in per_scene.values()) / n
               for f in ("mef", "clipped", "crushed", "lost_highlights", "lost_shadows")}
        out["coarse"] = sum(s["scales"][2] for s in per_scene.values()) / n
        out["objective"] = out["mef"] - weight * (out["lost_highlights"] + out["lost_shadows"])
        return out

    def lumora(self, p: dict, scenes=TUNING) -> dict:
        return self.summary(self.run("lumora", key(p), scenes, tool_args(p)))

    def peer(self, kind: str, scenes=TUNING) -> dict:
        return self.summary(self.run(kind, kind, scenes))

    def better(self, p: dict, than: dict) -> bool:
        s, t = self.lumora(p), self.lumora(than)
        return s["clipped"] <= self.clip_limit and s["objective"] > t["objective"] + 1e-6

    def try_(self, stage: str, name: str, p: dict) -> dict:
        if allowed(p):
            self.log.append((stage, name, p, self.lumora(p)))
        return p

    def descent(self, stage: str, best: dict, values: dict) -> dict:
        """One parameter at a time, each from the best setting so far."""
        for name, vals in values.items():
            for v in vals:
                p = self.try_(stage, name, dict(best, **{name: v}))
                if allowed(p) and self.better(p, best):
                    best = p
        return best

    @staticmethod
    def around(p: dict) -> dict:
        """Finer values either side of each parameter of p."""
        def near(v, steps, lo, hi):
            return sorted({round(min(hi, max(lo, v * f)), 4) for f in steps} - {v})
        return {
            "strength": near(p["strength"], (0.8, 1.25), 0, 100),
            "sharpness": sorted({max(0, p["sharpness"] + d) for d in (-0.5, 0.5)} - {p["sharpness"]}),
            "radius-growth": near(p["radius-growth"], (0.8, 1.25), 0.1, 50),
            "spatial-sigma": near(p["spatial-sigma"], (0.7, 1.4), 0.01, 10),
            "range-sigma": near(p["range-sigma"], (0.7, 1.4), 0.01, 10),
            "preserve": [1 - p["preserve"]],
            "highlight-influence": sorted({max(0, min(10, p["highlight-influence"] + d)) for d in (-2, 2)}
                                          - {p["highlight-influence"]}),
        }


def table_row(label: str, name: str, s: dict) -> str:
    return (f"| {label} | {name} | {s['mef']:.4f} | {s['coarse']:.4f} | {s['clipped']:.2f} | {s['crushed']:.2f} | "
            f"{s['lost_highlights']:.2f} | {s['lost_shadows']:.2f} | {s['objective']:.4f} |")


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--tool", default=os.path.join(ROOT, "build/tools/lumora-fuse"))
    ap.add_argument("--brackets", default=os.path.join(os.path.dirname(ROOT), "shared/data/brackets"))
    ap.add_argument("--mef", default=os.path.join(os.path.dirname(ROOT), "shared/tools/mef_ssim.py"))
    ap.add_argument("--work", default="/tmp/lumora-look")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--report", default=os.path.join(ROOT, "bench/look_search.md"))
    ap.add_argument("--table-only", action="store_true", help="skip the search; the table of --looks")
    ap.add_argument("--looks", help="JSON file: {name: {parameter: value}} of further looks for the table")
    args = ap.parse_args(argv)
    missing = [m for m in ("numpy", "cv2") if not importable(m)]
    if missing or not shutil.which("enfuse"):
        subprocess.run(["apt-get", "install", "-y", "--no-install-recommends",
                        "python3-numpy", "python3-opencv", "enfuse"], check=True)
        os.execv(sys.executable, [sys.executable, *sys.argv])
    if not os.access(args.tool, os.X_OK):
        sys.exit(f"look_search.py: {args.tool}: not built (cmake --build build)")
    os.makedirs(args.work, exist_ok=True)
    search = Search(args)
    lines = []
    say = lambda text="": (print(text, flush=True), lines.append(text))

    say(f"tuning scenes: {', '.join(TUNING)}; checking scenes: {', '.join(CHECKING)}")
    search.clip_limit = search.peer("enfuse")["clipped"]
    say(f"enfuse clips {search.clip_limit:.3f}% of the tuning scenes' pixels: no setting may clip more")
    say()
    best = dict(LIBRARY)
    looks = {"old defaults (library)": LIBRARY}
    if not args.table_only:
        for name, vals in COARSE.items():
            for v in vals:
                search.try_("coarse", name, dict(LIBRARY, **{name: v}))
        effect = {}
        for stage, name, p, s in search.log + [("coarse", n, LIBRARY, search.lumora(LIBRARY)) for n in COARSE]:
            effect.setdefault(name, []).append(s["objective"])
        effect = {n: max(v) - min(v) for n, v in effect.items()}
        ranked = sorted(effect, key=effect.get, reverse=True)
        say("coarse, each parameter alone: range of the objective " +
            ", ".join(f"{n} {effect[n]:.4f}" for n in ranked))
        best = search.descent("descent", best, {n: COARSE[n] for n in ranked})
        say(f"descent: {key(best)}  objective {search.lumora(best)['objective']:.4f}")
        best = search.descent("refine", best, search.around(best))
        say(f"refine: {key(best)}  objective {search.lumora(best)['objective']:.4f}")
        movers = [n for n in ranked if n not in ("preserve", "saturation")][:3]
        axes = {n: sorted({best[n], *search.around(best)[n]}) for n in movers}
        say("joint grid: " + "; ".join(f"{n} {axes[n]}" for n in movers))
        centre = dict(best)
        for combo in itertools.product(*axes.values()):
            p = search.try_("joint", "+".join(movers), dict(centre, **dict(zip(movers, combo))))
            if allowed(p) and search.better(p, best):
                best = p
        say(f"joint: {key(best)}  objective {search.lumora(best)['objective']:.4f}")
        say(f"settings tried: {len({key(p) for _, _, p, _ in search.log})}; fusion and scoring in this run: "
            f"{search.compute_seconds:.0f} s on {args.jobs} jobs")
        say()
        # How the choice depends on the weight of lost pixels, among the settings tried.
        tried = {key(p): p for _, _, p, _ in search.log}
        for weight in (0, 0.005, 0.01, 0.02):
            def objective(p):
                return search.summary(search.run("lumora", key(p), TUNING), weight)["objective"]
            ok = [p for p in tried.values() if search.lumora(p)["clipped"] <= search.clip_limit]
            top = max(ok, key=objective)
            say(f"with {weight:g} per point of lost pixels the best tried is {key(top)} ({objective(top):.4f})")
        # The best tried at today's spatial sigma: the corner that keeps the finest local detail.
        fine = [p for p in tried.values() if p["spatial-sigma"] <= LIBRARY["spatial-sigma"]
                and search.lumora(p)["clipped"] <= search.clip_limit]
        corner = max(fine, key=lambda p: search.lumora(p)["objective"])
        say(f"best tried at spatial sigma {LIBRARY['spatial-sigma']:g} or below: {key(corner)} "
            f"({search.lumora(corner)['objective']:.4f})")
        looks.update({"search's best": best, "best at today's spatial sigma": corner})
    if args.looks:
        looks.update(json.load(open(args.looks)))
    say()
    say("| scenes | fusion | MEF-SSIM | coarsest scale | clipped % | crushed % | lost highlights % | "
        "lost shadows % | objective |")
    say("|---|---|---|---|---|---|---|---|---|")
    for scenes, label in ((TUNING, "tuning"), (CHECKING, "checking")):
        for name, p in looks.items():
            say(table_row(label, name, search.lumora(dict(LIBRARY, **p), scenes)))
        for peer in ("enfuse", "mertens"):
            say(table_row(label, peer, search.peer(peer, scenes)))
    if not args.table_only:
        with open(os.path.splitext(args.report)[0] + ".tsv", "w") as f:
            f.write("stage\tparameter\tsetting\tmef\tclipped\tcrushed\tlost_highlights\tlost_shadows\tobjective\n")
            for stage, name, p, s in search.log:
                f.write(f"{stage}\t{name}\t{key(p)}\t{s['mef']:.4f}\t{s['clipped']:.3f}\t{s['crushed']:.3f}\t"
                        f"{s['lost_highlights']:.3f}\t{s['lost_shadows']:.3f}\t{s['objective']:.4f}\n")
    with open(args.report, "w") as f:
        f.write("# The default look: search results (bench/look_search.py)\n\n" + "\n".join(lines) + "\n")
    search.pool.shutdown()
    return 0


if __name__ == "__main__":
    sys.exit(main())
