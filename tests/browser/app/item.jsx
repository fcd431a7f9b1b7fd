import React from "react";

export default function Item({ id }) {
  return <>Item {id}</>;
}
