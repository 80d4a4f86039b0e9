#!/usr/bin/env python3
"""Measures how often detect_char_encode names the right charset for short titles, under each
language setting in /etc/codepage. Not a test: it prints tables for the README and for review.

    accuracy.py [--per-cell 200] [--seed 1] TOOL [BASELINE_TOOL]

Samples are generated: titles of 2, 4, 8 and 16 characters drawn from common characters of
Chinese (GBK and Big5), Japanese (Shift_JIS) and Korean (EUC-KR), and Western titles of 4 to 40
characters in windows-1252 with accents. Every setting runs in a private mount namespace whose
/etc is an overlay holding the wanted /etc/codepage (or none), so the machine's own /etc is left
alone; it needs root. With a baseline tool (an older build), each cell is shown for both, and the
Western rows count how many answers the tool keeps from the baseline.
"""
import argparse
import json
import os
import random
import subprocess
import sys
import tempfile

SIMPLIFIED = ("的一是不了人我在有他这中大来上个国到说们为子和你地出道也时年得就那要下以生会自着去之过家学对可她"
              "里后小么心多天而能好都然没日于起还发成事只作当想看文无开手十用主行方又如前所本见经头面公同三已老"
              "从动两长知民样现分将外但身些与高意进把法此实回二理美点月明其种声全工己话儿者向情部正名定女问力机"
              "给等几很业最间新什打便位因重被走电四第门相次东海口使教西再平真听世气信北少关并内加化由代军产入先"
              "山五太水万市眼体别处总才场师书比住员九笑性通目华报立马命张活难神数件安表原车白应路期叫死常提感金")
TRADITIONAL = ("的一是不了人我在有他這中大來上個國到說們為子和你地出道也時年得就那要下以生會自著去之過家學對可她"
               "裡後小麼心多天而能好都然沒日於起還發成事只作當想看文無開手十用主行方又如前所本見經頭面公同三已老"
               "從動兩長知民樣現分將外但身些與高意進把法此實回二理美點月明其種聲全工己話兒者向情部正名定女問力機"
               "給等幾很業最間新什打便位因重被走電四第門相次東海口使教西再平真聽世氣信北少關並內加化由代軍產入先"
               "山五太水萬市眼體別處總才場師書比住員九笑性通目華報立馬命張活難神數件安表原車白應路期叫死常提感金")
JAPANESE = ("あいうえおかきくけこさしすせそたちつてとなにぬねのはひふへほまみむめもやゆよらりるれろわをんがぎぐ"
            "アイウエオカキクケコサシスセソタチツテトナニヌネノハヒフヘホマミムメモヤユヨラリルレロワンガギグー"
            "日本人大年一中子出上生会自見分行時事手間気学地国後前方同本目長話言何今思山川月火水木金土東西南北"
            "先名円高新外百千万入口女男小田右左力白雨雲花空海音楽歌愛夢光恋心星夜朝風春夏秋冬青赤道")
KOREAN = ("이의가는을에하고한지사다대서로자기도리수있나아어인보시그일상정전주부라우해게내비스제무마여요년국소"
          "만조면구실문신동원미장성중들화공세관러거연개행물것저모날네말사랑하늘바람노래별꿈너나우리마음눈물")
WESTERN = ("café élan crème brûlée déjà vu façade naïve rôle garçon señor mañana niño corazón canción "
           "über schön grüße mädchen fräulein straße köln zürich são joão coração ação avô été noël "
           "fiancée résumé piñata jalapeño añejo über menú música día árbol océano ça où très à là").split()
PLAIN = "the love song night dream blue sky river home road light heart star moon fire rain sun".split()

# (row name, codec, the answer wanted, the /etc/codepage that prefers it, the characters)
LANGUAGES = [
    ("GBK", "gbk", "gb18030", "cp936", SIMPLIFIED),
    ("Big5", "big5", "Big5", "cp950", TRADITIONAL),
    ("Shift_JIS", "shift_jis", "SHIFT_JIS", "cp932", JAPANESE),
    ("EUC-KR", "euc_kr", "UHC", "cp949", KOREAN),
]
LENGTHS = [2, 4, 8, 16]
SETTINGS = ["cp936", "cp950", "cp932", "cp949", "cp850", None]  # None: no /etc/codepage


def cjk_samples(rng, chars, codec, length, count):
    pool = [c for c in dict.fromkeys(chars) if _encodes(c, codec)]
    return ["".join(rng.choice(pool) for _ in range(length)).encode(codec) for _ in range(count)]


