// The part in the page: from a scene and what the reader has chosen to what is drawn.

const VISIBLE = 0.08; // of the part's extent: what the largest displacement is first drawn as
const ARROW = 0.2; // of the part's extent: the longest arrow of a load
const KEPT = [1, 1, -1]; // side of a cut across x, y, z that stays: the one away from that corner
const BARE = [0.72, 0.77, 0.82], EDGES = [0.2, 0.24, 0.3];
// Of what is marked by dots at nodes.
const DOTTED = { supports: [0.106, 0.478, 0.239], springs: [0.1, 0.45, 0.75], temperatures: [0.9, 0.62, 0] };
const LOADS = [0.702, 0.149, 0.118], PEAKS = [0.07, 0.07, 0.07];
const AXES = [[0.75, 0.1, 0.1], [0.1, 0.5, 0.15], [0.1, 0.25, 0.8]];

class PartViewer {
  constructor(canvas, panel) {
    this.panel = panel;
    this.stage = new Stage(canvas, () => {
      this.stage.view = this.camera.view();
      panel.seen(this.camera);
    });
    this.camera = new Camera(canvas, () => this.stage.render());
    new ResizeObserver(() => this.camera.resized()).observe(canvas);
    this.queue = Promise.resolve();
    this.choice = {
      case: 0, field: null, scale: null, axis: -1, at: 0.5, turned: false,
      supports: true, springs: true, temperatures: true, loads: true, peaks: true, edges: false,
      alike: false, least: NaN, most: NaN,
    };
    AXES.forEach((colour, k) => {
      const along = [0, 1, 2].map((m) => Number(m === k));
      this.stage.put(`axis ${k}`, {
        kind: PLAIN, layer: "axes", colour, places: arrows([0, 0, 0], along, 3.5),
      });
    });
  }

  // Take a scene in place of the one before; the view stays as the reader has turned it.
  async show(scene) {
    const first = !this.scene;
    this.points = await unpackedValues(scene.points);
    this.triangles = await unpackedNumbers(scene.triangles.text, new Uint32Array(scene.triangles.count));
    this.edges = await unpackedNumbers(scene.edges.text, new Uint32Array(scene.edges.count));
    this.tetrahedra = await unpackedNumbers(scene.tetrahedra.text, new Uint32Array(scene.tetrahedra.count));
    this.scene = scene;
    this.unpacked = new Map();
    this.lines = null;
    this.extent = Math.max(...scene.high.map((high, k) => high - scene.low[k])) || 1;
    this.middle = scene.high.map((high, k) => (high + scene.low[k]) / 2);
    this.half = scene.high.map((high, k) => (high - scene.low[k]) / 2);
    const [low, high] = this.outline();
    this.camera.half = high.map((end, k) => (end - low[k]) / 2);
    this.camera.centre = high.map((end, k) => (end + low[k]) / 2);
    this.places = this.placed(this.points);
    this.choice.case = Math.max(0, Math.min(this.choice.case, scene.cases.length - 1));
    if (!this.field) this.choice.field = this.offered().map((one) => one.name)[this.offered().length > 1 ? 1 : 0] || null;
    this.panel.fill(this);
    await this.draw();
    if (first) this.camera.look(VIEWS.corner);
  }

  // Ends of a box around the part's middle that holds the deformed part and the arrows of all load cases.
  outline() {
    const room = this.scene.cases.length ? VISIBLE * this.extent : 0;
    const low = this.scene.low.map((end, k) => end - this.middle[k] - room);
    const high = this.scene.high.map((end, k) => end - this.middle[k] + room);
    for (const { loads } of this.scene.cases) {
      const factor = this.perForce(loads);
      for (const load of loads) {
        for (let k = 0; k < 3; k++) {
          const tip = load[k] - this.middle[k] + factor * load[3 + k];
          low[k] = Math.min(low[k], tip - room);
          high[k] = Math.max(high[k], tip + room);
        }
      }
    }
    return [low, high];
  }

  // Length of an arrow by its force: the longest is a part of the model's extent.
  perForce(loads) {
    const longest = Math.max(0, ...loads.map((load) => Math.hypot(...load.slice(3, 6))));
    return longest > 0 ? (ARROW * this.extent) / longest : 0;
  }

