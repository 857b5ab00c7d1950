// A page that follows a directory: asks its own server what has changed.

const PAUSE = 1000; // milliseconds between two questions
const PLACES = ["now", "missing", "course"]; // that words come for, made and escaped by the server

async function asked(name) {
  const response = await fetch(name, { cache: "no-store" });
  if (!response.ok) throw new Error(response.statusText);
  return response.json();
}

let viewer = null;
let version = 0;

async function look() {
  const state = await asked("state");
  for (const place of PLACES) {
    const words = state.words[place];
    if (words !== undefined && words !== look[place]) byId(place).innerHTML = look[place] = words;
  }
  if (state.version === version) return;
  const scene = await asked("scene");
  byId("empty").hidden = true;
  if (viewer) await viewer.show(scene);
  else viewer = await startViewer(scene);
  version = state.version;
  document.documentElement.dataset.version = version;
}

async function followServer() {
  for (;;) {
    try {
      await look();
      byId("lost").hidden = true;
    } catch {
      byId("lost").hidden = false;
    }
    await new Promise((resolve) => setTimeout(resolve, PAUSE));
  }
}

followServer();
