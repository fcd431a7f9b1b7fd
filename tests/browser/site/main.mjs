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
