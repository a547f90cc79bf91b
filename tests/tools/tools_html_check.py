"""Opens an HTML report in headless Chromium and checks that every KPI's
chart rendered: the DOM Chromium built from the page, and a screenshot.

usage: tools_html_check.py REPORT.html SCREENSHOT.png CHARTS

Prints one line per chart ("chart ID KIND windows=N marks=M") and exits 0
when the page holds CHARTS charts, each with as many marks as its kind
draws for its windows, nothing runs or loads from elsewhere, and the
screenshot is not blank and shows the colours of the charts' marks.
"""
import collections
import html.parser
import os
import struct
import subprocess
import sys
import tempfile
import zlib

report, screenshot, expected = sys.argv[1], sys.argv[2], int(sys.argv[3])
failures = []

CHROMIUM = ["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
            "--no-first-run", "--disable-extensions"]


def chromium(args):
    # A profile of its own, so that runs never share state.
    with tempfile.TemporaryDirectory() as profile:
        return subprocess.run(CHROMIUM + ["--user-data-dir=" + profile] + args,
                              capture_output=True, text=True, timeout=120)


class Dom(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.charts = []   # dicts: kpi, kind, windows, marks
        self.scripts = 0
        self.external = []

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        classes = a.get("class", "").split()
        self.scripts += tag == "script"
        self.external += [a[k] for k in ("src", "href") if k in a and not a[k].startswith("#")]
        if tag == "section" and "kpi" in classes:
            self.charts.append({"kpi": a.get("data-kpi"), "kind": a.get("data-kind"),
                                "windows": int(a.get("data-windows", "0")), "marks": 0})
        elif self.charts and (tag in ("circle", "rect") and "mark" in classes or
                              tag == "rect" and "cell" in classes):
            self.charts[-1]["marks"] += 1


dom = chromium(["--dump-dom", "file://" + os.path.abspath(report)])
if dom.returncode != 0 or "<html" not in dom.stdout:
    sys.exit("chromium --dump-dom failed: %s" % dom.stderr[-2000:])
parser = Dom()
parser.feed(dom.stdout)
if len(parser.charts) != expected:
    failures.append("%d charts, expected %d" % (len(parser.charts), expected))
if parser.scripts or parser.external:
    failures.append("scripts or external references: %d %s" % (parser.scripts, parser.external))
for c in parser.charts:
    print("chart %s %s windows=%d marks=%d" % (c["kpi"], c["kind"], c["windows"], c["marks"]))
    if c["windows"] == 0 or c["marks"] < c["windows"]:
        failures.append("chart %s (%s) drew %d marks for %d windows"
                        % (c["kpi"], c["kind"], c["marks"], c["windows"]))

# A window tall enough for every chart.
height = 300 + 330 * expected
shot = chromium(["--window-size=1000,%d" % height, "--screenshot=" + screenshot,
                 "file://" + os.path.abspath(report)])
if shot.returncode != 0 or not os.path.exists(screenshot):
    sys.exit("chromium --screenshot failed: %s" % shot.stderr[-2000:])


def png_pixels(path):
    """(width, height, rows of (r, g, b)) of an 8-bit RGB or RGBA PNG."""
    data = open(path, "rb").read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
    pos, idat, width = 8, b"", 0
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
            assert depth == 8 and colour in (2, 6) and interlace == 0, "unsupported PNG"
            channels = 3 if colour == 2 else 4
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    raw = zlib.decompress(idat)
    stride = width * channels
    rows, prev = [], bytearray(stride)
    for y in range(height):
        f = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - channels] if i >= channels else 0
            b = prev[i]
            c = prev[i - channels] if i >= channels else 0
            if f == 1:
                line[i] = (line[i] + a) & 255
            elif f == 2:
                line[i] = (line[i] + b) & 255
            elif f == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif f == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append([tuple(line[x * channels:x * channels + 3]) for x in range(width)])
        prev = line
    return width, height, rows


w, h, rows = png_pixels(screenshot)
colours = collections.Counter(px for row in rows for px in row)
background = max(colours.values())
inked = (w * h - background) / float(w * h)
print("screenshot %dx%d, %d colours, %.1f%% not background" % (w, h, len(colours), inked * 100))
if inked < 0.05 or len(colours) < 20:
    failures.append("the screenshot is (nearly) blank")
kinds = {c["kind"] for c in parser.charts}
# The fills each kind of chart paints: the counter's and gauge's marks, the
# blob's bars, the heat map's darkest cell.
wanted = {"counter": (0x1f, 0x6f, 0xb2), "gauge": (0x1f, 0x6f, 0xb2), "blob": (0xe0, 0x7b, 0x24),
          "histogram": (0x08, 0x30, 0x6b)}
for kind in sorted(kinds):
    rgb = wanted[kind]
    near = sum(n for px, n in colours.items() if max(abs(px[i] - rgb[i]) for i in range(3)) <= 6)
    print("%s colour: %d pixels" % (kind, near))
    if near < 20:
        failures.append("no %s chart colour in the screenshot" % kind)

for f in failures:
    print("FAIL " + f)
sys.exit(1 if failures else 0)
