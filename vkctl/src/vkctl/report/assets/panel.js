// What stands around the part: controls, caption, scale, extremes.

const byId = (id) => document.getElementById(id);
const SWITCHES = ["supports", "springs", "temperatures", "loads", "peaks", "edges", "alike", "turned"];
const BAR = 110; // pixels that the bar of lengths may take

const shown = (value) => {
  if (!Number.isFinite(value)) return "none";
  const size = Math.abs(value);
  if (size !== 0 && (size < 1e-3 || size >= 1e5)) return value.toExponential(3).replace("e+", "e");
  return value.toPrecision(4);
};

class Panel {
  listen(viewer) {
    const on = (id, event, act) => byId(id).addEventListener(event, act);
    const typed = (id) => (byId(id).value.trim() === "" ? NaN : Number(byId(id).value));
    on("case", "change", () => {
      viewer.choose({ case: Number(byId("case").value) });
      this.fillFields(viewer);
    });
    on("field", "change", () => viewer.choose({ field: byId("field").value }));
    on("scale", "input", () => viewer.choose({ scale: (Number(byId("scale").value) / 100) * viewer.fitting }));
    on("factor", "change", () => viewer.choose({ scale: typed("factor") || 0 }));
    on("still", "click", () => viewer.choose({ scale: 0 }));
    on("true", "click", () => viewer.choose({ scale: 1 }));
    on("fitting", "click", () => viewer.choose({ scale: null }));
    on("axis", "change", () => viewer.choose({ axis: Number(byId("axis").value) }));
    on("at", "input", () => viewer.choose({ at: Number(byId("at").value) / 1000 }));
    for (const id of SWITCHES) on(id, "change", () => viewer.choose({ [id]: byId(id).checked }));
    for (const id of ["least", "most"]) on(id, "change", () => viewer.choose({ [id]: typed(id) }));
    for (const [name, direction] of Object.entries(VIEWS)) {
      on(`view-${name}`, "click", () => viewer.camera.look(direction));
    }
  }

  fill(viewer) {
    fillSelect(byId("case"), viewer.scene.cases.map((one, k) => [k, one.title]), viewer.choice.case);
    this.fillFields(viewer);
    byId("hollow").hidden = viewer.tetrahedra.length > 0;
    for (const id of ["deformation", "limits"]) byId(id).hidden = !viewer.scene.cases.length;
    for (const id of ["case", "field"]) byId(id).parentElement.hidden = !viewer.scene.cases.length;
    for (const id of ["springs", "temperatures"]) {
      byId(id).parentElement.hidden = !viewer.scene.cases.some((one) => one[id].length);
    }
    this.length = viewer.scene.length;
  }

  fillFields(viewer) {
    const fields = viewer.offered().map((one) => [one.name, one.title]);
    fillSelect(byId("field"), fields, viewer.choice.field);
  }

  // The caption, the scale and the extremes in words.
  tell(viewer, colours) {
    const { choice, scene } = viewer;
    const field = scene.fields.find((one) => viewer.field && one.name === choice.field);
    const unit = field && field.unit ? ` in ${field.unit}` : "";
    const what = field ? `${field.title}${unit}` : "the part";
    const moved = viewer.case && viewer.case.displacement;
    const title = viewer.case
      ? `${viewer.case.title}: ${what}${moved ? `, deformation × ${shown(viewer.scale)}` : ""}` : "The part";
    byId("caption").textContent = title;
    byId("canvas").setAttribute("aria-label", title);
    byId("factor").value = Number(viewer.scale.toPrecision(4));
    byId("scale").value = viewer.fitting ? Math.round((100 * viewer.scale) / viewer.fitting) : 0;
    this.tellCut(viewer);
    byId("bar").hidden = !colours.has;
    if (colours.has) this.tellScale(colours, field);
    this.tellPeaks(viewer, field);
  }

  tellCut({ choice, scene }) {
    const { axis, at } = choice;
    byId("at").disabled = byId("turned").disabled = axis < 0;
    const place = axis < 0 ? 0 : scene.low[axis] + at * (scene.high[axis] - scene.low[axis]);
    const unit = scene.length ? ` ${scene.length}` : "";
    byId("cut-place").textContent = axis < 0 ? "" : `${"xyz"[axis]} = ${shown(place)}${unit}`;
  }

  tellScale(colours, field) {
    const stops = colours.stops.map((c) => `rgb(${c.map((part) => Math.round(255 * part)).join(" ")})`);
    byId("bar-colours").style.background = `linear-gradient(to top, ${stops.join(", ")})`;
    byId("bar-title").textContent = field.unit ? `${field.title}, ${field.unit}` : field.title;
    byId("bar-numbers").replaceChildren(...[4, 3, 2, 1, 0].map((k) => {
      const tick = document.createElement("span");
      tick.textContent = shown(colours.low + (k / 4) * (colours.high - colours.low));
      return tick;
    }));
  }

  tellPeaks(viewer, field) {
    const unit = field && field.unit ? ` ${field.unit}` : "";
    const peaks = (viewer.field && viewer.field.peaks) || [];
    byId("extremes").replaceChildren(...peaks.map((peak) => {
      const line = document.createElement("li");
      const place = peak.place.map((part) => Number(part.toPrecision(6))).join(", ");
      line.textContent = `${peak.end}: ${shown(peak.value)}${unit} at node ${peak.node}, (${place})`;
      return line;
    }));
  }

  // Before each picture: how long a length is in it, and where the axes' names stand.
  seen(camera) {
    const most = BAR * camera.perPixel;
    const power = 10 ** Math.floor(Math.log10(most));
    const length = [5, 2, 1].map((step) => step * power).find((step) => step <= most) || power;
    byId("length-bar").style.width = `${length / camera.perPixel}px`;
    byId("length-text").textContent = `${Number(length.toPrecision(1))}${this.length ? ` ${this.length}` : ""}`;
    ["x", "y", "z"].forEach((name, k) => {
      const [across, up] = [camera.turn[k], camera.turn[3 + k]].map((part) => 44 + (1.18 / 1.35) * 44 * part);
      Object.assign(byId(`axis-${name}`).style, { left: `${across}px`, bottom: `${up}px` });
    });
  }
}

function fillSelect(select, entries, chosen) {
  select.replaceChildren(...entries.map(([value, text]) => {
    const option = document.createElement("option");
    option.value = value;
    option.textContent = text;
    option.selected = value === chosen;
    return option;
  }));
  select.disabled = entries.length < 2;
}