  // Change something of what is shown.
  choose(change) {
    Object.assign(this.choice, change);
    if (!this.field) this.choice.field = this.offered().length ? this.offered()[0].name : null;
    return this.draw();
  }

  get case() {
    return this.scene.cases[this.choice.case];
  }

  get field() {
    return this.case && this.case.fields[this.choice.field];
  }

  // Fields that the load case has.
  offered() {
    return this.scene.fields.filter((one) => this.case && this.case.fields[one.name]);
  }

  // Factor that makes the largest displacement well visible.
  get fitting() {
    return this.case && this.case.largest > 0 ? (VISIBLE * this.extent) / this.case.largest : 0;
  }

  get scale() {
    return this.choice.scale === null ? this.fitting : this.choice.scale;
  }

  // Coordinates around the part's middle.
  placed(points) {
    return Float32Array.from(points, (coordinate, i) => coordinate - this.middle[i % 3]);
  }

  // Draw what was chosen, once what was chosen before has been drawn.
  draw() {
    this.queue = this.queue.then(() => this.drawNow());
    return this.queue;
  }

  async drawNow() {
    const said = this.case;
    const shifts = said && said.displacement ? await this.kept("displacement", said.displacement) : null;
    const values = this.field ? await this.kept(this.choice.field, this.field) : null;
    const colours = this.colouring(values);
    const { stage, choice } = this;
    stage.look = { scale: shifts ? this.scale : 0, range: [colours.low, colours.high], plane: this.plane() };
    stage.paint(colours.stops);
    const part = {
      kind: values ? COLOURED : PLAIN, colour: BARE, cut: true,
      places: this.places, shifts, values: values && values.pairs, cells: this.triangles,
    };
    stage.put("part", part);
    if (choice.edges) {
      this.lines ||= this.edges.length ? this.edges : edgesOf(this.triangles);
      stage.put("edges", { ...part, kind: LINES, colour: EDGES, cells: this.lines });
    } else stage.drop("edges");
    this.drawSection(shifts, values);
    this.drawMarks(said);
    this.panel.tell(this, colours);
  }

  // A load case's values, unpacked when they are first asked for.
  async kept(name, said) {
    const key = `${this.case.number} ${name}`;
    if (!this.unpacked.has(key)) {
      const values = await unpackedValues(said);
      if (said.columns.length === 1) values.pairs = paired(values);
      this.unpacked.set(key, values);
    }
    return this.unpacked.get(key);
  }

  // Limits of the scale, the field's own or those that were typed, and its colours.
  colouring(values) {
    let [low, high] = this.limits();
    if (!(high > low)) high = low + (Math.abs(low) || 1);
    const furthest = Math.max(-low, high);
    const stops = low < 0 && high > 0
      ? shades(this.scene.colours.two, 0.5 + low / furthest / 2, 0.5 + high / furthest / 2)
      : this.scene.colours.one;
    return { low, high, stops, has: Boolean(values) };
  }

  limits() {
    const { field, alike, least, most } = this.choice;
    const cases = alike ? this.scene.cases : [this.case];
    const values = cases.flatMap((one) => (one && one.fields[field] ? one.fields[field].limits : []));
    const [low, high] = values.length ? [Math.min(...values), Math.max(...values)] : [0, 1];
    return [Number.isFinite(least) ? least : low, Number.isFinite(most) ? most : high];
  }

  // The cut's plane, around the part's middle; what lies above it stays.
  plane() {
    const { axis, at, turned } = this.choice;
    const plane = [0, 0, 0, 0];
    if (axis < 0) return plane;
    const kept = turned ? -KEPT[axis] : KEPT[axis];
    plane[axis] = kept;
    plane[3] = -kept * (2 * at - 1) * this.half[axis];
    return plane;
  }

