// Drawing with WebGL 2, from afar: triangles coloured by a value, their edges, and dots. Nothing is
// drawn but when something has changed.

const PLAIN = 0, COLOURED = 1, LINES = 2, DOTS = 3; // how an object is drawn

const VERTEX = `#version 300 es
in vec3 place;
in vec3 shift;
in vec2 value; // and 1, or 0 where there is none
uniform mat3 turn; // rows: to the right, up, to the eye
uniform vec3 middle;
uniform vec3 reach; // what the picture spans, from its middle
uniform float scale;
uniform float size;
uniform float nearer;
out vec3 where;
out vec3 eye;
out vec2 told;
void main() {
  where = place + scale * shift;
  eye = turn * (where - middle);
  told = value;
  gl_Position = vec4(eye / reach * vec3(1, 1, -1) - vec3(0, 0, nearer), 1);
  gl_PointSize = size;
}`;

const FRAGMENT = `#version 300 es
precision highp float;
in vec3 where;
in vec3 eye;
in vec2 told;
uniform int kind;
uniform vec4 plane; // what lies below it is cut away
uniform vec2 range;
uniform vec3 colour;
uniform sampler2D palette;
out vec4 seen;
const vec3 LIGHT = vec3(-0.36, 0.48, 0.8);
void main() {
  vec3 normal = cross(dFdx(eye), dFdy(eye));
  if (dot(plane.xyz, where) + plane.w < 0.0) discard;
  float light = 1.0;
  if (kind == ${DOTS}) {
    vec2 off = 2.0 * gl_PointCoord - 1.0;
    if (dot(off, off) > 1.0) discard;
    light = 0.6 + 0.4 * sqrt(1.0 - dot(off, off));
  } else if (kind != ${LINES}) {
    light = 0.62 + 0.38 * abs(dot(normalize(normal.z < 0.0 ? -normal : normal), LIGHT));
  }
  vec3 base = colour;
  if (kind == ${COLOURED}) {
    float share = clamp((told.x - range.x) / (range.y - range.x), 0.0, 1.0);
    base = told.y < 0.999 ? vec3(0.75) : texture(palette, vec2((0.5 + 255.0 * share) / 256.0, 0.5)).rgb;
  }
  seen = vec4(light * base, 1);
}`;

class Stage {
  // `canvas` is drawn on; `before` is called before each picture.
  constructor(canvas, before) {
    this.canvas = canvas;
    this.before = before;
    this.objects = new Map(); // by name, in the order in which they are drawn
    this.view = { turn: [1, 0, 0, 0, 1, 0, 0, 0, 1], middle: [0, 0, 0], reach: [1, 1, 1] };
    this.look = { scale: 0, plane: [0, 0, 0, 0], range: [0, 1] };
    this.stops = [[0.7, 0.7, 0.7]];
    this.prepare();
    canvas.addEventListener("webglcontextlost", (event) => event.preventDefault());
    canvas.addEventListener("webglcontextrestored", () => {
      this.prepare();
      for (const [name, object] of [...this.objects]) {
        this.objects.delete(name);
        this.put(name, object.said);
      }
    });
  }

  prepare() {
    const gl = this.canvas.getContext("webgl2", { antialias: true, alpha: false });
    if (!gl) throw new Error("no WebGL 2");
    this.gl = gl;
    this.program = gl.createProgram();
    for (const [type, source] of [[gl.VERTEX_SHADER, VERTEX], [gl.FRAGMENT_SHADER, FRAGMENT]]) {
      const shader = gl.createShader(type);
      gl.shaderSource(shader, source);
      gl.compileShader(shader);
      gl.attachShader(this.program, shader);
    }
    gl.linkProgram(this.program);
    if (!gl.getProgramParameter(this.program, gl.LINK_STATUS)) throw new Error("the shaders fail");
    gl.useProgram(this.program);
    this.places = {};
    for (const name of ["turn", "middle", "reach", "scale", "size", "nearer", "kind", "plane", "range", "colour"]) {
      this.places[name] = gl.getUniformLocation(this.program, name);
    }
    gl.enable(gl.DEPTH_TEST);
    gl.clearColor(1, 1, 1, 1);
    gl.bindTexture(gl.TEXTURE_2D, gl.createTexture());
    for (const [key, value] of [
      [gl.TEXTURE_MIN_FILTER, gl.NEAREST], [gl.TEXTURE_MAG_FILTER, gl.NEAREST],
      [gl.TEXTURE_WRAP_S, gl.CLAMP_TO_EDGE], [gl.TEXTURE_WRAP_T, gl.CLAMP_TO_EDGE],
    ]) gl.texParameteri(gl.TEXTURE_2D, key, value);
    this.paint(this.stops);
  }

