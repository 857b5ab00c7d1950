// Browsers start no Worker from a page on the disk: there the search runs in a hidden frame.
if (location.protocol === "file:") {
  window.Worker = function (address) {
    const worker = new EventTarget();
    const frame = document.createElement("iframe");
    frame.hidden = true;
    document.body.appendChild(frame);
    const inside = frame.contentWindow;
    inside.postMessage = (data) => worker.dispatchEvent(new MessageEvent("message", { data }));
    const loaded = new Promise((done) => {
      const script = inside.document.createElement("script");
      script.onload = done;
      script.src = address;
      inside.document.body.appendChild(script);
    });
    worker.postMessage = (data) =>
      loaded.then(() => inside.dispatchEvent(new inside.MessageEvent("message", { data })));
    worker.terminate = () => frame.remove();
    return worker;
  };
}
