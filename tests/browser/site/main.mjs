// What the driver looks at is in `site`; what fails stays undefined and is an error on the console.
import { word } from "./part.mjs";

const site = (window.site = { word });

site.late = (await import("./part.mjs?late")).word;

const worker = new Worker("worker.mjs", { type: "module" });
worker.onmessage = ({ data }) => (site.worker = data);
worker.postMessage("hello");

const { instance } = await WebAssembly.instantiateStreaming(fetch("add.wasm"));
site.sum = instance.exports.add(40, 2);

site.fonts = (await document.fonts.load("16px Icons", "\uf015")).map((face) => face.status);

// Sends the video to that second, and tells which it is at then.
const video = document.querySelector("video");
site.seek = async (seconds) => {
  const sought = new Promise((done) => (video.onseeked = done));
  video.currentTime = seconds;
  await sought;
  return video.currentTime;
};

// The colour of what the video shows: its frame may come a little later than the end of a seek.
site.colour = () => {
  const canvas = Object.assign(document.createElement("canvas"), { width: 1, height: 1 });
  const context = canvas.getContext("2d");
  context.drawImage(video, 0, 0, 1, 1);
  const [red, , blue] = context.getImageData(0, 0, 1, 1).data;
  return red > blue ? "red" : "blue";
};
