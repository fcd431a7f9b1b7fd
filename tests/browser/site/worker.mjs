import { word } from "./part.mjs";

onmessage = ({ data }) => postMessage(`${data} to a worker with a ${word}`);
