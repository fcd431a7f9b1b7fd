export const word = "module";
