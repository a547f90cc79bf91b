"""Opens an HTML report in headless Chromium and checks that every KPI's
chart rendered: tools_html_measure.js, added to a copy of the page,
measures each chart's marks in the layout Chromium computed, and the DOM it
dumps carries the result.

usage: tools_html_check.py REPORT.html CHARTS

Prints one line per chart ("chart ID KIND windows=N marks=M") and exits 0
when the page holds CHARTS charts and nothing that runs or loads from
elsewhere, and each chart draws at least one mark per window, every one
painted and inside the chart's frame.
"""
import html
import json
import os
import re
import subprocess
import sys
import tempfile

report, expected = sys.argv[1], int(sys.argv[2])


with tempfile.TemporaryDirectory() as work:
    page = os.path.join(work, "page.html")
    with open(report) as f, open(page, "w") as out:
        measure = open(os.path.join(os.path.dirname(__file__), "tools_html_measure.js")).read()
        out.write(f.read() + "<script>" + measure + "</script>")
    # A profile of its own, so that runs never share state.
    dom = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu",
                          "--no-first-run", "--disable-extensions", "--window-size=1000,800",
                          "--user-data-dir=" + os.path.join(work, "profile"),
                          "--dump-dom", "file://" + page],
                         capture_output=True, text=True, timeout=120)
found = re.search(r'data-check="([^"]*)"', dom.stdout)
if dom.returncode != 0 or not found:
    sys.exit("chromium --dump-dom failed: %s" % dom.stderr[-2000:])
check = json.loads(html.unescape(found.group(1)))

failures = []
if len(check["charts"]) != expected:
    failures.append("%d charts, expected %d" % (len(check["charts"]), expected))
if check["scripts"] or check["external"]:
    failures.append("scripts or external references: %d %s"
                    % (check["scripts"], check["external"]))
for c in check["charts"]:
    print("chart %(kpi)s %(kind)s windows=%(windows)d marks=%(marks)d" % c)
    if c["windows"] == 0 or c["marks"] < c["windows"] or c["outside"] or c["unpainted"]:
        failures.append("chart %(kpi)s (%(kind)s): %(marks)d marks for %(windows)d windows, "
                        "%(outside)d outside the frame, %(unpainted)d not painted" % c)
for f in failures:
    print("FAIL " + f)
sys.exit(1 if failures else 0)
