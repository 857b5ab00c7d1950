// The report's page: everything that it shows came with it.

const viewer = startViewer(JSON.parse(byId("scene").textContent));