def western_samples(rng, count):
    out = []
    while len(out) < count:
        limit = rng.randint(4, 40)
        words = [rng.choice(WESTERN)]
        while True:
            w = rng.choice(WESTERN + PLAIN + PLAIN)
            if len(" ".join(words + [w])) > limit:
                break
            words.append(w)
        text = " ".join(words)[:limit].strip()
        if len(text) >= 4 and any(ord(c) > 127 for c in text):
            out.append(text.encode("cp1252"))
    return out


def _encodes(c, codec):
    try:
        c.encode(codec)
        return True
    except UnicodeEncodeError:
        return False


def answers_under(setting, tools, samples, work):
    """Every tool's answer for every sample, with /etc/codepage holding setting (None: absent)."""
    upper = tempfile.mkdtemp(dir=work)
    ovl = tempfile.mkdtemp(dir=work)
    if setting is None:
        if os.path.lexists("/etc/codepage"):
            os.mknod(os.path.join(upper, "codepage"), 0o600 | 0o020000, os.makedev(0, 0))  # a whiteout
    else:
        with open(os.path.join(upper, "codepage"), "w") as f:
            f.write(setting + "\n")
    job = os.path.join(work, "job.json")
    with open(job, "w") as f:
        json.dump({"tools": tools, "samples": [s.hex() for s in samples]}, f)
    script = ("mount --make-rprivate / && mount -t overlay overlay -o lowerdir=/etc,upperdir=%s,workdir=%s /etc"
              " && exec %s %s --worker %s") % (upper, ovl, sys.executable, os.path.abspath(__file__), job)
    out = subprocess.run(["unshare", "--mount", "sh", "-c", script], capture_output=True, check=True).stdout
    return json.loads(out)


def worker(job_file):
    with open(job_file) as f:
        job = json.load(f)
    result = []
    for tool in job["tools"]:
        result.append([subprocess.run([tool, bytes.fromhex(s)], capture_output=True, timeout=60).stdout[:18].decode(
            "latin-1") for s in job["samples"]])
    json.dump(result, sys.stdout)


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--worker":
        return worker(sys.argv[2])
    ap = argparse.ArgumentParser()
    ap.add_argument("--per-cell", type=int, default=200)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("tool")
    ap.add_argument("baseline", nargs="?")
    args = ap.parse_args()
    tools = [os.path.abspath(t) for t in [args.tool] + ([args.baseline] if args.baseline else [])]
    rng = random.Random(args.seed)
    cells = [(lang, n, cjk_samples(rng, lang[4], lang[1], n, args.per_cell)) for lang in LANGUAGES for n in LENGTHS]
    western = western_samples(rng, args.per_cell)
    samples = [s for _, _, ss in cells for s in ss] + western
    with tempfile.TemporaryDirectory(prefix="accuracy-") as work:
        by_setting = {s: answers_under(s, tools, samples, work) for s in SETTINGS}

    def pct(k, total):
        return "%.1f %%" % (100.0 * k / total) if k != total else "100 %"

    names = ["tool"] + (["baseline"] if args.baseline else [])
    print("Right answers per cell, %d samples each (%s)." % (args.per_cell, " / ".join(names)))
    print()
    print("| text | /etc/codepage | " + " | ".join("%d chars" % n for n in LENGTHS) + " |")
    print("|---|---|" + "---|" * len(LENGTHS))
    for lang in LANGUAGES:
        for setting in SETTINGS:
            row = []
            start = 0
            for (l, n, ss) in cells:
                start += len(ss)
                if l is not lang:
                    continue
                got = [by_setting[setting][t][start - len(ss):start] for t in range(len(tools))]
                row.append(" / ".join(pct(sum(a == lang[2] for a in g), len(ss)) for g in got))
            mark = " (its own)" if setting == lang[3] else ""
            print("| %s (\"%s\") | %s%s | %s |" % (lang[0], lang[2], setting or "none", mark, " | ".join(row)))
    if args.baseline:
        print()
        print("Western windows-1252 titles of 4-40 characters with accents: answers kept from the baseline.")
        print()
        print("| /etc/codepage | kept |")
        print("|---|---|")
        first = len(samples) - len(western)
        for setting in SETTINGS:
            mine, base = by_setting[setting][0][first:], by_setting[setting][1][first:]
            print("| %s | %s (%d of %d) |" % (setting or "none", pct(sum(a == b for a, b in zip(mine, base)), len(mine)),
                                              sum(a == b for a, b in zip(mine, base)), len(mine)))


if __name__ == "__main__":
    main()
