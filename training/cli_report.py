"""What the evaluation scripts share: running artifact-detect over files, per-class
counts, and replacing a script's own section of docs/model.md."""
import json
import subprocess

import numpy as np

CLASSES = ["Reflection", "Shadow", "Flare", "Moire", "DonutBlur", "Blur",
           "LDR", "LowLight", "Noise", "MildBlur", "OtherBlur"]
THRESHOLDS = [0.74, 0.64, 0.73, 0.73, 0.69, 0.52, 0.48, 0.72, 0.2, 0.58, 1.0]


def run_cli(cli, models, paths, jobs=2, scores=None):
    """Set of reported class ids per path, through the real pipeline. A dict passed as
    `scores` receives every class's probability per path (name -> probability)."""
    extra = ["--all-scores"] if scores is not None else []
    out = subprocess.run([cli, "--models", models, "--jsonl", "--jobs", str(jobs)] + extra + paths,
                         check=False, capture_output=True, text=True)
    results = {}
    for line in out.stdout.splitlines():
        record = json.loads(line)
        if not record["ok"]:
            raise RuntimeError("artifact-detect failed on %s: %s" % (record["image"], record["error"]))
        results[record["image"]] = {a["tag_id"]: a["score"] for a in record["artifacts"]}
        if scores is not None:
            scores[record["image"]] = record["scores"]
    missing = set(paths) - set(results)
    if missing:
        raise RuntimeError("artifact-detect gave no answer for %d files (%s)"
                           % (len(missing), out.stderr.strip()[-300:]))
    return results


def metrics(labels, predicted):
    """Per class id 1..11: (id, positives, tp, fp, fn, precision, recall, F1)."""
    rows = []
    for k in range(1, 12):
        truth = labels[:, k].astype(bool)
        pred = predicted[:, k].astype(bool)
        tp = int(np.sum(truth & pred))
        fp = int(np.sum(~truth & pred))
        fn = int(np.sum(truth & ~pred))
        p = tp / (tp + fp) if tp + fp else float("nan")
        r = tp / (tp + fn) if tp + fn else float("nan")
        f1 = 2 * p * r / (p + r) if tp else 0.0
        rows.append((k, int(truth.sum()), tp, fp, fn, p, r, f1))
    return rows


def fmt(x):
    return "-" if x != x else "%.2f" % x


def replace_section(path, name, lines):
    """Writes lines between this script's markers in path; what was written by hand
    around them stays. A file without the markers gets the section appended."""
    begin = "<!-- %s:begin (written by training/%s; edits here are lost) -->" % (name, name)
    end = "<!-- %s:end -->" % name
    section = "\n".join([begin] + lines + [end])
    try:
        old = open(path).read()
    except FileNotFoundError:
        old = ""
    head, sep, rest = old.partition(begin)
    if sep and end in rest:
        text = head + section + rest.split(end, 1)[1]
    else:
        text = old + ("\n" if old and not old.endswith("\n") else "") + section + "\n"
    with open(path, "w") as f:
        f.write(text)
