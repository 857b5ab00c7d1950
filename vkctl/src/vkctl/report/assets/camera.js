// Where the part is looked at from, and the hand that turns it. Up stays up: pulling sideways turns
// about the part's z axis.

const VIEWS = { corner: [-0.6, -1, 0.5], x: [1, 0, 0], y: [0, -1, 0], z: [0, 0, 1] };
const MARGIN = 1.05; // of what is fitted into the picture
const PER_PIXEL = 0.008; // radians

const product = (a, b) => [0, 3, 6].flatMap((row) => [0, 1, 2].map(
  (k) => a[row] * b[k] + a[row + 1] * b[3 + k] + a[row + 2] * b[6 + k]));
const applied = (a, v) => [0, 3, 6].map((row) => a[row] * v[0] + a[row + 1] * v[1] + a[row + 2] * v[2]);
const cross = (a, b) => [a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]];
const unit = (v) => v.map((part) => part / Math.hypot(...v));

class Camera {
  constructor(canvas, changed) {
    this.canvas = canvas;
    this.changed = changed;
    this.turn = [1, 0, 0, 0, 1, 0, 0, 0, 1];
    this.middle = [0, 0, 0];
    this.height = 1; // that the picture spans
    this.half = [0.5, 0.5, 0.5]; // of the box that is looked at
    this.centre = [0, 0, 0]; // of that box
    this.hands = new Map(); // places of pressed buttons and fingers
    this.listen();
  }

  get aspect() {
    return this.canvas.clientWidth / Math.max(this.canvas.clientHeight, 1);
  }

  get perPixel() {
    return this.height / Math.max(this.canvas.clientHeight, 1);
  }

  view() {
    const depth = 6 * Math.hypot(...this.half); // the deformed part is larger than its box
    return {
      turn: this.turn, middle: this.middle,
      reach: [(this.height / 2) * this.aspect, this.height / 2, depth],
    };
  }

  // Look at the whole box from a direction.
  look(direction) {
    const eye = unit(direction);
    const right = unit(cross(Math.abs(eye[2]) > 0.9 ? [0, 1, 0] : [0, 0, 1], eye));
    this.turn = [...right, ...cross(eye, right), ...eye];
    this.fit();
  }

  fit() {
    const [wide, high] = [0, 3].map((row) => this.half.reduce(
      (sum, half, k) => sum + 2 * half * Math.abs(this.turn[row + k]), 0));
    this.middle = [...this.centre];
    this.height = MARGIN * Math.max(high, wide / this.aspect, 1e-6 * Math.hypot(...this.half));
    this.isWhole = true; // and stays so in a canvas of another size
    this.changed();
  }

  resized() {
    if (this.isWhole) this.fit();
    else this.changed();
  }

  turned(across, down) {
    this.isWhole = false;
    const [c, s] = [Math.cos(across), Math.sin(across)];
    const [cd, sd] = [Math.cos(down), Math.sin(down)];
    const about = product(this.turn, [c, -s, 0, s, c, 0, 0, 0, 1]);
    this.turn = product([1, 0, 0, 0, cd, -sd, 0, sd, cd], about);
    this.changed();
  }

  moved(across, down) {
    this.isWhole = false;
    for (let k = 0; k < 3; k++) {
      this.middle[k] -= this.perPixel * (across * this.turn[k] - down * this.turn[3 + k]);
    }
    this.changed();
  }

  // By a factor, with the point under (x, y) of the canvas where it is.
  zoomed(factor, x = this.canvas.clientWidth / 2, y = this.canvas.clientHeight / 2) {
    const off = [x - this.canvas.clientWidth / 2, y - this.canvas.clientHeight / 2];
    this.moved(-off[0], -off[1]);
    this.height *= factor;
    this.moved(off[0], off[1]);
  }

  listen() {
    const { canvas } = this;
    canvas.addEventListener("contextmenu", (event) => event.preventDefault());
    canvas.addEventListener("pointerdown", (event) => {
      canvas.setPointerCapture(event.pointerId);
      this.hands.set(event.pointerId, [event.offsetX, event.offsetY]);
    });
    for (const end of ["pointerup", "pointercancel"]) {
      canvas.addEventListener(end, (event) => this.hands.delete(event.pointerId));
    }
    canvas.addEventListener("pointermove", (event) => this.pulled(event));
    canvas.addEventListener("wheel", (event) => {
      event.preventDefault();
      const lines = event.deltaMode ? 33 * event.deltaY : event.deltaY;
      this.zoomed(Math.exp(Math.max(-300, Math.min(lines, 300)) * 0.0012), event.offsetX, event.offsetY);
    }, { passive: false });
    canvas.addEventListener("keydown", (event) => {
      const turns = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
      const zooms = { "+": 0.9, "=": 0.9, "-": 1 / 0.9 };
      if (turns[event.key]) this.turned(...turns[event.key].map((way) => 0.12 * way));
      else if (zooms[event.key]) this.zoomed(zooms[event.key]);
      else return;
      event.preventDefault();
    });
  }

  pulled(event) {
    const last = this.hands.get(event.pointerId);
    if (!last) return;
    const now = [event.offsetX, event.offsetY];
    const [across, down] = [now[0] - last[0], now[1] - last[1]];
    const other = [...this.hands].find(([id]) => id !== event.pointerId);
    this.hands.set(event.pointerId, now);
    if (other) {
      const before = Math.hypot(last[0] - other[1][0], last[1] - other[1][1]);
      const after = Math.hypot(now[0] - other[1][0], now[1] - other[1][1]);
      this.moved(across / 2, down / 2);
      if (after > 0) this.zoomed(before / after, ...other[1]);
    } else if (event.shiftKey || event.buttons & 6) {
      this.moved(across, down);
    } else {
      this.turned(PER_PIXEL * across, PER_PIXEL * down);
    }
  }
}
