// Appended to a report by tools_html_check.py: measures every chart's marks
// in the layout and leaves the result in the body's data-check attribute.
const charts = [...document.querySelectorAll("section.kpi")].map(s => {
  const frame = s.querySelector("svg.chart .frame");
  const f = frame ? frame.getBoundingClientRect() : new DOMRect();
  const svg = frame ? frame.ownerSVGElement.getBoundingClientRect() : f;
  const c = {kpi: s.dataset.kpi, kind: s.dataset.kind, windows: +s.dataset.windows,
             marks: 0, outside: 0, unpainted: 0};
  for (const m of s.querySelectorAll(".mark, rect.cell")) {
    const r = m.getBoundingClientRect(), st = getComputedStyle(m);
    const x = r.x + r.width / 2, y = r.y + r.height / 2;
    c.marks++;
    c.outside += x < f.left - 1 || x > f.right + 1 || y < f.top - 1 || y > f.bottom + 1;
    c.unpainted += r.width + r.height == 0 || svg.width * svg.height == 0 || st.visibility != "visible" || st.fill == "none" ||
        st.fill == getComputedStyle(frame).fill || +st.opacity == 0 || +st.fillOpacity == 0;
  }
  return c;
});
const external = [...document.querySelectorAll("[src], [href]")]
    .map(e => e.getAttribute("src") || e.getAttribute("href")).filter(u => !u.startsWith("#"));
document.body.dataset.check = JSON.stringify(
    {charts, external, scripts: document.scripts.length - 1});