  // Colours of a scale from its least value on, each red, green and blue up to 1.
  paint(stops) {
    this.stops = stops;
    const { gl } = this;
    const texels = new Uint8Array(4 * 256);
    for (let i = 0; i < 256; i++) {
      const at = (i / 255) * (stops.length - 1);
      const low = Math.min(Math.floor(at), Math.max(stops.length - 2, 0));
      const high = Math.min(low + 1, stops.length - 1);
      for (let k = 0; k < 3; k++) {
        texels[4 * i + k] = Math.round(255 * (stops[low][k] + (at - low) * (stops[high][k] - stops[low][k])));
      }
      texels[4 * i + 3] = 255;
    }
    gl.texImage2D(gl.TEXTURE_2D, 0, gl.RGBA, 256, 1, 0, gl.RGBA, gl.UNSIGNED_BYTE, texels);
  }

  // Add an object, or change the one of that name; arrays that stay the same aren't handed on anew.
  // said: kind, places, shifts and values or null, cells (null for all points), colour, size, cut
  put(name, said) {
    const { gl } = this;
    const known = this.objects.get(name);
    const object = known || { array: gl.createVertexArray(), buffers: {}, said: {} };
    gl.bindVertexArray(object.array);
    for (const [attribute, width] of [["place", 3], ["shift", 3], ["value", 2]]) {
      this.fill(object, attribute, width, said[`${attribute}s`]);
    }
    if (said.cells && said.cells !== object.said.cells) {
      object.buffers.cells ||= gl.createBuffer();
      gl.bindBuffer(gl.ELEMENT_ARRAY_BUFFER, object.buffers.cells);
      gl.bufferData(gl.ELEMENT_ARRAY_BUFFER, said.cells, gl.STATIC_DRAW);
    }
    object.said = said;
    this.objects.set(name, object);
    gl.bindVertexArray(null);
    this.render();
  }

  fill(object, attribute, width, values) {
    const { gl } = this;
    const at = gl.getAttribLocation(this.program, attribute);
    if (!values) {
      gl.disableVertexAttribArray(at);
      gl.vertexAttrib4f(at, 0, 0, 0, 1);
      return;
    }
    gl.enableVertexAttribArray(at);
    if (values === object.said[`${attribute}s`]) return;
    object.buffers[attribute] ||= gl.createBuffer();
    gl.bindBuffer(gl.ARRAY_BUFFER, object.buffers[attribute]);
    gl.bufferData(gl.ARRAY_BUFFER, values, gl.STATIC_DRAW);
    gl.vertexAttribPointer(at, width, gl.FLOAT, false, 0, 0);
  }

  drop(name) {
    const object = this.objects.get(name);
    if (!object) return;
    this.gl.deleteVertexArray(object.array);
    for (const buffer of Object.values(object.buffers)) this.gl.deleteBuffer(buffer);
    this.objects.delete(name);
    this.render();
  }

  render() {
    this.due ||= requestAnimationFrame(() => {
      this.due = 0;
      this.picture();
    });
  }

  picture() {
    const { gl, canvas } = this;
    if (gl.isContextLost()) return;
    const dots = window.devicePixelRatio || 1;
    const width = Math.max(1, Math.round(canvas.clientWidth * dots));
    const height = Math.max(1, Math.round(canvas.clientHeight * dots));
    if (canvas.width !== width || canvas.height !== height) Object.assign(canvas, { width, height });
    this.before();
    gl.viewport(0, 0, width, height);
    gl.clear(gl.COLOR_BUFFER_BIT | gl.DEPTH_BUFFER_BIT);
    this.all("part", this.view);
    const corner = Math.round(88 * dots); // of the axes
    gl.viewport(0, 0, corner, corner);
    gl.clear(gl.DEPTH_BUFFER_BIT);
    this.all("axes", { ...this.view, middle: [0, 0, 0], reach: [1.35, 1.35, 2] });
  }

  // Draw the objects that belong to a view.
  all(layer, { turn, middle, reach }) {
    const { gl, places } = this;
    gl.uniformMatrix3fv(places.turn, true, turn);
    gl.uniform3fv(places.middle, middle);
    gl.uniform3fv(places.reach, reach);
    gl.uniform1f(places.scale, this.look.scale);
    gl.uniform2fv(places.range, this.look.range);
    for (const { array, said } of this.objects.values()) {
      if ((said.layer || "part") !== layer) continue;
      gl.uniform1i(places.kind, said.kind);
      gl.uniform3fv(places.colour, said.colour || [1, 1, 1]);
      gl.uniform1f(places.size, (said.size || 1) * (window.devicePixelRatio || 1));
      gl.uniform1f(places.nearer, said.kind >= LINES ? 5e-4 : 0);
      gl.uniform4fv(places.plane, said.cut ? this.look.plane : [0, 0, 0, 0]);
      gl.bindVertexArray(array);
      const mode = said.kind === DOTS ? gl.POINTS : said.kind === LINES ? gl.LINES : gl.TRIANGLES;
      if (said.cells) gl.drawElements(mode, said.cells.length, gl.UNSIGNED_INT, 0);
      else gl.drawArrays(mode, 0, said.places.length / 3);
    }
    gl.bindVertexArray(null);
  }
}