  drawSection(shifts, values) {
    const { stage, choice } = this;
    stage.drop("section");
    if (choice.axis < 0 || !this.tetrahedra.length) return;
    const moved = shifts
      ? this.places.map((place, i) => place + stage.look.scale * shifts[i]) : this.places;
    const level = (2 * choice.at - 1) * this.half[choice.axis];
    const none = values || new Float32Array(this.places.length / 3);
    const found = section(moved, none, this.tetrahedra, choice.axis, level);
    if (!found.values.length) return;
    stage.put("section", {
      kind: values ? COLOURED : PLAIN, colour: BARE, places: found.places, values: paired(found.values),
    });
  }

  drawMarks(said) {
    const { stage, choice } = this;
    for (const name of [...Object.keys(DOTTED), "loads", "peaks"]) stage.drop(name);
    if (!said) return;
    for (const [name, colour] of Object.entries(DOTTED)) {
      if (!choice[name] || !said[name].length) continue;
      stage.put(name, {
        kind: DOTS, colour, size: 8, cut: true,
        places: this.placed(said[name].flatMap((dot) => dot.slice(0, 3))),
        shifts: new Float32Array(said[name].flatMap((dot) => dot.slice(3))),
      });
    }
    if (choice.loads && said.loads.length) this.drawLoads(said.loads);
    const peaks = (this.field && this.field.peaks) || [];
    if (choice.peaks && peaks.length) {
      stage.put("peaks", {
        kind: DOTS, colour: PEAKS, size: 13, cut: true,
        places: this.placed(peaks.flatMap((peak) => peak.place)),
        shifts: new Float32Array(peaks.flatMap((peak) => peak.shift)),
      });
    }
  }

  // Arrows as long as the forces, which move with the part.
  drawLoads(loads) {
    const factor = this.perForce(loads);
    const origins = [...this.placed(loads.flatMap((load) => load.slice(0, 3)))];
    const vectors = loads.flatMap((load) => load.slice(3, 6).map((force) => factor * force));
    const places = arrows(origins, vectors, 0.8 * this.extent);
    const each = places.length / loads.length;
    const shifts = new Float32Array(places.length);
    for (let i = 0; i < places.length; i++) shifts[i] = loads[Math.floor(i / each)][6 + (i % 3)];
    this.stage.put("loads", { kind: PLAIN, colour: LOADS, cut: true, places, shifts });
  }
}

// The part of a scale's colours between two shares of it: with both signs, zero stays in its middle.
function shades(stops, from, to) {
  return Array.from({ length: 64 }, (_, n) => {
    const at = Math.min(Math.max(from + (n / 63) * (to - from), 0), 1) * (stops.length - 1);
    const low = Math.min(Math.floor(at), stops.length - 2);
    return stops[low].map((part, k) => part + (at - low) * (stops[low + 1][k] - part));
  });
}

// Each value with 1 beside it, or 0 where there is none.
function paired(values) {
  const pairs = new Float32Array(2 * values.length);
  for (let i = 0; i < values.length; i++) {
    const known = !Number.isNaN(values[i]);
    pairs[2 * i] = known ? values[i] : 0;
    pairs[2 * i + 1] = known ? 1 : 0;
  }
  return pairs;
}

// Where the page holds no edges of elements: they are the triangles', or the surface is simplified.
function edgesOf(triangles) {
  const lines = new Uint32Array(2 * triangles.length);
  for (let i = 0; i < triangles.length; i += 3) {
    const [a, b, c] = [triangles[i], triangles[i + 1], triangles[i + 2]];
    lines[2 * i] = lines[2 * i + 5] = a;
    lines[2 * i + 1] = lines[2 * i + 2] = b;
    lines[2 * i + 3] = lines[2 * i + 4] = c;
  }
  return lines;
}

// Start the viewer where the browser can draw, or else leave the pictures in its place.
async function startViewer(scene) {
  const state = document.documentElement.dataset;
  try {
    if (typeof DecompressionStream === "undefined") throw new Error("no DecompressionStream");
    state.viewer = "starting";
    await new Promise((resolve) => setTimeout(resolve)); // lets the page be drawn first
    const viewer = new PartViewer(byId("canvas"), new Panel());
    viewer.panel.listen(viewer);
    await viewer.show(scene);
    state.viewer = "ready";
    return viewer;
  } catch (error) {
    state.viewer = "unable";
    byId("unable-reason").textContent = String(error.message || error);
    return null;
  }
}
