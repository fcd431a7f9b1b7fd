import "./app.css";
import React, { Suspense, lazy, useEffect, useState } from "react";
import { createRoot } from "react-dom/client";
import logo from "../site/picture.svg";

const Item = lazy(() => import("./item.jsx"));

function App() {
  const [path, setPath] = useState(location.pathname);
  useEffect(() => {
    const follow = () => setPath(location.pathname);
    addEventListener("popstate", follow);
    return () => removeEventListener("popstate", follow);
  }, []);
  const open = (event) => {
    event.preventDefault();
    history.pushState(null, "", event.target.href);
    setPath(location.pathname);
  };
  const id = path.match(/^\/items\/(\d+)$/)?.[1];
  return (
    <main>
      <img src={logo} alt="" />
      <h1>{id ? <Suspense fallback="…"><Item id={id} /></Suspense> : "All items"}</h1>
      <a href="/items/7" onClick={open}>the seventh</a>
    </main>
  );
}

createRoot(document.getElementById("root")).render(<App />);
